#!/usr/bin/env bash
# The fault campaign: rounds of activations and deactivations of 20 resources at once, while runs are killed,
# tools misbehave, the disk is full, run/ goes away, the link is lost, and another host takes the addresses.
# After each round the rules are checked; docs/reliability.md tells them. Everything happens in two network
# namespaces and a mount namespace of its own.
#
#   soak.sh [--minutes N] [--seed S] [--bin DIRECTORY]
#
# Exits 1 when a rule was broken; the evidence is left in a directory that it names.
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=2 seed=$((RANDOM * 32768 + RANDOM)) bin=$PWD/build/release/bin
while [ $# -gt 0 ]; do
    case ${2+$1} in
    --minutes) minutes=$2 ;;
    --seed) seed=$2 ;;
    --bin) bin=$(realpath "$2") ;;
    *) sed -n 's/^#   //p' "$0" >&2 && exit 2 ;;
    esac
    shift 2
done
# The small disk under the log must be nobody else's.
[ -n "${SOAK_ALONE-}" ] || SOAK_ALONE=1 exec unshare --mount --propagation private "$0" \
    --minutes "$minutes" --seed "$seed" --bin "$bin"

here=qorsoak-a-$$ peer=qorsoak-b-$$
work=$(mktemp -d /tmp/qorsoak.XXXXXX)
home=$work/home tools=$work/tools evidence=$work/evidence round_dir=$work/round
export QOR_HOME=$home
limit=30 # seconds that a run may take
settle=2 # seconds in which a killed command must be gone
# shellcheck source-path=SCRIPTDIR source=soak_stage.sh
source bench/soak_stage.sh

rounds=0 longest=0
declare -A tally=() broken=()
count() { tally[$1]=$((${tally[$1]-0} + ${2-1})); }

# violation KIND TEXT: notes it, and keeps what the round left
violation() {
    broken[$1]=$((${broken[$1]-0} + 1))
    mkdir -p "$evidence/round$rounds"
    printf 'round %s: %s: %s\n' "$rounds" "$1" "$2" | tee -a "$evidence/violations"
    cp -r "$round_dir"/. "$home"/log/fip.log* "$evidence/round$rounds/" 2>/dev/null || true
}

clean_up() {
    local namespace
    touch "$work/stop"
    for namespace in "$here" "$peer"; do
        [ -e "/run/netns/$namespace" ] || continue
        ip netns pids "$namespace" | xargs -r kill -9 2>/dev/null || true
        ip netns delete "$namespace"
    done
    wait
    umount "$home/log" || true
    rm -rf "$home" "$tools" "$round_dir" "$work"/{away,gate,stop,killed,network}
    rmdir "$work" 2>/dev/null || true
}
trap clean_up EXIT
trap 'exit 1' HUP INT PIPE TERM
trap 'echo "soak: broke off in line $LINENO" >&2' ERR

# agent RUN LAYOUT FAULTS ARGUMENT...: becomes the agent. With $gate set it waits there, for a start of all at once.
agent() {
    # shellcheck disable=SC2016,SC2086 # the inner shell's; a command of plain words, or nothing
    exec ${bounded-} ip netns exec "$here" env PATH="$tools:$PATH" SOAK_RUN="$1" SOAK_LAYOUT="$2" SOAK_FAULTS="$3" \
        ${gate:+sh -c 'read -r _ <"$0"; exec "$@"' "$gate"} "$bin/qorfip" "${@:4}" </dev/null >/dev/null 2>&1 \
        {gate_end}>&-
}
is_agent() { [ "$(cat "/proc/$1/comm")" = qorfip ]; }
killer() { # PID MILLISECONDS
    doze "$2"
    ! is_agent "$1" || kill -9 "$1"
}
# Ends the runs that take too long; what they waited for is evidence.
watchdog() {
    local pid
    read -rt $limit _ <><(:) || true
    for pid; do
        is_agent "$pid" || continue
        echo "$pid" >>"$round_dir/hung"
        ps -eLo pid,ppid,wchan:30,args >"$round_dir/processes"
        cat /proc/locks >"$round_dir/locks"
        kill -9 "$pid"
    done
}

