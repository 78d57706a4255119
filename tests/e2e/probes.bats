# The probes around an activation: duplicate address, link, and the source address of the routes.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

in_use='address 192.0.2.10 is in use by another host'
forced='address 192.0.2.10 was activated by force although the duplicate-address check failed'

# pings PARAMETER...: the configuration with a ping time-out of 1 s, and these
pings() {
    cluster "fip1 192.0.2.10/24 <ping><timeout>1</timeout>$*</ping>"
}

@test "another host that answers refuses the activation, unless it is forced" {
    ip -n "$there" address add 192.0.2.10/24 dev veth
    ip -n "$there" address add 2001:db8::10/64 dev veth
    pings
    activate 15
    filed 'g1|fip|fip1||IP address was already used.'
    traced 1 '192.0.2.10 is already exist.(macaddr : 02:00:00:00:00:02)'
    traced 32768 "$in_use"
    carries ''

    # Without a hardware address to tell of, the answer is the same.
    tool noarp <<<'exit 9'
    shared="<arp><path>$PWD/tools/noarp</path></arp>" pings
    activate 15
    filed 'g1|fip|fip1||IP address was already used.'
    traced 1 '192.0.2.10 is already exist. (ret=3)'
    cluster 'fip1 2001:db8::10 <ping><timeout>1</timeout></ping>'
    activate 15
    traced 1 '2001:db8::10 is already exist. (ret=1)'
    carries ''

    pings '<force>1</force>'
    activate 0
    filed "$state0"
    traced 2 'force act fip(192.0.2.10)!'
    traced 32768 "$in_use"
    traced 32768 "$forced"
    carries "$alias0"
}

@test "without a tool nothing is known: refused, unless it is forced" {
    rm "$QOR_HOME/bin/qorping"
    pings '<retry>1</retry>'
    activate 13
    filed 'g1|fip|fip1||Internal error. (status=13)'
    traced 4 'ping(192.0.2.10) retry start, count=1.'
    traced 1 "$QOR_HOME/bin/qorping: Command not found."
    carries ''
    pings '<force>1</force>'
    activate 0
    traced 32768 "$forced"
}

@test "nobody answers: the address goes up" {
    pings
    activate 0
    filed "$state0"
    traced 4 'fip_chk_ip_response(192.0.2.10) OK.'
    not_traced 32768 "$in_use"
    carries "$alias0"
}

@test "the check is left out while the node's npsimu flag is set" {
    ping_tool <<<'exit 0'
    while read -r flag anyway code; do
        "$QOR_BIN/qorstat" --npsimu "$flag"
        pings "<execute_in_npsimu_on_act>$anyway</execute_in_npsimu_on_act>"
        activate "$code"
    done <<<$'off 0 15\noff 1 15\non 1 15\non 0 0'
    traced 4 'ping was not executed because npsimu is enabled.'
}

@test "the link is looked at, and an address on a dead one is taken off again" {
    for layout in newer older; do
        layout $layout
        while read -r peer code message address parameters; do
            ip -n "$there" link set veth "$peer"
            rm -rf "$QOR_HOME/run"
            cluster "fip1 $address $parameters"
            activate "$code"
            filed "g1|fip|fip1|${message//_/ }"
            [ "$code" -ne 0 ] || deactivate 0
            carries ''
        done <<-EOT
		up 0 veth:0|Success. 192.0.2.10/24 <monmii>1</monmii>
		up 0 veth|Success. 2001:db8::10 <monmii>1</monmii><defmethod>2</defmethod>
		up 36 |Failed_to_get_NIC_status. 192.0.2.10 <monmii>1</monmii><defmethod>3</defmethod>
		up 99 |Internal_error._(status=99) 192.0.2.10 <monmii>1</monmii><defmethod>1</defmethod>
		down 35 |Detected_NIC_Link_Down. 192.0.2.10/24 <monmii>1</monmii>
		down 35 |Detected_NIC_Link_Down. 192.0.2.10%veth:8 <monmii>2</monmii><defmethod>2</defmethod>
		down 35 |Detected_NIC_Link_Down. 2001:db8::10 <monmii>1</monmii>
		down 0 veth:0|Success. 192.0.2.10/24 <defmethod>2</defmethod>
		EOT
    done
}

srcip='<srcip><use>1</use></srcip>'
routes() { ip -n "$here" route show | sed 's/ *$//'; }
without_routes() { ! routes | grep -F "$1" || fail "a route still names $1"; }

@test "the address becomes the source of the interface's routes" {
    subnet='192.0.2.0/24 dev veth scope link src 192.0.2.10'
    cluster "fip1 192.0.2.10/24 $srcip"
    activate 0
    [ "$(routes)" = "$subnet" ] || fail "$(routes)"
    traced 4 'ip route replace 192.0.2.0/24 src 192.0.2.10 dev veth : success.'
    deactivate 0
    without_routes 192.0.2.10

    ip -n "$here" route replace 192.0.2.0/24 dev veth src 192.0.2.1
    ip -n "$here" route add default via 192.0.2.2
    ip -n "$here" route add 198.51.100.0/24 via 192.0.2.2
    activate 0
    [ "$(routes)" = "default via 192.0.2.2 dev veth src 192.0.2.10
$subnet
198.51.100.0/24 via 192.0.2.2 dev veth" ] || fail "$(routes)"
    sniff 'icmp or arp'
    ip netns exec "$here" "$QOR_BIN/qorping" -c 9 192.0.2.2
    [ "$(heard | sed -n 's/^.\{24\}0800.\{24\}//p' | cut -c 1-16)" = $'c000020ac0000202\nc0000202c000020a' ] ||
        fail "$(frames)"
    deactivate 0
    without_routes 192.0.2.10
}

@test "one address at a time is the source of an interface" {
    ip -n "$here" address add 198.51.100.1/24 dev bare
    cluster "fip1 192.0.2.10/24 $srcip" "fip2 192.0.2.20/24%veth:5 $srcip" 'fip3 192.0.2.30/24' \
        "fip4 198.51.100.40/24 $srcip" "fip6 2001:db8::10/64 $srcip"
    activate 0
    activate 15 fip2
    filed "$state0
g1|fip|fip2||The device has another IP address specified as the transmission source.  Device=veth:5"
    traced 1 '192.0.2.10 has already been attached to veth.'
    for other in fip3 fip4 fip6; do
        activate 0 $other
        deactivate 0 $other
    done
    deactivate 0
    activate 0 fip3
    activate 0 fip2
    activate 15
}

@test "a route command that fails takes the address off again" {
    ip -n "$here" route add default via 192.0.2.2
    before=$(routes)
    cluster "fip1 192.0.2.10/24 $srcip"
    tool ip <<<'exit 2'
    activate 99
    traced 1 'ip route replace 192.0.2.0/24 src 192.0.2.10 dev veth : failed. (ret=2)'
    filed 'g1|fip|fip1||Success.'
    carries ''
    [ "$(routes)" = "$before" ] || fail "$(routes)"

    tool ip <<<"case \$* in *default*) exit 2 ;; esac; exec $(command -v ip) \"\$@\""
    activate 99
    traced 1 'ip route replace default via 192.0.2.2 src 192.0.2.10 dev veth : failed. (ret=2)'
    carries ''
    without_routes 192.0.2.10
}
