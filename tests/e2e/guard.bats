# What a guarded removal leaves of the interface: its state, its other addresses, its routes.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

all() { addresses && ip -n "$here" -4 route show table all | sed 's/ *$//'; }
shows() { [ "$(all)" = "$1" ] || fail 'not:' "$1" 'but:' "$(all)"; }
sysctl() { ip netns exec "$here" bash -c "echo $2 | tee /proc/sys/net/ipv4/conf/{all,veth}/$1"; }

@test "an interface whose bare name carries the address stays up, with its other addresses and routes" {
    practice 0 1 1
    ip -n "$here" route add default via 192.0.2.2
    # The undo of an activation.
    goes '198.51.100.7/24%bare <monmii>1</monmii><defmethod>3</defmethod>' 36 '|Failed to get NIC status.'
    runs bare
    # An alias, too, and for the removal's sake in its turn.
    layout older
    goes 198.51.100.7/24%veth:5 0 'veth:5|Success.' 'veth inet 198.51.100.7/24 brd 198.51.100.255 scope global veth:5'
    traced 4 'Only 198.51.100.7 was removed from veth:5.'
    [ "$(grep -cF 'crit_ifconfig() succeeded.' "$trace")" -eq 2 ]
    node add 203.0.113.1/24 dev bare label bare:3
    before=$(all)
    while row layout mode device address; do
        layout "$layout"
        node add "$address" dev "$device"
        cluster "fip1 $address"
        fip 0 "$mode" -r fip1 -g g1 -a "$address"
        traced 4 "Only ${address%/*} was removed from $device."
        shows "$before"
        runs "$device"
    done <<-EOT
	# layout | mode       | device | address
	newer    | --deactive | veth   | 192.0.2.10/24
	newer    | --deactive | veth   | 192.0.2.10/32
	newer    | --del      | veth   | 198.51.100.7/24
	older    | --deactive | bare   | 198.51.100.7/24
	older    | --del      | bare   | 203.0.113.7/25
	EOT
}

@test "addresses and routes that the kernel drops with the first of a subnet are put back, and announced" {
    sysctl promote_secondaries 0
    practice 0 1 1
    cluster 'fip1 192.0.2.10/24'
    learnt() { [[ $(ip -n "$there" neighbour show 192.0.2.9) == *' 02:00:00:00:00:01 '* ]]; }
    while row layout name subnet; do
        layout "$layout"
        ip -n "$here" -batch - <<-EOT
		address flush dev veth
		address add 192.0.2.10/24 dev veth label $name
		address add 192.0.2.9/24 brd 192.0.2.200 dev veth label veth:9 valid_lft 900 preferred_lft 800
		address add 192.0.2.8 peer 192.0.2.7/24 dev veth metric 7
		address add 192.0.2.6/25 dev veth
		route add default via 192.0.2.2 src 192.0.2.9 metric 5
		route append 198.18.0.0/15 via 192.0.2.2 src 192.0.2.9
		route append 198.18.0.0/15 via 192.0.2.3 src 192.0.2.9
		route replace 192.0.2.0/24 dev veth $subnet
		route add 203.0.113.0/24 via 192.0.2.2 src 192.0.2.10
		EOT
        ip -n "$there" neighbour replace 192.0.2.9 lladdr 02:00:00:00:00:99 dev veth nud stale
        # What is only ours goes.
        after=$(all | sed '/192.0.2.10\//d; /^local 192.0.2.10 /d; /203.0.113/d; /192.0.2.9/ s/ secondary//; s/src 192.0.2.10/src 192.0.2.9/')
        deactivate 0
        shows "$after"
        traced 2 '192.0.2.9 (veth:9) had gone with 192.0.2.10 and was put back.'
        ip -n "$here" address show label veth:9 | grep -E 'valid_lft (900|8..)sec preferred_lft (800|7..)sec'
        eventually learnt
    done <<-EOT
	# layout | name   | subnet
	newer    | veth   | proto kernel scope link src 192.0.2.10
	newer    | veth:0 | src 192.0.2.8
	older    | veth:0 | proto kernel scope link src 192.0.2.10
	EOT
}

@test "the routes whose source the address was are what they were before it came" {
    practice 0 1 1
    sysctl promote_secondaries 1
    for alias in %veth:3 ''; do
        ip -n "$here" route replace default via 192.0.2.2 ${alias:+metric 9}
        before=$(all)
        cluster "fip1 192.0.2.10/24$alias <srcip><use>1</use></srcip>"
        activate 0
        all | grep -xF "default via 192.0.2.2 dev veth src 192.0.2.10"
        deactivate 0
        shows "$before"
        ip -n "$here" route delete default
    done
    # So are they when the activation is undone because the second of them could not be set.
    ip_tool '*default*' exit 2
    ip -n "$here" route add default via 192.0.2.2
    activate 99
    shows "$before"
    # What cannot be set again is told of, and the removal is none the less one.
    search "$PATH"
    activate 0
    node delete 192.0.2.1/24 dev veth
    deactivate 0
    filed 'g1|fip|fip1|veth:0|Route to 0.0.0.0/0 was lost with 192.0.2.10.'
    shows ''
}