# plan_faults NAME: which calls of the run misbehave. Few may hang, for one run's wait is another's.
plan_faults() {
    local tool=ifconfig call=1 kinds=(fail die rubbish hang late lie) kind
    kind=${kinds[RANDOM % 6]}
    case ${options[$1]}:$((RANDOM % 3)) in
    *s*:0) tool=ip ;;
    *p*:[01]) tool=qorping ;;
    *) call=$((1 + RANDOM % 4)) ;;
    esac
    case $tool:$kind in
    ifconfig:hang | ifconfig:late) ((short_hangs-- > 0)) || kind=fail ;;
    *:hang | *:late) ((long_hangs-- > 0)) || kind=die ;;
    esac
    faults="$tool:$call:$kind arp:1:${kinds[RANDOM % 3]}"
}

# Plays a round: of four, one takes all down and one brings all up, at one instant; two mix the modes. order, code
# and of_run tell of its runs; single of resources that had only one.
declare -A single
play_round() {
    local id name mode layout pid faults delay gate='' turn=$((rounds % 4)) start=${EPOCHREALTIME/./} short_hangs=4
    local long_hangs=$((RANDOM % 3 == 0)) broken_tools=$((RANDOM % 2)) kills=$((RANDOM % 3)) pids=() helpers=()
    ip -n "$here" -json address >"$round_dir/before"
    lost=$((RANDOM % 4 == 0))
    ((!lost)) || haunt lost_run
    ((RANDOM % 2)) || haunt full_disk
    ((RANDOM % 2)) || haunt answering_peer
    ((RANDOM % 4)) || haunt lost_link
    ((turn > 1)) || gate=$work/gate
    single=() code=() of_run=() order=("${names[@]}")
    for ((id = RANDOM % 5; id > 0; --id)); do order+=("${names[RANDOM % ${#names[@]}]}"); done
    for id in "${!order[@]}"; do
        name=${order[id]} faults='' delay=''
        if ((turn == 1 || (turn > 1 && RANDOM % 2))); then mode=--active; else mode=--deactive; fi
        if ((RANDOM % 3)); then layout=older; else layout=newer; fi
        if ((broken_tools && RANDOM % 2)); then plan_faults "$name"; fi
        if ((kills && RANDOM % 4 == 0)); then delay=$((RANDOM % (RANDOM % 2 ? 60 : 1500))); fi
        agent "$rounds.$id" $layout "$faults" $mode -r "$name" -g g1 &
        pid=$!
        pids+=("$pid")
        [ -z "$delay" ] || { killer "$pid" "$delay" & helpers+=($!); }
        single[$name]=${single[$name]+many}
        of_run[id]="$name $mode $layout"
        echo "$rounds.$id pid $pid: ${of_run[id]} $faults ${delay:+killed after $delay ms}" >>"$round_dir/plan"
        ((turn < 2 || RANDOM % 3)) || doze $((RANDOM % 100))
    done
    [ -z "$gate" ] || printf '\n%.0s' "${pids[@]}" >"$gate"
    watchdog "${pids[@]}" &
    helpers+=($!)
    for id in "${!pids[@]}"; do
        code[id]=0
        wait "${pids[id]}" || code[id]=$?
        ! grep -qx "${pids[id]}" "$round_dir/hung" || violation hang "${of_run[id]}: took more than $limit s"
    done
    kill "${helpers[-1]}" || true
    touch "$work/stop"
    for pid in "${helpers[@]}"; do wait "$pid" || true; done
    start=$(((${EPOCHREALTIME/./} - start) / 1000))
    longest=$((start > longest ? start : longest))
    count rounds
    count runs ${#pids[@]}
}

# shellcheck disable=SC2034 # the array is the caller's
# Fills the array of that name: the label under which a resource's address stands, "null" for IPv6.
read_addresses() { # FILE ARRAY
    local -n into=$2
    local text label
    into=()
    while read -r text label; do
        into[${known[$text]-$text}]=$label
    done < <(listed "$1")
}
listed() { jq -r '.[] | select(.ifname != "lo").addr_info[] | "\(.local) \(.label)"' "$1"; }

declare -A before after
check_addresses() {
    local text
    ip -n "$here" -json address >"$round_dir/after"
    read_addresses "$round_dir/before" before
    read_addresses "$round_dir/after" after
    text=$(listed "$round_dir/after" | cut -d ' ' -f 1 | sort | uniq -d)
    [ -z "$text" ] || violation addresses "twice: $text"
    for text in $own; do [ -n "${after[$text]-}" ] || violation addresses "lost: $text"; done
    for text in "${!after[@]}"; do
        [[ -n ${argument[$text]-} || " $own " = *" $text "* ]] || violation addresses "stranger: $text"
    done
}

# The messages that an exit status may leave, as regular expressions; ADDRESS stands for the resource's own.
# Status 0 may tell of an ARP packet that did not go out.
declare -A messages=([0]='Success\.|Internal error\. \(status=21\)' [14]='IP address did not exist\.'
    [15]='IP address was already used\.|This ip address was already used\.  IP=ADDRESS|The device has another .*'
    [17]='Fip interface was not found\.' [28]='Success\.' [35]='Detected NIC Link Down\.' [38]='Get nic info failed\.'
    [39]='Add ip\(ADDRESS\) failed\.' [40]='Delete ip\(ADDRESS\) failed\.')
for name in 2 3 11 12 13 18 22 23 24 25 99; do messages[$name]="Internal error\. \(status=$name\)"; done
for name in 3 11; do messages[$name]+='|Command failed\. \(.*'; done
printf -v messages[any] '%s|' "${messages[@]}"
# says NAME STATUS TEXT: the text is one of the status's messages
says() { grep -qE "^(${messages[$2]//ADDRESS/${address[$1]}})$" <<<"$3"; }

declare -A state
check_states() {
    local group type name device message
    state=()
    "$bin/qorstat" --plain >"$round_dir/states" || violation states 'qorstat fails'
    [ -z "$(cut -f 3 "$round_dir/states" | sort | uniq -d)" ] || violation states 'a resource twice'
    while IFS='|' read -r group type name device message; do
        if [[ ! $group =~ ^(g1)?$ || $type != fip || -z ${address[$name]-} ]] ||
            [[ ! $device =~ ^((veth|side)(:[0-9]+)?)?$ ]] || ! says "$name" any "$message"; then
            violation states "$group|$type|$name|$device|$message"
        fi
        state[$name]="$device|$message"
    done < <(tr '\t' '|' <"$round_dir/states")
}

# Whether each run says what is so. Not judged: killed runs, runs of one resource at once, runs that a tool's
# claim of success misled, and rounds in which run/ was lost, for nothing kept those runs apart.
check_runs() {
    local id name mode layout status up injected
    for id in "${!code[@]}"; do
        read -r name mode layout <<<"${of_run[id]}"
        status=${code[id]} up=${after[$name]:+up}
        count "exit status $status"
        [ "$status" -ne 137 ] || { echo "$rounds.$id" >>"$work/killed" && continue; }
        [ -n "${messages[$status]-}" ] || { violation 'exit status' "${of_run[id]}: $status" && continue; }
        injected=$(sed -n "s/^$rounds.$id //p" "$round_dir/faults")
        [[ -z ${single[$name]}$injected || ! ${single[$name]}$injected =~ many|rubbish|lie ]] || continue
        ((!lost)) || continue
        case $mode:$status in
        --active:0) [ -n "$up" ] ;;
        --active:3 | --active:11 | --active:23 | --deactive:[!02]*) ;;
        --active:35 | --active:99) [ -z "$up" ] || [ -n "$injected" ] ;;
        --active:*) [ "$up" = "${before[$name]:+up}" ] ;;
        --deactive:0 | --deactive:25) [ -z "$up" ] ;;
        esac || violation truth "${of_run[id]}: $status, before: ${before[$name]-down}, after: ${after[$name]-down}"
        [[ $mode:$status = --deactive:0 ]] || says "$name" "$status" "${state[$name]#*|}" ||
            [[ $status =~ 35|99 ]] || violation message "${of_run[id]}: $status, ${state[$name]-no message}"
        [[ $mode:$status != --active:0 || ${after[$name]-null} = null || ${state[$name]%%|*} = "${after[$name]}" ]] ||
            violation device "${of_run[id]}: ${state[$name]}, not ${after[$name]}"
    done
    while read -r _ name mode; do count "fault: $name $mode"; done <"$round_dir/faults"
    while read -r name; do count "fault: $name"; done <"$round_dir/weather"
}

