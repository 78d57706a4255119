# What is broken around the agent: files, directories, tools, descriptors. Nothing may stay behind.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# breaks CODE MESSAGE SCRIPT: what a run comes to when SCRIPT, run in etc/, broke the configuration
breaks() {
    local mode
    for mode in --active --deactive; do
        rm -rf "${QOR_HOME:?}/run" "${QOR_HOME:?}/etc"
        cp -r etc.whole "$QOR_HOME/etc"
        (cd "$QOR_HOME/etc" && eval "$3")
        fip "$1" $mode -r fip1 -g g1
        filed "${2:+g1|fip|fip1||$2}"
        carries ''
    done
}

@test "a configuration that cannot be used" {
    cp -r "$QOR_HOME/etc" etc.whole
    breaks 7 '' 'rm -r ../etc'
    breaks 7 '' '>cluster.xml'
    breaks 7 '' 'sed -i s,/resource,/resourc, cluster.xml'
    breaks 7 '' 'rm cluster.xml; mkfifo cluster.xml'
    breaks 7 '' 'chmod g+w cluster.xml'
    breaks 7 '' 'chown 65534 cluster.xml'
    breaks 8 '' 'rm policy/fip.xml'
    breaks 8 '' 'echo "<root" >policy/fip.xml'
    breaks 8 '' 'chmod o+w policy/fip.xml'
    breaks 8 'Internal error. (status=8)' 'rm policy/all.xml'
    breaks 32 'Internal error. (status=32)' 'sed -i /path/d policy/all.xml'
    breaks 9 'Internal error. (status=9)' 'sed -i s,fip1,fip9, cluster.xml'
    breaks 9 'Internal error. (status=9)' 'sed -i "s,<ip>.*</ip>,," cluster.xml'
    breaks 29 'Internal error. (status=29)' 'sed -i "s,<ip>.*</ip>,<ip>host</ip>," cluster.xml'
}

@test "log/ or run/ that cannot be used: an address that cannot be filed does not stay up" {
    touch victim
    while read -r code script; do
        rm -rf "${QOR_HOME:?}/log" "$QOR_HOME/run"
        "$QOR_BIN/qorstat" >/dev/null
        mkdir -p "$QOR_HOME/log"
        (cd "$QOR_HOME" && eval "$script")
        fip "$code" --add -r fip1 -a 192.0.2.10
        carries "$([ "$code" -ne 0 ] || echo "$alias0")"
        ip -n "$here" address replace 192.0.2.10/24 dev veth label veth:0
        deactivate 0
        carries ''
        [ ! -s victim ]
    done <<-EOT
	0  rm -r log run
	0  rm -r log; touch log
	0  ln -s $PWD/victim log/fip.log
	0  mkfifo log/fip.log
	0  rm run/node.shm; mkdir run/node.shm
	0  rm -f run/ifconfig.lock; mkdir run/ifconfig.lock
	99 rm -r run; touch run
	99 rm run/resource.shm; mkfifo run/resource.shm
	99 rm run/resource.shm; ln -s $PWD/victim run/resource.shm
	99 echo 0123456789 >run/resource.shm
	99 truncate -s -1 run/resource.shm
	99 chmod g+w run/resource.shm
	99 printf '\0\4' | dd of=run/resource.shm bs=1 seek=16 conv=notrunc status=none # the table's count: full
	EOT
}

@test "a home that is read-only" {
    mkdir "$QOR_HOME/log" "$QOR_HOME/run"
    # shellcheck disable=SC2016,SC2030 # the inner shell's
    agent=(unshare -m sh -c 'mount --bind "$QOR_HOME" "$QOR_HOME" && mount -o remount,bind,ro "$QOR_HOME" &&
        exec "$@"' sh "${agent[@]}")
    activate 99
    carries ''
    ip -n "$here" address add 192.0.2.10/24 dev veth label veth:0
    deactivate 0
    carries ''
}

@test "few descriptors: what is reported is what is there" {
    for layout in newer older; do
        layout $layout
        for limit in {4..14}; do
            code=0
            # shellcheck disable=SC2031
            timeout 60 ip netns exec "$here" sh -c "ulimit -n $limit; exec \"\$@\"" sh "${agent[@]:4}" \
                --active -r fip1 -g g1 2>/dev/null || code=$?
            carries "$([ "$code" -ne 0 ] || echo "$alias0")"
            deactivate 0
            carries ''
        done
        [ "$code" -eq 0 ]
    done
}

@test "standard descriptors that are closed, signals that are ignored" {
    for layout in newer older; do
        layout $layout
        # shellcheck disable=SC2031
        agent=("${agent[@]:0:4}" sh -c "exec \"\$@\" <&- >&- 2>&-" sh
            env --ignore-signal=CHLD --ignore-signal=PIPE "${agent[@]:4}")
        activate 0
        filed "$state0"
        carries "$alias0"
        deactivate 0
        carries ''
    done
    traced 4 '"ifconfig" veth:0 down > /dev/null 2>&1 succeeded.'
}

nap="sleep 7$$"
nothing_naps() { ! pgrep -f "$nap\$" >/dev/null && ! pgrep -f "$PWD/tools" >/dev/null; }

# hangs CODE RUN SCRIPT: RUN comes to CODE while the shared ifconfig hangs, and nothing of that survives
hangs() {
    cluster 'fip1 192.0.2.10/24'
    if [ "$2" = deactivate ]; then activate 0; fi
    tool stuck <<<"$3"
    shared="<ifconfig><path>$PWD/tools/stuck</path></ifconfig>" \
        cluster 'fip1 192.0.2.10/24 <ifconfig><timeout>1</timeout></ifconfig>'
    "$2" "$1"
    [[ "$(states)" == "g1|fip|fip1|"*"|Internal error. (status=$1)" ]] || fail
    traced 1 'thread timeout. command :ifconfig'
    eventually nothing_naps
    cluster 'fip1 192.0.2.10/24'
    deactivate 0
    carries ''
}

@test "an ifconfig that hangs is given up in time, and nothing of it survives" {
    layout older
    hangs 23 activate "$nap"
    hangs 23 activate "trap '' TERM INT HUP; busybox ifconfig -a | head -n 3; $nap & $nap & wait; $nap"
    hangs 23 activate "exec yes ' inet addr:192.0.2.10'"
    hangs 23 activate "[ \"\$1\" = -a ] || $nap; exec busybox ifconfig \"\$@\""
    hangs 23 deactivate "[ \"\$1\" = -a ] || { trap '' TERM; $nap & $nap; }; exec busybox ifconfig \"\$@\""
}

@test "an ifconfig that hangs while its layout is found out: the kernel is used" {
    cluster 'fip1 192.0.2.10/24 <ifconfig><timeout>1</timeout></ifconfig>'
    tool ifconfig <<<"$nap & $nap"
    activate 0
    traced 1 'thread timeout nic_cmd_chk.'
    traced 1 'nic_chk_isifconfig() failed. (ret=21)'
    filed "$state0"
    carries "$alias0"
    eventually nothing_naps
}
