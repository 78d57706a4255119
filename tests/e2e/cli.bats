# The command line of qorfip: exit code, what is filed for the resource manager, and the trace.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

@test "what a command line leads to: exit code, what is filed, and the trace" {
    local wrong='Option was invalid.' bad='Invalid option.' internal='Internal error.'
    local long=0123456789012345678901234567890 zeros
    printf -v zeros %065d 0
    ip -n "$here" link property add dev veth altname other
    while row code group resource message level text arguments; do
        rm -rf home/run
        eval "fip $code $arguments"
        filed "$group|fip|$resource|$([ "$code" -ne 0 ] || echo veth:0)|$message"
        traced "$level" "$text"
        traced 4 "return(ret=$code)"
        agrees "$code"
        [ "$code" -ne 0 ] || fip 0 --del -a 192.0.2.10
    done <<-EOT
	# code | group | resource  | message               | level | text                           | arguments
	# incomplete, or of an unknown mode
	4      |       |           | $wrong                | 1     | $bad (argc=3)                  | --active -r
	4      |       | fip1      | $wrong                | 1     | $bad                           | --active -r fip1
	4      | g1    |           | $wrong                | 1     | $bad                           | --deactive -g g1
	4      |       |           | $wrong                | 1     | $bad                           | --activ -r fip1 -g g1
	# an option without a value
	4      |       |           | $wrong                | 1     | $bad (-r ?)                    | --active -r -g g1
	4      |       | fip1      | $wrong                | 1     | $bad (-a ?)                    | --add -r fip1 -a
	# values that exceed their field by one, and that fill it
	4      |       |           | $wrong                | 1     | $bad (-r ?)                    | --active -r ${long}x -g g1
	4      |       | fip1      | $wrong                | 1     | $bad (-g ?)                    | --active -r fip1 -g ${long}x
	4      |       | fip1      | $wrong                | 1     | $bad (-i ?)                    | --add -r fip1 -i ${long}x -a 192.0.2.10
	4      |       | fip1      | $wrong                | 1     | $bad (-a ?)                    | --add -r fip1 -a 192.0.2.10%veth:0$zeros
	30     |       | fip1      | Success.              | 1     | Interface name is too long.    | --add -r fip1 -a 192.0.2.10%veth:$zeros
	9      | $long | $long     | $internal (status=9)  | 4     | active   rsc:$long, grp:$long  | --active -r $long -g $long
	# no name of an interface, or not its first one
	30     |       | fip1      | $internal (status=30) | 1     | Interface name is too long.    | --add -r fip1 -i ${long:0:16} -a 192.0.2.10
	30     |       | fip1      | $internal (status=30) | 1     | Interface name is invalid.     | --add -r fip1 -i \$'veth:\n5' -a 192.0.2.10
	30     |       | fip1      | $internal (status=30) | 1     | Interface name is an alternative one of veth. [IF: other:1] | --add -r fip1 -a 192.0.2.10%other:1
	# keywords in any case; a later option wins; what is unknown is passed over
	0      | g1    | fip1      | Success.              | 4     | active   rsc:fip1, grp:g1      | --ACTIVE -R fip1 -G g1
	0      | g1    | fip1      | Success.              | 4     | active   rsc:fip1, grp:g1      | --Active -g g0 -r none -R fip1 -g g1
	0      | g1    | fip1      | Success.              | 2     | $bad (argv[i] : %s%n)          | --active %s%n -r fip1 -g g1
	0      | g1    | fip1      | Success.              | 4     | fip_send_arp() OK.             | --ADD -A 203.0.113.1 -a 192.0.2.10 -I bare -i veth -r fip1 -g g1
	# the interface of -a, not of -i
	0      | g1    | fip1      | Success.              | 8     | trusted mode                   | --add -r fip1 -g g1 -i bare -a 192.0.2.10%veth:0
	# an address mode without an address, or without names
	4      |       |           | Success.              | 2     | $bad (argv[i] : -x)            | --add -i veth -x
	4      | g1    | fip1      | Success.              | 4     | return(ret=4)                  | --del -r fip1 -g g1
	0      |       |           | Success.              | 4     | mac : 02:00:00:00:00:01        | --add -a 192.0.2.10
	# names are only text, but a resource's is no path
	9      | g;1   | %s%n      | $internal (status=9)  | 4     | active   rsc:%s%n, grp:g;1     | --active -r %s%n -g 'g;1'
	9      | g1    | x']*      | $internal (status=9)  | 4     | active   rsc:x']*, grp:g1      | --active -r "x']*" -g g1
	9      | g1    | \$(>made) | $internal (status=9)  | 4     | active   rsc:\$(>made), grp:g1 | --active -r '\$(>made)' -g g1
	4      |       |           | $wrong                | 1     | $bad (-r ?)                    | --active -r fip1/server@other -g g1
	29     | g1    | fip1      | $internal (status=29) | 1     | FIP address is invalid         | --del -r fip1 -g g1 -a '192.0.2.10;'
	EOT
    [ ! -e made ]
    activate 0
    fip 0 --DEACTIVE -a 192.0.2.10 -r fip1 -g g1
    carries ''
}

@test "a person at a terminal is told how a run ended, and how the command line is written" {
    local log=$QOR_HOME/log/check.log
    sed 's|</ip>|&<ping><timeout>1</timeout></ping>|' "$QOR_SOURCE/etc/cluster.xml" >"$QOR_HOME/etc/check/cluster.xml"
    layout older
    while row code told usage arguments; do
        run -"$code" script -qec "${agent[*]} $arguments" /dev/null </dev/null
        output=${output//$'\r'/}
        [ "$code" -eq 0 ] || told+=" (exit status $code, see qorfip(8))"
        [ "${output##*$'\n'}" = "qorfip: $told" ] || fail "not told: $told"
        [ "$(grep -q 'qorfip --test' <<<"$output" && echo shown)" = "$usage" ] || fail "usage: $arguments"
    done <<-EOT
	# code | told                               | usage | arguments
	0      | Success.                           |       | --active -r fip1 -g g1
	15     | This ip address was already used.  IP=192.0.2.10 |       | --active -r fip1 -g g1
	29     | The address is none.               |       | --add -a 192.0.2.10%veth/24
	9      | The configuration gives the resource no address. | | --active -r none -g g1
	4      | Option was invalid.                | shown | --bogus
	4      | Option was invalid.                | shown
	4      | The command line is wrong.         | shown | --add -r fip1
	0      | The check passed.                  |       | --test fip1
	1      | The check did not pass: see $log   |       | --test none
	1      | The check did not pass: see $log   | shown | --test
	EOT
    shared='<ifconfig><path>/nö</path></ifconfig>' cluster 'fip1 192.0.2.10'
    run -3 script -qec "${agent[*]} --deactive -r fip1 -g g1" /dev/null </dev/null
    [[ "$output" == *"('/n??' -a, ret=127)"* ]] || fail unsafe
}

@test "without arguments, or by another user than root: nothing is filed or changed" {
    mkdir -m 777 "$QOR_HOME/run" "$QOR_HOME/log"
    chmod go+rx "$QOR_HOME"
    fip 4
    agent=(ip netns exec "$here" setpriv --reuid 65534 --clear-groups "$QOR_BIN/qorfip")
    activate 5
    fip 5 --add -a 192.0.2.10
    fip 5 --bogus
    rmdir "$QOR_HOME/run" "$QOR_HOME/log" # empty
    carries ''
}
