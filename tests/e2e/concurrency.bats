# Many runs at once, and runs that are killed.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

use='<ifconfig><use>1</use></ifconfig>'

# start ARGUMENT...: a run in the background
start() {
    "${agent[@]}" "$@" </dev/null >/dev/null 2>&1 3>&- &
    pids+=($!)
}

# ended "COUNT CODE...": what was started ends with these codes
ended() {
    for pid in "${pids[@]}"; do
        status=0
        wait "$pid" || status=$?
        echo "$status"
    done >codes
    pids=()
    [ "$(sort -n codes | uniq -c | xargs)" = "$1" ] || fail "$(<codes)"
}

@test "fifty resources at once: every address up, every alias another, every state filed" {
    for n in {1..50}; do resources+=("fip$n 192.0.2.$((n + 100))/24 $use"); done
    cluster "${resources[@]}"
    for n in {1..50}; do start --active -r "fip$n" -g "g$((n % 7))"; done
    ended '50 0'
    addresses >up
    [ "$(grep -oE 'veth:[0-9]+$' up | sort -V)" = "$(printf 'veth:%d\n' {0..49})" ] || fail "$(cat up)"
    for n in {1..50}; do
        device=$(sed -n "s/.*inet 192.0.2.$((n + 100))\/24 brd 192.0.2.255 .* //p" up)
        states | grep -xF "g$((n % 7))|fip|fip$n|${device:?}|Success."
    done
    for n in {1..50}; do start --deactive -r "fip$n" -g "g$((n % 7))"; done
    ended '50 0'
    carries ''
}

@test "one run at a time: another waits for it, a trusted one does not, and a killed one lets go" {
    layout older
    own_ifconfig <<<"[ ! -e hold ] || { rm hold; sleep 60; }; exec busybox ifconfig \"\$@\""
    cluster 'fip1 192.0.2.10/24' 'fip2 192.0.2.20/24' 'fip3 192.0.2.30/24%veth:9'
    touch hold
    start --active -r fip1 -g g1
    eventually [ ! -e hold ]
    start --active -r fip2 -g g1
    eventually grep -qF 'fip2    : fip_sem_entercrit_ifconfig()  ENTRY...' "$trace"
    "${agent[@]}" --active -r fip3 -g g1
    carries 'veth inet 192.0.2.30/24 brd 192.0.2.255 scope global secondary veth:9'
    kill -0 "${pids[1]}"
    kill -9 "${pids[0]}"
    ended '1 0 1 137'
    states | grep -xF 'g1|fip|fip2|veth:0|Success.'
    # What the killed one had started still runs, but did not hold the section.
    pgrep -f "$PWD/tools/own"
}

@test "a run killed at any instant stands in nobody's way" {
    cluster "fip1 192.0.2.10/24 $use"
    for mode in --active --deactive; do
        for _ in {1..25}; do
            fip 0 --del -r fip1 -a 192.0.2.10
            rm -rf home/run
            "$QOR_BIN/qorstat" >/dev/null
            [ $mode = --active ] || activate 0
            timeout --foreground -s KILL "$((RANDOM % 20 + 1))e-3" "${agent[@]}" $mode -r fip1 -g g1 || [[ $? =~ 124|137 ]]
            [[ "$(states)" =~ ^(\|fip\|fip1\|veth:0\||g1\|fip\|fip1\|veth:0\|Success\.)?$ ]] || fail
            deactivate 0
            carries ''
            activate 0
            filed 'g1|fip|fip1|veth:0|Success.'
        done
    done
}
