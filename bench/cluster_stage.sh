# The cluster that script/cluster, its bench and its test play on: two nodes, each in net, mount, pid, ipc and uts
# namespaces of its own with a suite home of its own, and a client on the same segment. To be sourced below
# `script/cluster --run`, whose namespaces take everything with them.
#
#   here   br0 192.0.2.100/24: the segment, and the client on it
#   nodeN  eth0 192.0.2.N/24; its directory is $stage/nodeN
#
# shellcheck shell=bash

: "${stage:?run this by script/cluster --run}" "${QOR_BIN:?the programs}"
export vip=192.0.2.10

# eventually COMMAND...: waits for a condition, for at most a minute
eventually() {
    local end=$((SECONDS + 60))
    until "$@" 2>/dev/null; do
        ((SECONDS < end)) || { tell_all "never: $*" && return 1; }
        sleep 0.1
    done
}
# tell_all TEXT...: with what the nodes know
tell_all() {
    local node
    printf '%s\n' "$@" >&2
    for node in 1 2; do
        on $node crm_mon -1 -r >&2 2>/dev/null || true
        tail -n 20 "$stage/node$node/home/log/fip.log" >&2 || true
    done
}

# on NODE COMMAND...: runs it on the node, which must be powered on
on() {
    nsenter -t "$(<"$stage/node$1/init")" --net --mount --pid --ipc --uts -- \
        env -u QOR_HOME OCF_ROOT=/usr/lib/ocf "${@:2}"
}
other() { echo $((3 - $1)); }

# ---- the nodes

# fips NODE "NAME ADDRESS [PARAMETERS]"...: the node's configuration
fips() {
    local home=$stage/node$1/home name address parameters
    shift
    {
        echo '<root><server name="node1"/><server name="node2"/><resource>'
        while read -r name address parameters; do
            echo "<fip name='$name'><comment>under test</comment>"
            echo "<parameters><ip>$address</ip>$parameters</parameters></fip>"
        done < <(printf '%s\n' "$@")
        echo '</resource></root>'
    } >"$home/etc/cluster.xml"
}

make_node() {
    local directory=$stage/node$1
    mkdir -p "$directory/corosync"
    cp -r "$stage/home" "$directory/home"
    sed "s/TOKEN/${token:-1000}/" >"$directory/corosync/corosync.conf" <<-'EOT'
	totem {
	    version: 2
	    cluster_name: two
	    transport: knet
	    crypto_cipher: none
	    crypto_hash: none
	    token: TOKEN
	}
	nodelist {
	    node {
	        ring0_addr: 192.0.2.1
	        name: node1
	        nodeid: 1
	    }
	    node {
	        ring0_addr: 192.0.2.2
	        name: node2
	        nodeid: 2
	    }
	}
	quorum {
	    provider: corosync_votequorum
	    two_node: 1
	    wait_for_all: 0
	}
	system {
	    move_to_root_cgroup: no
	    allow_knet_handle_fallback: yes
	}
	logging {
	    to_stderr: no
	    to_syslog: no
	    to_logfile: yes
	    logfile: /var/log/corosync/corosync.log
	}
	EOT
    # Without dc-deadtime the first election takes 20 s; a busy machine is no reason to do one action at a time.
    cat >"$directory/cib.xml" <<-'EOT'
	<cib validate-with="pacemaker-3.0" epoch="1" num_updates="0" admin_epoch="0"><configuration><crm_config>
	<cluster_property_set id="options"><nvpair id="o1" name="dc-deadtime" value="2s"/>
	<nvpair id="o2" name="stonith-enabled" value="false"/><nvpair id="o3" name="no-quorum-policy" value="ignore"/>
	<nvpair id="o4" name="load-threshold" value="2000%"/></cluster_property_set></crm_config><nodes/><resources/>
	<constraints/><rsc_defaults><meta_attributes id="defaults"><nvpair id="d1" name="resource-stickiness"
	value="100"/></meta_attributes></rsc_defaults></configuration><status/></cib>
	EOT
    ip netns add "node$1"
    ip link add "port$1" type veth peer name eth0 netns "node$1"
    ip -n "node$1" link set lo up
    ip -n "node$1" link set eth0 up
    ip link set "port$1" master br0
}

make_cluster() {
    local node
    cmake --install "$QOR_BIN/.." --prefix "$stage/home" >/dev/null
    chmod -R go-w "$stage/home"
    mkdir -p "$stage/lib/ocf"
    cp -r /usr/lib/ocf/resource.d "$stage/lib/ocf"
    cmake --install "$QOR_BIN/.." --component resource-agent --prefix "$stage" >/dev/null
    ip link add br0 type bridge
    ip address add 192.0.2.100/24 dev br0
    ip link set lo up
    ip link set br0 up
    for node in 1 2; do
        make_node $node
        fips $node "fip1 $vip/24"
    done
    for node in 1 2; do power_on $node; done
}

start_corosync() {
    on "$1" sh -c 'corosync -f >/var/log/corosync.out 2>&1 3>&- 4>&- &'
    eventually on "$1" corosync-cmapctl -q totem.token >/dev/null 2>&1
}
start_pacemaker() {
    on "$1" sh -c 'PCMK_logfile=/var/log/pacemaker/pacemaker.log pacemakerd -f >/var/log/pacemakerd.out 2>&1 3>&- 4>&- &'
}