# check_orphans [SECONDS]: nothing runs in the namespace but what killed runs had started, for its own time;
# after SECONDS not even that.
check_orphans() {
    local pid run left tries
    for ((tries = 10 * (${1:-0} + settle); tries > 0; --tries)); do
        left=''
        for pid in $(ip netns pids "$here"); do
            run=$({ tr '\0' '\n' <"/proc/$pid/environ" | sed -n 's/^SOAK_RUN=//p'; } 2>/dev/null) || continue
            if [ -n "${1-}" ] || ! grep -qx "$run" "$work/killed" ||
                (($(ps -o etimes= -p "$pid" || echo 0) > hang + settle)); then
                left+="$run: $(ps -o args= -p "$pid" || true); "
            fi
        done
        [ -n "$left" ] || return 0
        sleep 0.1
    done
    violation orphan "$left"
}

check_lock() {
    local inodes status=0
    inodes=$(stat -c %i "$home"/run/* 2>/dev/null | tr '\n' '|') || true
    ! grep -E ":(${inodes}none) " /proc/locks >"$round_dir/locks" || violation lock "held: $(cat "$round_dir/locks")"
    (bounded="timeout $limit" agent probe newer '' --deactive -r probe -g g1) || status=$?
    [ $status -eq 0 ] || violation lock "a run that needs it: $status"
}

# Every line is whole; only a killed run and a full disk leave a piece of one, never with another line in it.
check_log() {
    local file cut stamp='[0-9-]{10} [0-9:]{8}\.[0-9]{6} [0-9]+/[0-9]+ (1|2|4|8|32768) src/[A-Za-z]+\.c:[0-9]+'
    for file in "$home"/log/fip.log.1 "$home"/log/fip.log; do
        [ -s "$file" ] || continue
        grep -avE "^$stamp [a-z0-9_]+ \| .|^$" "$file" >"$round_dir/cut" || true
        count 'log lines' "$(wc -l <"$file")"
        cut=$(wc -l <"$round_dir/cut")
        if grep -qx 'disk full' "$round_dir/weather"; then
            count 'log lines cut by the full disk' "$cut"
        elif [[ " ${code[*]} " = *' 137 '* ]]; then
            count 'log lines cut by a kill' "$cut"
        elif [ "$cut" -gt 0 ]; then
            violation 'torn line' "$(head -n 3 "$round_dir/cut")"
        fi
        ! grep -aE ".$stamp" "$file" >"$round_dir/cut" || violation 'swallowed line' "$(head -n 3 "$round_dir/cut")"
    done
    # A piece at the end stays, for the next round to go on behind it.
    if [ -n "$(tail -c 1 "$home/log/fip.log")" ]; then
        tail -n 1 "$home/log/fip.log" >"$work/piece"
        mv "$work/piece" "$home/log/fip.log"
    else
        rm -f "$home"/log/fip.log
    fi
    rm -f "$home"/log/fip.log.1
}

# Everything down, without faults: the node is as it was. The kernel drops the routes whose source goes.
final_check() {
    local status
    for name in "${names[@]}"; do
        status=0
        (bounded="timeout $limit" agent final newer '' --deactive -r "$name" -g g1) || status=$?
        [ $status -eq 0 ] || violation final "$name --deactive: $status"
    done
    check_orphans $hang
    ip -n "$here" route replace 198.51.100.0/24 dev side proto kernel scope link src 198.51.100.1
    ip -n "$here" route replace default via 198.51.100.2 dev side
    network | diff "$work/network" - >"$round_dir/difference" ||
        violation final "not as it was: $(head -n 20 "$round_dir/difference")"
}

echo "seed $seed, $minutes minutes"
RANDOM=$seed
make_home
make_tools
make_network
mkfifo "$work/gate"
exec {gate_end}<>"$work/gate"
network >"$work/network"
for ((end = SECONDS + minutes * 60; SECONDS < end; )); do
    rounds=$((rounds + 1))
    rm -rf "$round_dir" "$work/stop"
    mkdir "$round_dir"
    touch "$round_dir"/{faults,weather,hung} "$work/killed"
    play_round 2>"$round_dir/stderr" # bash tells of every process that was killed
    check_addresses
    check_states
    check_runs
    check_orphans
    check_lock
    check_log
done
final_check
for name in "${!tally[@]}"; do printf '%-36s %7d\n' "$name" "${tally[$name]}"; done | sort -V
printf '%-36s %7d\n' 'longest round, ms' $longest
for name in "${!broken[@]}"; do printf 'VIOLATION %-26s %7d\n' "$name" "${broken[$name]}"; done | sort
echo "violations: ${#broken[@]} kinds"
[ ${#broken[@]} -eq 0 ] || { echo "evidence: $evidence" && exit 1; }
