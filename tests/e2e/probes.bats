# The probes around an activation: duplicate address, link, and the source address of the routes.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

ping='<ping><timeout>1</timeout><retry>1</retry></ping>'

@test "another host answers: refused; nobody does: the address goes up" {
    peer add 192.0.2.10/24 dev veth
    peer add 2001:db8::10/64 dev veth
    goes "192.0.2.10/24 $ping" 15 '|IP address was already used.'
    traced 1 '192.0.2.10 is already exist.(macaddr : 02:00:00:00:00:02)'
    traced 32768 'address 192.0.2.10 is in use by another host'
    goes "2001:db8::10 $ping" 15 '|IP address was already used.'
    peer delete 192.0.2.10/24 dev veth
    goes "192.0.2.10/24 $ping" 0 'veth:0|Success.' "$alias0"
}

@test "neither ping check is made while the node's npsimu flag is set, unless it is wanted then" {
    ping_tool <<<'exit 1'
    local wanted='execute_in_npsimu_on'
    while row flag act deact timeouts; do
        "$QOR_BIN/qorstat" --npsimu "$flag"
        cluster "fip1 192.0.2.10 <check><ping><execute>1</execute></ping></check><ping><timeout>7</timeout>\
<${wanted}_act>$act</${wanted}_act><${wanted}_deact>$deact</${wanted}_deact></ping>"
        : >pings
        activate 0
        deactivate 0
        [ "$(cut -d ' ' -f 2 pings | xargs)" = "$timeouts" ] || fail "$flag $act $deact" "$(cat pings)"
    done <<-EOT
	# flag | act | deact | timeouts
	on     | 1   | 0     | 7
	on     | 0   | 1     | 1
	on     | 0   | 0
	off    | 0   | 0     | 7 1
	off    | 1   | 1     | 7 1
	EOT
}

@test "the link is looked at, and an address on a dead one is taken off again" {
    local mii='<monmii>1</monmii>'
    for layout in newer older; do
        layout $layout
        ip -n "$there" link set veth up
        goes "192.0.2.10/24 $mii" 0 'veth:0|Success.' "$alias0"
        activate 0
        traced 4 'check NIC link success.'
        deactivate 0
        goes "2001:db8::10 $mii" 0 'veth|Success.' 'veth inet6 2001:db8::10/64 scope global'
        goes "192.0.2.10 $mii<defmethod>3</defmethod>" 36 '|Failed to get NIC status.'
        goes "192.0.2.10 $mii<defmethod>1</defmethod>" 99 '|Internal error. (status=99)'
        ip -n "$there" link set veth down
        goes "192.0.2.10/24 $mii" 35 '|Detected NIC Link Down.'
        goes "2001:db8::10 ${mii/1/2}" 35 '|Detected NIC Link Down.'
        goes '192.0.2.10/24 <defmethod>2</defmethod>' 0 'veth:0|Success.' "$alias0"
    done
}

srcip='<srcip><use>1</use></srcip>'

@test "one address at a time is the source of an interface" {
    node add 198.51.100.1/24 dev bare
    cluster "fip1 192.0.2.10/24 $srcip" "fip2 192.0.2.20/24%veth:5 $srcip" 'fip3 192.0.2.30/24' \
        "fip4 198.51.100.40/24 $srcip" "fip6 2001:db8::10 $srcip"
    # Those without, of another interface, or of IPv6, are in nobody's way.
    for other in fip3 fip4 fip6; do activate 0 $other; done
    activate 0
    activate 15 fip2
    traced 1 '192.0.2.10 has already been attached to veth.'
    states | grep -F 'The device has another IP address specified as the transmission source.  Device=veth:5'
    deactivate 0
    activate 0 fip2
    activate 15
}

@test "a route command that fails takes the address off again" {
    ip -n "$here" route add default via 192.0.2.2
    before=$(ip -n "$here" route show)
    tool ip <<<'exit 2'
    goes "192.0.2.10/24 $srcip" 99 '|Success.'
    traced 1 'ip route replace 192.0.2.0/24 src 192.0.2.10 dev veth : failed. (ret=2)'
    [ "$(ip -n "$here" route show)" = "$before" ] || fail
}
