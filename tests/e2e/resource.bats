# What qorstat tells of one resource, for a script to act on.
# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# node COMMAND...: changes the addresses of "here" by hand
node() { ip -n "$here" address "$@"; }

# follows: does what a row of standard input says, and expects the status and the line of fip1.
# STATUS|LINE, its tabs as commas|WHAT IS DONE BEFORE|FURTHER ARGUMENTS
follows() {
    local code line before arguments
    while IFS='|' read -r code line before arguments; do
        eval "$before"
        # shellcheck disable=SC2086 # several arguments
        run -"$code" ip netns exec "$here" "$QOR_BIN/qorstat" --plain -r fip1 $arguments
        [ "${output//$'\t'/,}" = "$line" ] || fail "not: $line" "after: $before"
    done
}

@test "the kernel decides whether it is up; the record, and only then the configuration, where it belongs" {
    local xml=$QOR_HOME/etc/cluster.xml
    follows <<-'EOT'
	3|down,192.0.2.10/24,,,,
	4|changed,192.0.2.10/25,bare,bare,,|node add 192.0.2.10/25 dev bare
	0|up,192.0.2.10/24,veth,veth:0,veth:0,Success.|node delete 192.0.2.10/25 dev bare; activate 0|-g g1
	4|changed,192.0.2.10/24,veth,veth:0,veth:0,Success.||-g g2
	0|up,192.0.2.10/24,veth,veth:0,veth:0,Success.|rm $xml
	0|up,192.0.2.10/24,veth,veth:0,veth:0,Success.|cluster 'fip1 host' 'fip2 192.0.2.11'
	4|changed,192.0.2.10/24,veth,veth:0,veth:0,Success.|cluster 'fip1 192.0.2.11/24'
	4|changed,192.0.2.10/24,veth,veth:0,veth:0,Success.|node add 192.0.2.11/24 dev veth label veth:0
	4|changed,192.0.2.11/24,veth,veth:0,veth:0,Success.|node delete 192.0.2.10/24 dev veth
	3|down,192.0.2.11/24,,,veth:0,Success.|node delete 192.0.2.11/24 dev veth
	5|unknown,192.0.2.11/24,,,veth:0,Success.||-g g2
	4|changed,192.0.2.10/25,veth,veth:7,veth:0,Success.|node add 192.0.2.10/25 dev veth label veth:7; rm $xml
	3|down,192.0.2.10/24,,,veth:0,Success.|node delete 192.0.2.10/25 dev veth
	0|up,192.0.2.10/24,veth,veth:0,veth:0,Success.|node add 192.0.2.10/24 dev veth label veth:0
	4|changed,192.0.2.10/24,veth,veth:0,veth:0,Success.|cluster 'fip1 192.0.2.10'; deactivate 0; node add 192.0.2.10/24 dev veth label veth:0
	3|down,192.0.2.10/24,,,veth:0,Success.|node delete 192.0.2.10/24 dev veth; rm $xml
	5|unknown,,,,veth:0,Success.|rm $QOR_HOME/run/fip/*
	5|unknown,,,,veth:0,Success.|cluster 'fip2 192.0.2.10'
	0|up,192.0.2.10/24,veth,veth:0,veth:0,Success.|node add 192.0.2.10/24 dev veth label veth:0; cluster 'fip1 192.0.2.10'
	EOT
}

@test "addresses by hand under a resource's name; IPv6, and what its duplicate address detection holds back" {
    local dad='echo 1 | ip netns exec $here tee /proc/sys/net/ipv6/conf/veth/accept_dad >/dev/null'
    follows <<-'EOT'
	4|changed,192.0.2.20/24,veth,veth:0,veth:0,Success.|fip 0 --add -a 192.0.2.20 -r fip1
	4|changed,192.0.2.20/24,veth,veth:0,veth:0,Success.|fip 0 --del -a 192.0.2.10 -r fip1
	3|down,192.0.2.10/24,,,veth:0,Success.|fip 0 --del -a 192.0.2.20 -r fip1
	0|up,2001:db8::10/48,veth,,veth:1,Success.|cluster 'fip1 2001:DB8:0::10/48%veth:1'; activate 0
	3|down,2001:db8::10/48,,,veth:1,Success.|deactivate 0
	4|changed,2001:db8::10/48,veth,,veth:1,Success.|ip -n $there address add 2001:db8::10/64 dev veth; eval $dad; activate 0
	EOT
    eventually sh -c "ip -n $here address show dadfailed | grep -q 2001"
    run -4 ip netns exec "$here" "$QOR_BIN/qorstat" -r fip1
    [[ "$output" == *'Status:        changed: duplicate address detection failed'* ]]
}
