# What a deactivation takes off the node, and how it makes sure of that.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# checks WHAT RETRY ERROR: the parameters of an after-check
checks() {
    echo "<$1><execute>1</execute><retry>$2</retry><interval>0</interval><error>$3</error></$1>"
}

# fip1 ADDRESS [CHECKS]: the configuration, with the ifconfig of our own, if there is one
fip1() {
    local shared=''
    [ ! -e tools/own ] || shared="<ifconfig><path>$PWD/tools/own</path></ifconfig>"
    cluster "fip1 $1 <check>${2-}</check>"
}

@test "an address that is not there counts as deactivated" {
    for address in 192.0.2.10/24 192.0.2.10%bare 203.0.113.1%nosuch:1 2001:db8::10; do
        fip1 "$address"
        deactivate 0
        traced 2 "${address%[/%]*} not activated."
        filed 'g1|fip|fip1||Success.'
    done
}

@test "the address is removed where it is, and nothing else is" {
    while read -r configured address; do
        for layout in newer older; do
            layout $layout
            fip1 "$configured"
            ip -n "$here" address add 192.0.2.9/24 dev veth label veth:1
            # shellcheck disable=SC2086 # several arguments
            ip -n "$here" address add $address
            deactivate 0
            filed 'g1|fip|fip1||Success.'
            carries 'veth inet 192.0.2.9/24 scope global secondary veth:1'
            ip -n "$here" address delete 192.0.2.9/24 dev veth
            [[ $(ip -n "$here" link show veth) == *,UP* ]] || fail 'the interface went down'
        done
    done <<-EOT
	192.0.2.10/24         192.0.2.10/24 dev veth label veth:0
	192.0.2.10/24%veth:3  192.0.2.10/24 dev veth label veth:77
	192.0.2.10/24%veth    192.0.2.10/25 dev bare label bare:0
	192.0.2.10            192.0.2.10/24 dev veth label veth:x
	2001:db8::10/64%veth  2001:db8::10/48 dev bare
	2001:db8:0::10        2001:db8::10/64 dev veth
	EOT
}

@test "the inventory check: gone, or still there" {
    for layout in newer older; do
        layout $layout
        fip1 192.0.2.10/24 "$(checks ifconfig 0 1)"
        activate 0
        deactivate 0
        traced 8 'deact check ifconfig OK.'
        carries ''
    done
    layout newer
    # On the physical name the interface goes down, and its addresses stay.
    ip -n "$here" address add 192.0.2.10/24 dev veth
    deactivate 24
    traced 1 'deact check ifconfig retry count over. (ip=192.0.2.10)'
    filed 'g1|fip|fip1|veth:0|Internal error. (status=24)'
    [[ $(ip -n "$here" link show veth) == *'state DOWN'* ]]
}

@test "a removal that fails; how often the inventory check is made, and what ends it" {
    layout older
    tool real <<<'exec busybox ifconfig "$@"'
    while read -r code removes lists pings error message script; do
        ln -f tools/real tools/own
        fip1 192.0.2.10/24%veth:0 "$(checks ifconfig 2 "$error")$(checks ping 0 0)"
        activate 0
        # Removes nothing, and counts its lists.
        rm tools/own
        tool own <<-EOT2
	[ "\$2" = down ] && exit $removes
	echo >>lists
	n=\$(wc -l <lists)
	$script
	exec tools/real "\$@"
	EOT2
        ping_tool <<<'exit 1'
        rm -f lists
        layout older
        deactivate "$code"
        filed "g1|fip|fip1|veth:0|${message//_/ }"
        [ "$(wc -l <lists)" -eq "$lists" ] || fail "$(wc -l <lists) lists: $script"
        [ "$(ls pings 2>/dev/null)" = "${pings#-}" ] || fail "pings: $script"
        ip -n "$here" address delete 192.0.2.10/24 dev veth || true
    done <<-EOT
	3  7 1 - 1 Internal_error._(status=3) :
	0  0 4 pings 0 Success. :
	24 0 4 - 1 Internal_error._(status=24) :
	0  0 3 pings 1 Success. [ \$n -lt 3 ] || busybox ifconfig veth:0 down 2>/dev/null
	0  0 3 pings 1 Success. [ \$n -lt 3 ] || exit 0
	3  0 3 - 0 Command_failed._($PWD/tools/own_-a,_ret=5) [ \$n -lt 3 ] || exit 5
	EOT
}

@test "the ping check: another host answers on the address" {
    ip -n "$there" address add 192.0.2.10/24 dev veth
    for error in 0 1; do
        fip1 192.0.2.10/24 "$(checks ping 1 $error)"
        activate 0
        deactivate $((error * 25))
        carries ''
        traced 1 'deact check ping retry count over. (ip=192.0.2.10)'
        traced 1 '192.0.2.10 is already exist.(macaddr : 02:00:00:00:00:02)'
        not_traced 32768 'address 192.0.2.10 is in use by another host'
        [ "$(grep -cF "system(\"$QOR_HOME/bin/qorping\" -c 1 192.0.2.10 > /dev/null 2>&1)..." "$trace")" -eq 2 ]
        message=('IP address was already used.' 'Internal error. (status=25)')
        filed "g1|fip|fip1|veth:0|${message[error]}"
    done
}

@test "the ping check: what the tool finds, and how often it is asked" {
    while read -r pings message script; do
        fip1 192.0.2.10/24 "$(checks ping 2 0)"
        activate 0
        ping_tool <<<"$script"
        deactivate 0
        filed "g1|fip|fip1|veth:0|${message//_/ }"
        [ "$(cat pings)" = "$(yes -- '-c 1 192.0.2.10' | sed "$pings"q)" ] || fail "$script" "$(cat pings)"
    done <<-EOT
	1 Success. exit 1
	3 IP_address_was_already_used. exit 0
	2 IP_address_was_already_used. [ \$(wc -l <pings) -lt 2 ]
	3 Internal_error._(status=2) exit 3
	3 Internal_error._(status=11) kill -9 \$\$
	EOT
    rm "$QOR_HOME/bin/qorping"
    activate 0
    deactivate 0
    filed 'g1|fip|fip1|veth:0|Internal error. (status=13)'
}

@test "the ping check is left out while the node's npsimu flag is set" {
    ping_tool <<<'exit 1'
    while read -r flag anyway pings; do
        "$QOR_BIN/qorstat" --npsimu "$flag"
        cluster "fip1 192.0.2.10 <check>$(checks ping 0 1)</check><ping><execute_in_npsimu_on_deact>$anyway\
</execute_in_npsimu_on_deact></ping>"
        activate 0
        rm -f pings
        deactivate 0
        [ "$(ls pings 2>/dev/null)" = "$pings" ] || fail "$flag $anyway"
    done <<<$'off 0 pings\noff 1 pings\non 1 pings\non 0'
    traced 4 'deact check ping skip, because npsimu is enabled.'
}
