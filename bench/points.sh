#!/usr/bin/env bash
# Every fault point of a run: the agent runs once per point, undisturbed but for that one, and what each run left is
# judged; docs/reliability.md tells the rules. Everything happens in network namespaces and suite homes of its own.
#
#   points.sh [--mode NAME,...] [--kind kill,error,memory] [--only TEXT] [--jobs N] [--budget SECONDS] [--list]
#             [--bin DIRECTORY]
#
# --only takes the points that have TEXT in their name; --list only tells the names. Exits 1 when a rule was broken;
# the evidence is left in a directory that it names.
set -euo pipefail
cd "$(dirname "$0")/.."

# Options are those of soak_stage.sh. Start: the address is down or up; bare: there is no run/ and no log/; full: the
# trace log is, nearly; peer: another host has the address. Status: how the mode ends undisturbed.
# NAME           MODE       ADDRESS             OPTIONS  START  STATUS
modes='
active           --active   192.0.2.50/24       -        down   0
active-bare      --active   192.0.2.50/24       -        bare   0
active-rotate    --active   192.0.2.50/24       -        full   0
active-used      --active   192.0.2.50/24       p        peer   15
active-ping      --active   192.0.2.50/24       p        down   0
active-source    --active   198.51.100.50/24    s        down   0
active-link      --active   192.0.2.50/24       m        down   0
active-v6        --active   2001:db8::50/64     m        down   0
active-command   --active   192.0.2.50/24       i        down   0
dactive          --dactive  192.0.2.50/24       -        down   0
deactive         --deactive 192.0.2.50/24       -        up     0
deactive-ping    --deactive 192.0.2.50/24       q        up     0
deactive-v6      --deactive 2001:db8::50/64     -        up     0
deactive-command --deactive 192.0.2.50/24       i        up     0
add              --add      192.0.2.60/24%veth  -        down   0
del              --del      192.0.2.60/24%veth  -        up     0
test             --test     192.0.2.50/24       p        down   0
test-bad         --test     192.0.2.50/40       p        down   1'
only='' list='' jobs=$(nproc) budget=3600 kinds=kill,error,memory mode='' bin=$PWD/build/release/bin
while [ $# -gt 0 ]; do
    case $1:${2+value} in
    --list:*) list=1 && shift && continue ;;
    --mode:value) mode=$2 ;;
    --kind:value) kinds=$2 ;;
    --only:value) only=$2 ;;
    --jobs:value) jobs=$2 ;;
    --budget:value) budget=$2 ;;
    --bin:value) bin=$(realpath "$2") ;;
    *) sed -n 's/^#   //p' "$0" >&2 && exit 2 ;;
    esac
    shift 2
done

evidence=$(mktemp -d /tmp/qorpoints.XXXXXX)
top=$(mktemp -d /dev/shm/qorpoints.XXXXXX)
chmod 755 "$top"
until=$(($(date +%s) + budget))

clean_up() {
    local namespace
    jobs -p | xargs -r kill 2>/dev/null || true
    for namespace in /run/netns/qorpoint-[ab]-"$$"-*; do
        [ -e "$namespace" ] || continue
        ip netns pids "${namespace##*/}" | xargs -r kill -9 2>/dev/null || true
        ip netns delete "${namespace##*/}"
    done
    wait
    rm -rf "$top"
    rmdir "$evidence" 2>/dev/null || true
}
trap clean_up EXIT
trap 'exit 1' HUP INT PIPE TERM

# stage PART NAME MODE ADDRESS OPTIONS START: a home with one resource, and its network
stage() {
    here=qorpoint-a-$$-$1 peer=qorpoint-b-$$-$1 work=$top/$1
    home=$work/home tools=$work/tools resources="fip1 ${4%%%*} $5"
    export QOR_HOME=$home
    mkdir -p "$tools"
    # shellcheck source-path=SCRIPTDIR source=soak_stage.sh
    source bench/soak_stage.sh
    make_configuration
    mkdir "$home/etc/check"
    cp "$home/etc/cluster.xml" "$home/etc/check/"
    [ "$2" != test-bad ] || sed -i 's|/40<|/24<|' "$home/etc/cluster.xml"
    ln -s /bin/false "$home/bin/qorping"
    [ "$5" != i ] || ln -s "$(command -v busybox)" "$tools/ifconfig"
    make_network
    if [ "$6" = peer ]; then
        ln -sf "$bin/qorping" "$home/bin/qorping"
        ip -n "$peer" address add "$4" dev veth
    fi
    printf 'route replace %s\n' '198.51.100.0/24 dev side proto kernel scope link src 198.51.100.1' \
        'default via 198.51.100.2 dev side' >"$work/routes"
    { printf 'address flush dev %s\n' veth side && own_network && cat "$work/routes"; } >"$work/network"
}

# play PART NAME MODE ADDRESS OPTIONS START STATUS: visits one part of the mode's points
play() {
    local kind device=veth:0
    stage "$@"
    case $4 in 198.*) device=side:0 ;; *:*) device=veth ;; esac
    for kind in ${kinds//,/ }; do
        PATH=$tools:$bin:$PATH LC_ALL=C ip netns exec "$here" "$bin/../bench/points" name="$2" kind="$kind" \
            part="$1" parts="$jobs" mode="$3" address="${4%%/*}" bits="$(sed 's|.*/||; s|%.*||' <<<"$4")" \
            options="$5" start="$6" status="$7" device=$device bin="$bin" nomem="$bin/../bench/libnomem.so" \
            only="$only" list="$list" until="$until" totals="$top/totals" evidence="$evidence" \
            routes="$work/routes" network="$work/network" || echo broken >>"$top/broken"
    done
    ip netns delete "$here"
    ip netns delete "$peer"
    rm -rf "$work"
}

while read -r name row; do
    [[ -n $name && (-z $mode || ,$mode, = *,$name,*) ]] || continue
    for ((part = 0; part < jobs; ++part)); do
        # shellcheck disable=SC2086 # a row of words
        play "$part" "$name" $row </dev/null || echo broken >>"$top/broken" &
    done
    wait
done <<<"$modes"

[ -z "$list" ] || exit 0
awk '$1 == "note" { n = $2; sub(/^note [0-9]+ /, ""); note[$0] += n; next }
    { key = sprintf("%-17s %-7s", $1, $2); if (!(key in points)) order[++rows] = key
      points[key] += $3; wrong[key] += $4; missed[key] += $5; untried[key] += $6
      all += $3; bad += $4; late += $6 }
    END { printf "%-17s %-7s %7s %10s %11s %7s\n", "mode", "kind", "points", "violations", "not reached", "untried"
      for (i = 1; i <= rows; ++i) {
          key = order[i]
          printf "%s %7d %10d %11d %7d\n", key, points[key], wrong[key], missed[key], untried[key] }
      for (text in note) printf "as documented, %d times: %s\n", note[text], text
      printf "%d points, %d violations, %d for lack of time untried\n", all, bad, late
      exit bad > 0 }' "$top/totals" || { echo "evidence: $evidence" && exit 1; }
[ ! -e "$top/broken" ]
