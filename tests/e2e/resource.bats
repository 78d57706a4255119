# What qorstat tells of one resource, for a script to act on.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

@test "the kernel decides whether it is up; the record, and only then the configuration, where it belongs" {
    local xml=$QOR_HOME/etc/cluster.xml table=$QOR_HOME/run/resource.shm own=$QOR_HOME/run/fip
    # The line has commas for its tabs.
    while row code line before group; do
        eval "$before"
        run -"$code" ip netns exec "$here" "$QOR_BIN/qorstat" --plain -r fip1 ${group:+-g "$group"}
        [ "${output//$'\t'/,}" = "$line" ] || fail "not: $line" "after: $before"
    done <<-EOT
	# code | line                                          | before                                    | group
	# the configured address, where no table of states or no record is
	3      | down,192.0.2.10/24,,,,
	3      | down,192.0.2.10/24,,,,                        | dd of=$table bs=1 seek=16 conv=notrunc status=none < <(printf '\0\4'); activate 99
	4      | changed,192.0.2.10/24,veth,veth:0,,           | rm $table; node add 192.0.2.10/24 dev veth label veth:0
	4      | changed,192.0.2.10/32,bare,bare,,             | rm -r $own; node delete 192.0.2.10/24 dev veth; node add 192.0.2.10 peer 198.51.100.1/32 dev bare
	# recorded, and where it was put; under another group
	0      | up,192.0.2.10/24,veth,veth:0,veth:0,Success.  | node flush dev bare; activate 0           | g1
	4      | changed,192.0.2.10/24,veth,veth:0,veth:0,Success. |                                           | g2
	0      | up,192.0.2.10/24,veth,veth:0,veth:0,Success.  | node add 192.0.2.10/32 dev lo
	# the configuration is gone, gives no address, or another one
	0      | up,192.0.2.10/24,veth,veth:0,veth:0,Success.  | node delete 192.0.2.10/32 dev lo; rm $xml
	0      | up,192.0.2.10/24,veth,veth:0,veth:0,Success.  | cluster 'fip1 host' 'fip2 192.0.2.11'
	4      | changed,192.0.2.10/24,veth,veth:0,veth:0,Success. | cluster 'fip1 192.0.2.11'; node add 192.0.2.11/24 dev veth label veth:0
	4      | changed,192.0.2.11/24,veth,veth:0,veth:0,Success. | node delete 192.0.2.10/24 dev veth
	5      | unknown,192.0.2.11,,,veth:0,Success.          | node delete 192.0.2.11/24 dev veth        | g2
	# with other bits, and put elsewhere or back by hand
	4      | changed,192.0.2.10/25,veth,veth:7,veth:0,Success. | rm $xml; node add 192.0.2.10/25 dev veth label veth:7
	3      | down,192.0.2.10/24,,,veth:0,Success.          | node delete 192.0.2.10/25 dev veth
	4      | changed,192.0.2.10/24,veth,veth:0,veth:0,Success. | cluster 'fip1 192.0.2.10'; deactivate 0; node add 192.0.2.10/24 dev veth label veth:0
	3      | down,192.0.2.10/24,,,veth:0,Success.          | node delete 192.0.2.10/24 dev veth
	# neither configuration nor record; a removal that could not be recorded
	5      | unknown,,,,veth:0,Success.                    | rm $xml $own/fip1
	0      | up,192.0.2.10/24,veth,veth:0,veth:0,Success.  | cluster 'fip1 192.0.2.10'; activate 0; (trap '' XFSZ; ulimit -f 0; deactivate 0); rmdir $own; node add 192.0.2.10/24 dev veth label veth:0
	# the address of an argument
	0      | up,192.0.2.20/24,veth,veth:1,veth:1,Success.  | fip 0 --add -a 192.0.2.20 -r fip1; fip 0 --del -a 192.0.2.10 -r fip1; rm $xml
	# IPv6: put there by a run, by hand, and turned down as a duplicate
	0      | up,2001:db8::10/48,veth,,veth:1,Success.      | cluster 'fip1 2001:DB8:0::10/48%veth:1'; fip 0 --del -a 192.0.2.20 -r fip1; activate 0
	4      | changed,2001:db8::10/48,veth,,veth:1,Success. | fip 0 --del -a 2001:db8::10 -r fip1; node add 2001:db8::10/48 dev veth
	4      | changed,2001:db8::10/48,veth,,veth:1,Success. | deactivate 0; peer add 2001:db8::10/64 dev veth; setting accept_dad 1; activate 0
	EOT
    eventually turned_down 2001:db8::10
    run -4 ip netns exec "$here" "$QOR_BIN/qorstat" -r fip1
    [[ "$output" == *'Status:        changed: duplicate address detection failed'* ]]
}
