# What a deactivation takes off the node, and how it makes sure of that.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# check WHAT RETRY ERROR: an after-check
check() { echo "<$1><execute>1</execute><retry>$2</retry><interval>0</interval><error>$3</error></$1>"; }

@test "the address is removed where it is, and nothing else is; one that is not there counts as removed" {
    node add 192.0.2.9/24 dev veth label veth:1
    while row layout configured present; do
        layout "$layout"
        cluster "fip1 $configured"
        # shellcheck disable=SC2086 # several arguments
        [ -z "$present" ] || node add $present
        deactivate 0
        [ -n "$present" ] || traced 2 "${configured%[/%]*} not activated."
        filed 'g1|fip|fip1||Success.'
        carries 'veth inet 192.0.2.9/24 scope global secondary veth:1'
        runs veth
    done <<-EOT
	# layout | configured           | present
	# under another name, with other bits, on another interface
	newer    | 192.0.2.10/24%veth:3 | 192.0.2.10/24 dev veth label veth:77
	newer    | 192.0.2.10/24%veth   | 192.0.2.10/25 dev bare label bare:0
	older    | 192.0.2.10           | 192.0.2.10/24 dev veth label veth:>x
	older    | 2001:db8::10/64%veth | 2001:db8::10/48 dev bare
	newer    | 2001:db8::10/64%veth | 2001:db8::10/48 dev bare
	# written otherwise
	newer    | 2001:db8:0::10       | 2001:db8::10/64 dev veth
	# not there
	newer    | 203.0.113.1%nosuch:1
	older    | 192.0.2.10%bare
	EOT
}

@test "the inventory check: gone, or still there; how often it is made, and what ends it" {
    layout older
    goes "192.0.2.10/24 <check>$(check ifconfig 0 1)</check>" 0 'veth:0|Success.' "$alias0"
    layout newer
    goes "192.0.2.10/24 <check>$(check ifconfig 0 1)</check>" 0 'veth:0|Success.' "$alias0"
    # On the physical name the interface goes down, and its addresses stay.
    node add 192.0.2.10/24 dev veth
    deactivate 24
    filed 'g1|fip|fip1|veth:0|Internal error. (status=24)'
    [[ $(ip -n "$here" link show veth) == *'state DOWN'* ]] || fail
    node delete 192.0.2.10/24 dev veth
    ip -n "$here" link set veth up

    ping_tool <<<'exit 1'
    layout older
    # An ifconfig whose "down" removes nothing, but ends with a status, and which counts its lists.
    while row code down_status lists pings error message script; do
        own_ifconfig <<<"[ \"\$2\" = down ] && exit $down_status
            echo >>lists
            n=\$(wc -l <lists)
            $script
            exec busybox ifconfig \"\$@\""
        cluster "fip1 192.0.2.10/24%veth:0 <check>$(check ifconfig 2 "$error")$(check ping 0 0)</check>"
        : >lists
        activate 0
        tee pings lists </dev/null
        deactivate "$code"
        filed "g1|fip|fip1|veth:0|$message"
        [ "$(wc -l <lists) $(wc -l <pings)" = "$lists $pings" ] || fail "$script"
        node delete 192.0.2.10/24 dev veth || true
    done <<-EOT
	# code | down_status | lists | pings | error | message                                    | script
	# the removal fails
	3      | 7           | 1     | 0     | 1     | Internal error. (status=3)                 | :
	# the address stays, which is no error, or is one
	0      | 0           | 4     | 1     | 0     | Success.                                   | :
	24     | 0           | 4     | 0     | 1     | Internal error. (status=24)                | :
	# the second check finds it gone, all addresses gone, or fails
	0      | 0           | 3     | 1     | 1     | Success.                                   | [ \$n -lt 3 ] || busybox ifconfig veth:0 down 2>/dev/null
	0      | 0           | 3     | 1     | 1     | Success.                                   | [ \$n -lt 3 ] || exit 0
	3      | 0           | 3     | 0     | 0     | Command failed. ($PWD/tools/own -a, ret=5) | [ \$n -lt 3 ] || exit 5
	EOT
}

@test "the ping check holds up other runs, unless it is made in parallel" {
    for parallel in 0 1; do
        cluster "fip1 192.0.2.10/24 <check>$(check ping 0 1 | sed "s|</ping>|<parallel>$parallel</parallel>&|")</check>"
        activate 0
        ping_tool <<<"timeout $((1 + 9 * parallel)) $QOR_BIN/qorfip --add -a 192.0.2.77 && exit 1"
        deactivate "$((parallel == 1 ? 0 : 25))"
        carries "$([ "$parallel" -eq 0 ] || echo "${alias0/2.10/2.77}")"
    done
}

@test "the ping check: what the tool finds, and how often it is asked" {
    peer add 192.0.2.10/24 dev veth
    while row code error pings message script; do
        cluster "fip1 192.0.2.10/24 <check>$(check ping 2 "$error")</check>"
        activate 0
        ping_tool <<<"$script"
        deactivate "$code"
        carries ''
        filed "g1|fip|fip1|veth:0|$message"
        [ "$(cat pings)" = "$(yes -- '-c 1 192.0.2.10' | head -n "$pings")" ] || fail "$script" "$(cat pings)"
    done <<-EOT
	# code | error | pings | message                      | script
	# nobody answers, at once or at the second ping
	0      | 1     | 1     | Success.                     | exit 1
	0      | 1     | 2     | IP address was already used. | [ \$(wc -l <pings) -lt 2 ]
	# the tool fails, or somebody answers, which is no error, or is one
	0      | 0     | 3     | Internal error. (status=11)  | kill -9 \$\$
	0      | 0     | 3     | Internal error. (status=2)   | exit 3
	0      | 0     | 3     | IP address was already used. | exit 0
	25     | 1     | 3     | Internal error. (status=25)  | exec $QOR_BIN/qorping "\$@"
	EOT
    traced 1 '192.0.2.10 is already exist.(macaddr : 02:00:00:00:00:02)'
    run -1 is_traced 32768 'address 192.0.2.10 is in use by another host'
}
