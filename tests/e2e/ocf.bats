# The resource agent for Pacemaker, as the cluster calls it: statuses, reasons, and what is left in the kernel.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

ra() {
    ip netns exec "$here" env OCF_ROOT=/usr/lib/ocf HA_RSCTMP="$PWD" OCF_RESOURCE_INSTANCE=vip \
        OCF_RESKEY_resource="${resource-fip1}" OCF_RESKEY_home="$QOR_HOME" OCF_CHECK_LEVEL="${depth-0}" "$@"
}
script=$QOR_SOURCE/src/linux/ocf/fip

# follows: what the rows of standard input say: done before the action, its status, its reason if one is named, and
# a check of what is there after it.
follows() {
    while row code action reason after before; do
        eval "$before"
        status=0
        ra timeout 30 "$script" "$action" >output 2>&1 || status=$?
        output=$(<output)
        [ "$status" -eq "$code" ] || fail "$action: exit $status, not $code" "after: $before"
        [[ $output == *"ocf-exit-reason:"*"$reason"* || -z $reason ]] || fail "$action: reason not $reason"
        eval "$after"
    done
}
promotes() { [ "$(ip netns exec "$here" cat /proc/sys/net/ipv4/conf/veth/promote_secondaries)" = "$1" ]; }
duplicate() {
    peer add "$1/64" dev veth
    node add "$1/64" dev veth
    eventually turned_down "$1"
}

@test "start, monitor and stop: as often as they come, and with another host, no link, no configuration" {
    follows <<-'EOT'
	# code | action  | reason                                        | after                              | before
	7      | monitor |                                               |                                    | cluster 'fip1 192.0.2.10/24 <ping><timeout>1</timeout></ping>'
	# another host has the address: it does not stay here either
	1      | start   | already used. Its owner is 02:00:00:00:00:02. | carries ''                         | peer add 192.0.2.10/24 dev veth
	1      | start   | already used. Its owner is 02:00:00:00:00:02. | carries ''                         | node add 192.0.2.10/24 dev veth label veth:9
	# the other host has gone; the mark of a start comes back
	0      | start   |                                               | carries "$alias0"                  | peer delete 192.0.2.10/24 dev veth
	0      | start   |                                               | [ "$(<qor-fip/vip)" = 192.0.2.10 ] | rm qor-fip/vip
	# no link
	0      | monitor |                                               |                                    | depth=10
	1      | monitor | the link of veth is down                      |                                    | ip -n $there link set veth down
	1      | start   | the link of veth is down                      |                                    | cluster 'fip1 192.0.2.11/24'
	# no configuration
	0      | monitor |                                               |                                    | depth=0; rm $QOR_HOME/etc/cluster.xml
	0      | stop    |                                               | carries ''                         | ip -n $there link set veth up
	0      | stop
	5      | start   | etc/cluster.xml cannot be loaded
	# a wrong one; only a start that may have changed something leaves its mark
	2      | start   | the bits in the address are wrong             |                                    | cluster 'fip1 192.0.2.10/99'
	2      | start   | Fip interface was not found.                  |                                    | cluster 'fip1 10.0.0.1/24'
	1      | start   | Failed to get NIC status.                     | [ -e qor-fip/vip ]                 | cluster 'fip1 192.0.2.10/24 <monmii>1</monmii><defmethod>9</defmethod>'
	0      | stop
	# a new one, while the address of the old one is up
	0      | start   |                                               |                                    | cluster 'fip1 192.0.2.10/24'
	0      | stop    |                                               | carries ''                         | cluster 'fip1 192.0.2.11/24'
	# no directory for the mark
	1      | start   | cannot write                                  |                                    | rm -r qor-fip; touch qor-fip
	# parameters
	6      | start   | the parameter resource is missing             |                                    | rm qor-fip; resource=
	6      | start   | a parameter has a control character           |                                    | resource=$'fip1\nx'
	0      | stop    |                                               |                                    | resource=$(printf %032d 0)
	EOT
}