# power_on NODE: as after a reset: no address but its own, an empty /run, its link up
power_on() {
    local directory=$stage/node$1 starter
    ip -n "node$1" address add "192.0.2.$1/24" dev eth0
    ip link set "port$1" up
    ip netns exec "node$1" unshare --mount --pid --ipc --uts --fork --kill-child --mount-proc --propagation private \
        "$PWD/bench/cluster_node.sh" "$directory" "$stage/lib/ocf/resource.d" >"$directory/init.log" 2>&1 3>&- 4>&- </dev/null &
    starter=$!
    eventually init_of "$starter" >"$directory/init"
    eventually on "$1" test -e /run/ready
    start_corosync "$1"
    start_pacemaker "$1"
}
init_of() { grep -o '^[0-9]*' "/proc/$1/task/$1/children"; }

# kill_processes NODE: everything that runs there dies; its kernel goes on answering
kill_processes() {
    kill -9 "$(<"$stage/node$1/init")"
    rm "$stage/node$1/init"
}
power_off() {
    ip link set "port$1" down
    [ ! -e "$stage/node$1/init" ] || kill_processes "$1"
    ip -n "node$1" address flush dev eth0
}

both_online() { on "$1" crm_mon -1 2>/dev/null | grep -q 'Online: \[ node1 node2 \]'; }
# is_settled NODE: nothing is left to do. Asks every 2 s only.
is_settled() { on "$1" crm_resource --wait --timeout 60 >/dev/null 2>&1; }

# ---- the resources, always by the node that is named first

# add NODE XML
add() { on "$1" cibadmin -C -o resources --xml-text "$2"; }
# primitive ID PROVIDER:TYPE "NAME=VALUE..." [META]: the text of one
primitive() {
    local pair count=0
    echo "<primitive id='$1' class='ocf' provider='${2%:*}' type='${2#*:}'><instance_attributes id='$1-a'>"
    for pair in $3; do
        echo "<nvpair id='$1-a$((++count))' name='${pair%%=*}' value='${pair#*=}'/>"
    done
    echo "</instance_attributes>"
    for pair in ${4-}; do
        echo "<meta_attributes id='$1-m'><nvpair id='$1-m1' name='${pair%%=*}' value='${pair#*=}'/></meta_attributes>"
    done
    echo "<operations><op id='$1-monitor' name='monitor' interval='10s' timeout='20s'/>"
    echo "<op id='$1-start' name='start' interval='0' timeout='60s'/>"
    echo "<op id='$1-stop' name='stop' interval='0' timeout='60s'/></operations></primitive>"
}
# where NODE RESOURCE: the number of the node that runs it, or is starting it
where() { on "$1" crm_resource --resource "$2" --locate 2>/dev/null | sed -n 's/.*running on: node\([12]\).*/\1/p'; }
# is_at NODE RESOURCE WHERE
is_at() { [ "$(where "$1" "$2")" = "$3" ]; }
# locate NODE RESOURCE: sets from, the node that runs it, and to, the other one
# shellcheck disable=SC2034 # the caller's
locate() { from=$(where "$1" "$2") to=$(other "$from"); }
shows() { on "$1" crm_mon -1 -r | grep -q "$2"; }

set_role() { # NODE RESOURCE Started|Stopped
    on "$1" crm_resource --resource "$2" --set-parameter target-role --meta --parameter-value "$3" >/dev/null 2>&1
}
standby() { on "$1" crm_attribute --type nodes --node "node$2" --name standby --update "$3"; }
cleanup() { on "$1" crm_resource --cleanup --resource "$2" >/dev/null 2>&1; }

# carriers ADDRESS: the nodes whose kernels have it
carriers() {
    local node found=
    for node in 1 2; do
        [ -z "$(ip -n "node$node" -o address show to "$1")" ] || found+=" $node"
    done
    echo "${found# }"
}
is_on() { [ "$(carriers "$1")" = "$2" ]; }
# runs ASKED RESOURCE NODE [ADDRESS]: by the cluster's account, by the kernels', and by the client's
runs() { is_at "$1" "$2" "$3" && is_on "${4-$vip}" "$3" && answers "${4-$vip}"; }
# move NODE RESOURCE TO [ADDRESS]: a planned move, until the address is there; then the constraint is taken away
move() {
    on "$1" crm_resource --resource "$2" --move --node "node$3" >/dev/null 2>&1
    eventually runs "$1" "$2" "$3" "${4-$vip}"
    on "$1" crm_resource --resource "$2" --clear >/dev/null 2>&1
}

# ---- the client

answers() { ping -n -c 1 -W 1 "$1" >/dev/null 2>&1; }
# watch_start: from now on the client asks every 10 ms. Returns with the first answer.
watch_start() {
    ping -n -D -i 0.01 "$vip" >"$stage/watch" 2>&1 3>&- 4>&- &
    echo $! >"$stage/watcher"
    eventually grep -q 'bytes from' "$stage/watch"
}
# watch_stop: prints the longest pause between two answers, in ms
watch_stop() {
    eventually answers "$vip"
    kill -INT "$(<"$stage/watcher")"
    awk '/bytes from/ {
            now = substr($1, 2) + 0
            if (last && now - last > longest) longest = now - last
            last = now
        }
        END { printf "%.0f\n", longest * 1000 }' "$stage/watch"
}
