# What is broken around the agent: files, directories, tools, descriptors. Nothing may stay behind.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

@test "a configuration that cannot be used" {
    cp -r home/etc etc.whole
    while row code message damage; do
        for mode in --active --deactive; do
            rm -rf home/run home/etc
            cp -r etc.whole home/etc
            (cd home/etc && eval "$damage")
            fip "$code" $mode -r fip1 -g g1
            filed "${message:+g1|fip|fip1||$message}"
            carries ''
        done
    done <<-EOT
	# code | message                     | damage
	# before there is anything to file it in
	7      |                             | sed -i s,/resource,/resourc, cluster.xml
	8      |                             | rm policy/fip.xml
	# behind that
	8      | Internal error. (status=8)  | rm policy/all.xml
	9      | Internal error. (status=9)  | sed -i s,fip1,fip9, cluster.xml
	31     | Success.                    | sed -i s,/24,/33, cluster.xml
	32     | Internal error. (status=32) | sed -i /path/d policy/all.xml
	EOT
}

@test "a log/, run/ or home that cannot be written: an address that cannot be filed does not stay up" {
    while row code damage; do
        rm -rf home/log home/run
        "$QOR_BIN/qorstat" >/dev/null
        mkdir home/log
        (cd home && eval "$damage")
        fip "$code" --add -r fip1 -a 192.0.2.10
        agrees "$code"
        node replace 192.0.2.10/24 dev veth label veth:0
        deactivate 0
        carries ''
    done <<-EOT
	# code | damage
	# nothing but the resource states is needed
	0      | rm -r log run
	0      | rm -r log; touch log
	0      | rm run/node.shm; mkdir run/node.shm
	0      | rm -f run/ifconfig.lock; mkdir run/ifconfig.lock
	# no table of states, and one that is full by its count
	99     | rm -r run; touch run
	99     | printf '\0\4' | dd of=run/resource.shm bs=1 seek=16 conv=notrunc status=none
	EOT
}

# bound SETTING MODE: a run behind this line of shell
bound() {
    timeout 60 "${agent[@]:0:4}" sh -c "$1; exec \"\$@\"" sh "${agent[@]:4}" "$2" -r fip1 -g g1 2>/dev/null
}

@test "few descriptors, closed ones, a log that may not grow, ignored signals: what is reported is what is there" {
    layout older
    ping_tool <<<'grep SigIgn /proc/$$/status >>ignored; exit 1'
    cluster 'fip1 192.0.2.10/24 <ping><timeout>1</timeout></ping><check><ping><execute>1</execute></ping></check>'
    for setting in 'ulimit -n '{4..14} 'trap "" HUP PIPE XFSZ; ulimit -f '{1,3,4,5} \
        'set -- env --ignore-signal=CHLD,PIPE "$@"; exec <&- >&- 2>&-'; do
        rm -f home/log/*
        code=0
        bound "$setting" --active || code=$?
        agrees "$code"
        [[ $setting != *-f* ]] || bound "${setting#*; }" --deactive
        [[ $setting == *-f* ]] || deactivate 0
        carries ''
    done
    [ "$code" -eq 0 ]
    # The C library keeps two signals of its own from its children: the highest bits.
    ! grep -vE '0000000[018][08]0000000$' ignored || fail "$(<ignored)"
}

nap="sleep 7$$"
nothing_naps() { ! pgrep -f "$nap\$" >/dev/null && ! pgrep -f "$PWD/tools" >/dev/null; }

@test "an ifconfig that hangs is given up in time, and nothing of it survives" {
    layout older
    while row mode script; do
        [ "$mode" = activate ] || activate 0
        own_ifconfig <<<"$script"
        cluster 'fip1 192.0.2.10/24 <ifconfig><timeout>1</timeout></ifconfig>'
        $mode 23
        [[ $(states) == *'|Internal error. (status=23)' ]] || fail
        traced 1 'thread timeout. command :ifconfig'
        eventually nothing_naps
        shared='' cluster 'fip1 192.0.2.10/24'
        deactivate 0
        carries ''
    done <<-EOT
	# mode     | script
	# at the list
	activate   | trap '' TERM INT HUP; busybox ifconfig -a | head -n 3; $nap & $nap & wait; $nap
	activate   | exec yes ' inet addr:192.0.2.10'
	# at the change, and at the removal
	activate   | [ "\$1" = -a ] || $nap; exec busybox ifconfig "\$@"
	deactivate | [ "\$1" = -a ] || { trap '' TERM; $nap & $nap; }; exec busybox ifconfig "\$@"
	EOT
    # While its layout is found out: the kernel is used, although an answer would come.
    tool ifconfig <<<"$nap & sleep 3; exec busybox ifconfig -a"
    goes '192.0.2.10/24 <ifconfig><timeout>1</timeout></ifconfig>' 0 'veth:0|Success.' "$alias0"
    traced 1 'thread timeout nic_cmd_chk.'
    eventually nothing_naps
}

# fault "KIND K": the next runs have this fault
fault() {
    [ -n "$QOR_PRELOAD" ] || skip "a sanitizer's build has an allocator of its own"
    agent=(ip netns exec "$here" env "PATH=$PWD/tools:$PATH" LD_PRELOAD="$QOR_PRELOAD" FAULT="$1" "$QOR_BIN/qorfip")
}

# The first ones are the configuration's, all alike: one in nine of them.
@test "no memory, at one allocation after the other: the status is documented, and tells what is there" {
    ip -n "$here" route add default via 192.0.2.2
    layout older
    local k count code
    while row mode parameters; do
        cluster "fip1 192.0.2.10/24 $parameters"
        for ((k = 0, count = 0; k <= count; k += k < count - 60 ? 9 : 1)); do
            fault "malloc $k"
            code=0
            "${agent[@]}" "--$mode" -r fip1 -g g1 || code=$?
            [[ $code =~ ^(0|6|7|8|9|1[0-9]|2[0-3]|3[2-9]|99)$ ]] || fail "$mode without allocation $k: exit $code"
            if [ "$mode" = deactive ] && [ "$code" -eq 0 ]; then carries ''; fi
            [ "$mode" = deactive ] || agrees "$code"
            node replace 192.0.2.10/24 brd + dev veth label veth:0
            [ "$mode" = deactive ] || node delete 192.0.2.10/24 dev veth
            [ "$k" -gt 0 ] || count=$(<exited)
        done
    done <<-EOT
	# mode   | parameters
	active   | <ifconfig><use>1</use></ifconfig><srcip><use>1</use></srcip>
	active
	deactive
	EOT
}

@test "no socket for the link: the address stays; no right to announce: it is up all the same" {
    fault 'socket 2' # the first one is for the address
    cluster 'fip1 192.0.2.10/24 <monmii>1</monmii>'
    activate 19
    filed 'g1|fip|fip1||Internal error. (status=19)'
    carries "$alias0"
    search "$PATH"
    deactivate 0
    agent=(setpriv --bounding-set -net_raw --inh-caps -net_raw "${agent[@]}")
    activate 0
    filed 'g1|fip|fip1|veth:0|Internal error. (status=19)'
    carries "$alias0"
}

@test "a worker that cannot be cancelled is left behind, without its command and without exit handlers" {
    layout older
    own_ifconfig <<<"$nap & $nap"
    cluster 'fip1 192.0.2.10/24 <ifconfig><timeout>1</timeout></ifconfig>'
    fault cancel
    activate 23
    traced 1 'pthread_cancel(fip_cmd_popen) failed. (errno=0,ret=3)'
    traced 4 'return(ret=23)'
    [ ! -e exited ]
    eventually nothing_naps
}