@test "a stop removes the one address, and never believes what nobody tells" {
    follows <<-'EOT'
	# code | action  | reason                             | after                       | before
	# an address on the interface itself that no start has put there
	1      | stop    | 192.0.2.10/24 is on veth itself    |                             | node add 192.0.2.10/24 dev veth
	0      | stop    |                                    | carries ''; runs veth       | practice 0 1 1
	# on another interface than it would go to
	0      | monitor |                                    |                             | practice 0 1 0; node add 192.0.2.10/24 dev bare label bare:7
	0      | stop    |                                    | carries ''
	# the interface's only one, which was put there
	0      | start   |                                    | carries 'bare inet 192.0.2.20/24 brd 192.0.2.255 scope global bare' | cluster 'fip1 192.0.2.20/24%bare'
	0      | stop    |                                    | carries ''; runs bare
	# the first one of a subnet: the others stay, and the kernel's setting is what it was
	0      | start   |                                    |                             | cluster 'fip1 10.0.0.1/24%veth:5'
	0      | stop    |                                    | carries 'veth inet 10.0.0.2/24 scope global veth'; promotes 0 | node add 10.0.0.2/24 dev veth; rm $QOR_HOME/etc/cluster.xml
	# neither configuration nor record
	5      | monitor | and none is recorded               |                             | node delete 10.0.0.2/24 dev veth; rm -r $QOR_HOME/run
	0      | stop
	# only the mark, which may be empty
	0      | start   |                                    |                             | cluster 'fip1 192.0.2.10/24'
	1      | stop    | was started, but neither the configuration nor a record |                             | rm -r $QOR_HOME/etc/cluster.xml $QOR_HOME/run; : >qor-fip/vip
	0      | stop    |                                    | carries ''                  | echo 192.0.2.10 >qor-fip/vip
	# a new configuration, without a record of the old one's address
	0      | start   |                                    |                             | cluster 'fip1 192.0.2.10/24'; mkdir -p -m 750 $QOR_HOME/run; rm -rf $QOR_HOME/run/fip; touch $QOR_HOME/run/fip
	0      | start   |                                    | carries "${alias0/.10/.11}" | cluster 'fip1 192.0.2.11/24'
	0      | stop    |                                    | carries ''                  | cluster 'fip1 192.0.2.12/24'
	0      | start   |                                    |                             | rm $QOR_HOME/run/fip; cluster 'fip1 192.0.2.20/24%bare'
	0      | stop    |                                    | carries ''; runs bare       | rm -r $QOR_HOME/run
	# no program
	5      | monitor | there is no program                |                             | mv $QOR_HOME/bin gone
	# IPv6
	0      | start   |                                    |                             | mv gone $QOR_HOME/bin; cluster 'fip1 2001:db8::10/64'
	0      | monitor |                                    | carries 'veth inet6 2001:db8::10/64 scope global'
	0      | stop
	# duplicates: another address, and the resource's own
	0      | monitor |                                    |                             | setting accept_dad 1; duplicate 2001:db8::11; node add 2001:db8::10/64 dev veth nodad
	1      | monitor | duplicate address detection failed |                             | node delete 2001:db8::10/64 dev veth; duplicate 2001:db8::10
	EOT
}

@test "stops at the same time, or killed, leave the other addresses and the kernel's setting as they are" {
    cluster 'fip1 10.0.0.1/24' 'fip2 10.0.0.2/24' 'fip3 10.0.0.3/24'
    for host in 1 2 3 4; do node add "10.0.0.$host/24" dev veth label "veth:$host"; done
    chmod g+w "$QOR_HOME/etc/policy/fip.xml" # which qorfip refuses
    ip_tool '*delete*' sleep 0.3
    for resource in fip1 fip2; do
        ra "PATH=$PWD/tools:$PATH" "$script" stop >"$resource" 2>&1 3>&- &
        sleep 0.15
    done
    wait
    carries "$(printf 'veth inet 10.0.0.%s veth:%s\n' '3/24 scope global' 3 '4/24 scope global secondary' 4)"
    resource=fip3 run -124 ra "PATH=$PWD/tools:$PATH" timeout 0.2 "$script" stop
    eventually promotes 0
}

@test "validate-all judges the running configuration by the limits of the policy" {
    follows <<-'EOT'
	# code | action       | reason           | after | before
	# within the limits, beyond one, which grows
	0      | validate-all |                  |       | cluster 'fip1 192.0.2.10/24'; sed -i 's|<parameters>|<comment>c</comment>&|' $QOR_HOME/etc/cluster.xml
	2      | validate-all | fip1: [004] Value of Ping Timeout is out of range. (value=1000) |       | sed -i 's|</ip>|&<ping><timeout>1000</timeout></ping>|' $QOR_HOME/etc/cluster.xml
	0      | validate-all |                  |       | sed -i 's|999|1000|' $QOR_HOME/etc/policy/fip.xml
	# what cannot be read
	2      | validate-all | [099] Internal error occurred. xmllib_get_value(/root/resource/fip@fip1/parameters/ping/timeout |       | sed -i 's|1000<|soon<|' $QOR_HOME/etc/cluster.xml
	5      | validate-all | cannot be loaded |       | chmod g+w $QOR_HOME/etc/cluster.xml
	5      | validate-all | cannot be loaded |       | rm $QOR_HOME/etc/cluster.xml; mkfifo $QOR_HOME/etc/cluster.xml
	EOT
    [ ! -e "$QOR_HOME/log/check.log" ]
}

@test "the agent passes the testers of the resource agents' project, and a monitor is few processes" {
    "$script" meta-data >metadata
    xmllint --noout --relaxng /usr/share/resource-agents/metadata.rng metadata
    sed -i 's|<parameters>|<comment>c</comment>&|' "$QOR_HOME/etc/cluster.xml"
    ra ocf-tester -n vip -o resource=fip1 -o "home=$QOR_HOME" "$script"
    # Each cat is a process, too.
    run -0 ra unshare --pid --fork --mount-proc sh -c '"$1" start
        before=$(cat /proc/sys/kernel/ns_last_pid)
        "$1" monitor && echo $(($(cat /proc/sys/kernel/ns_last_pid) - before - 1))' - "$script"
    [ "$output" -le 4 ] || fail # a sanitizer has one of its own
}
