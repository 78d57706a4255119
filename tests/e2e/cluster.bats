# One life of a real cluster, told in order: each test goes on where the one before has left it. To be run by
# script/cluster --run.
source "$BATS_TEST_DIRNAME/../../bench/cluster_stage.sh"
bats_require_minimum_version 1.5.0

setup_file() {
    make_cluster
    for node in 1 2; do fips $node "fip1 $vip/24" 'fip2 192.0.2.11/24'; done
    eventually both_online 1
}

@test "it is started, goes to the other node as planned, and away from one in standby" {
    add 1 "$(primitive vip qor:fip resource=fip1)"
    is_settled 1
    locate 1 vip
    eventually runs 1 vip "$from"
    move 1 vip "$to"
    standby 1 "$to" on
    eventually runs 1 vip "$from"
    standby 1 "$to" off
    run -1 shows 1 Failed
}

@test "a service in its group comes with it; a node with a wrong configuration is passed over" {
    add 1 "<group id='web'>$(primitive web-ip qor:fip resource=fip2)$(primitive web-server pacemaker:Dummy)</group>"
    is_settled 1
    locate 1 web-server
    runs 1 web-ip "$from" 192.0.2.11
    echo '<root>' >"$stage/node$to/home/etc/cluster.xml"
    on 1 crm_resource --resource web --move --node "node$to" >/dev/null 2>&1
    eventually shows 1 "web-ip start on node$to returned 'not installed' (fip2: /opt/qor/etc/cluster.xml cannot be loaded"
    eventually is_at 1 web-server "$from"
    eventually runs 1 web-ip "$from" 192.0.2.11
    fips "$to" "fip1 $vip/24" 'fip2 192.0.2.11/24'
    cleanup 1 web
    eventually is_at 1 web-server "$to"
    eventually runs 1 web-ip "$to" 192.0.2.11
}

@test "Pacemaker is restarted in maintenance mode, and the address is not touched" {
    locate 1 vip
    on 1 crm_attribute --name maintenance-mode --update true
    eventually shows "$from" 'Resource management is DISABLED'
    ip -n "node$from" monitor address >"$stage/changes" 3>&- 4>&- &
    watcher=$!
    on "$from" sh -c 'pid=$(pidof pacemakerd) && kill "$pid" && tail --pid="$pid" -f /dev/null'
    eventually shows "$to" "OFFLINE: \[ node$from \]"
    start_pacemaker "$from"
    eventually both_online "$to"
    eventually is_at "$to" vip "$from"
    on 1 crm_attribute --name maintenance-mode --update false
    is_settled "$to"
    runs "$to" vip "$from"
    kill "$watcher"
    [ ! -s "$stage/changes" ] || { cat "$stage/changes" && false; }
}

@test "a node loses its power, and the other one takes over" {
    locate 1 vip
    power_off "$from"
    eventually runs "$to" vip "$to"
    power_on "$from"
}

@test "the processes of a node die, its kernel answers on: nobody else takes the address until that is over" {
    eventually both_online 1
    is_settled 1
    locate 1 vip
    mac=$(ip -n "node$from" -json link show dev eth0 | jq -r '.[0].address')
    kill_processes "$from"
    eventually shows "$to" "vip start on node$to returned 'error' (fip1: .* Its owner is $mac"
    run -0 where "$to" vip
    [ -z "$output" ]
    is_on "$vip" "$from"
    power_off "$from"
    cleanup "$to" vip
    eventually runs "$to" vip "$to"
}
