#!/usr/bin/env bash
# Prints the bench's tables as Markdown. Everything runs in two network namespaces of its own, which are removed
# at the end. -n sets the runs behind each median.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=20
while getopts n: option; do
    case $option in
    n) runs=$OPTARG ;;
    *) exit 2 ;;
    esac
done

bin=$PWD/build/release/bin
measure=$PWD/build/release/bench/measure
bare=$PWD/build/release/bench/bare
here=qorbench-a-$$
peer=qorbench-b-$$
home=$(mktemp -d /tmp/qorbench.XXXXXX)
address=10.99.200.1

clean_up() {
    ip netns del "$here" 2>/dev/null || true
    ip netns del "$peer" 2>/dev/null || true
    rm -rf "$home"
}
trap clean_up EXIT

# The configuration: fip "one" uses the kernel, "detect" looks for ifconfig first, "command" finds BusyBox's;
# "probe" pings its address, "probeN" N addresses at once, and "fN" are for many runs at once.
write_configuration() {
    local name server
    cmake --install build/release --prefix "$home" >/dev/null
    sed -i "s|/opt/qor|$home|" "$home/etc/policy/all.xml"
    sed -i 's|<timeout>1</timeout>|<timeout>0</timeout>|; s|<execute>1</execute>|<execute>0</execute>|
            s|<path>ifconfig</path>|<path>'"$home"'/busybox/ifconfig</path>|' "$home/etc/policy/fip.xml"
    {
        echo "<root><resource>"
        for name in one detect command probe probe1 probe10 probe100; do
            echo "<fip name=\"$name\">"
            case $name in probe?*)
                for server in $(seq "$((${name#probe} - 1))"); do
                    echo "<server name=\"s$server\"><parameters><ip>10.99.201.$server</ip></parameters></server>"
                done ;;
            esac
            echo "<parameters><ip>$address/16%eth0</ip>"
            case $name in
            one) echo "<ifconfig><use>1</use></ifconfig>" ;;
            probe*) echo "<ifconfig><use>1</use></ifconfig><ping><timeout>1</timeout><allip>1</allip></ping>" ;;
            esac
            echo "</parameters></fip>"
        done
        for server in $(seq 50); do
            echo "<fip name=\"f$server\"><parameters><ip>10.99.202.$server/16%eth0</ip>"
            echo "<ifconfig><use>1</use></ifconfig></parameters></fip>"
        done
        echo "</resource></root>"
    } >"$home/etc/cluster.xml"
    mkdir "$home/busybox"
    printf '#!/bin/sh\nexec busybox ifconfig "$@"\n' >"$home/busybox/ifconfig"
    chmod 755 "$home" "$home/busybox" "$home/busybox/ifconfig"
}

set_up_network() {
    local ns
    ip netns add "$here"
    ip netns add "$peer"
    ip link add eth0 netns "$here" type veth peer name eth0 netns "$peer"
    ip -n "$here" addr add 10.99.0.1/16 dev eth0
    ip -n "$peer" addr add 10.99.0.2/16 dev eth0
    for ns in "$here" "$peer"; do
        ip -n "$ns" link set lo up
        ip -n "$ns" link set eth0 up
    done
}

# present N: makes N addresses present on the interface, aliases like the agent's.
present() {
    local i
    for ((i = 1; i < $1; i++)); do
        echo "addr add 10.99.$((i / 250 + 1)).$((i % 250 + 1))/16 dev eth0 label eth0:$((i - 1))"
    done >"$home/batch"
    ip -n "$here" addr flush dev eth0
    ip -n "$here" addr add 10.99.0.1/16 dev eth0
    ip -n "$here" -batch "$home/batch"
}

inside() { ip netns exec "$here" env QOR_HOME="$home" "$@"; }

# cost RESET COMMAND...: the three figures of a command. A first run outside the measurement fills the caches.
cost() {
    local reset=$1
    shift
    inside "$measure" -n 1 -r "$reset" "$@" >/dev/null
    inside "$measure" -n "$runs" -r "$reset" "$@"
}

# processes RESET COMMAND...: how many processes a command starts, itself counted.
processes() {
    local reset=$1
    shift
    inside strace -f -qq -e trace=clone,clone3,fork,vfork -o "$home/trace" "$@" >/dev/null 2>&1
    inside sh -c "$reset"
    echo $((1 + $(grep -E '(clone3?|v?fork)\(' "$home/trace" | grep -vc CLONE_THREAD || true)))
}

base=
# row LABEL RESET COMMAND...: one line of the comparison; ratios are to the first line of the table.
row() {
    local label=$1 figures wall cpu peak
    shift
    figures=$(cost "$@")
    IFS=$'\t' read -r wall cpu peak <<<"$figures"
    base=${base:-$wall}
    printf '| %s | %s | %s | %s | %s | %s |\n' "$label" "$wall" \
        "$(awk "BEGIN { printf \"%.1f\", $wall / $base }")" "$cpu" "$(processes "$@")" "$peak"
}

table() {
    base=
    printf '\n## %s\n\n%s\n\n' "$1" "$2"
    printf '| command | wall ms | ratio | CPU ms | processes | peak KiB |\n|---|---:|---:|---:|---:|---:|\n'
}

active() { echo "$bin/qorfip" --active -g g -r "$1"; }
deactive() { echo "$bin/qorfip" --deactive -g g -r "$1"; }

agent_script=/usr/lib/ocf/resource.d/heartbeat/IPaddr2
ocf=(env OCF_ROOT=/usr/lib/ocf OCF_RESOURCE_INSTANCE=bench HA_RSCTMP="$home/rsctmp"
    OCF_RESKEY_ip="$address" OCF_RESKEY_cidr_netmask=16 OCF_RESKEY_nic=eth0 "$agent_script")
add="ip addr add $address/16 dev eth0 label eth0:0"
remove="ip addr del $address/16 dev eth0"

compare_activation() {
    local plain=("$bare" eth0 eth0:0 "$address" 255.255.0.0 10.99.255.255)
    table "Activation, 1 address present" "Ping off. The ratio is to the bare program: the same requests, nothing else.
It waits some 10 ms for the kernel to close its packet socket, which the agent leaves to a kernel thread; the
second row shows it with that. Most of the agent's CPU time is the dynamic linker's: libxml2 brings ICU along."
    row "bare program" "$remove" "${plain[@]}"
    row "bare program, socket left to the kernel" "$remove" "${plain[@]}" behind
    # shellcheck disable=SC2046 # a command line of plain words
    {
        row "qorfip, kernel way" "$remove" $(active one)
        row "qorfip, ifconfig detection on" "$remove" $(active detect)
        row "qorfip, command way (BusyBox)" "$remove" env PATH="$home/busybox:$PATH" $(active command)
    }
    row "ip addr add" "$remove" ip addr add "$address/16" dev eth0
    row "ip addr add + arping -U -c 1" "$remove" sh -c "$add && arping -q -U -c 1 -I eth0 $address"
    row "IPaddr2 start" "$remove" "${ocf[@]}" start
}

compare_deactivation() {
    ip -n "$here" addr add "$address/16" dev eth0 label eth0:0
    table "Deactivation, 1 address present" "After-checks off. The ratio is to ip addr del. For the kernel way no ifconfig is on the path: a deactivation
always looks for one."
    row "ip addr del" "$add" ip addr del "$address/16" dev eth0
    # shellcheck disable=SC2046
    {
        row "qorfip, kernel way" "$add" env PATH=/nonexistent:/bin $(deactive one)
        row "qorfip, ifconfig detection on" "$add" $(deactive detect)
        row "qorfip, command way (BusyBox)" "$add" env PATH="$home/busybox:$PATH" $(deactive command)
    }
    row "IPaddr2 stop" "$add" "${ocf[@]}" stop
    ip -n "$here" addr del "$address/16" dev eth0
}

grow() {
    local count kernel command added
    printf '\n## Growth of an activation\n\nMilliseconds of wall time, by the addresses present on the interface.\n\n'
    printf '| addresses | qorfip, kernel way | qorfip, command way (BusyBox) | ip addr add |\n|---:|---:|---:|---:|\n'
    for count in 1 10 100 1000 5000; do
        present "$count"
        # shellcheck disable=SC2046
        {
            kernel=$(cost "$remove" $(active one) | cut -f 1)
            command=-
            [ "$count" -gt 1000 ] ||
                command=$(cost "$remove" env PATH="$home/busybox:$PATH" $(active command) | cut -f 1)
        }
        added=$(cost "$remove" ip addr add "$address/16" dev eth0 | cut -f 1)
        printf '| %s | %s | %s | %s |\n' "$count" "$kernel" "$command" "$added"
    done
    present 1
}

at_once() {
    local count start reset wall
    printf '\n## Many runs at once\n\nActivations of different resources, kernel way, until the last one has ended.\n\n'
    printf '| runs at once | wall ms | per run ms |\n|---:|---:|---:|\n'
    for count in 1 10 50; do
        start="for i in \$(seq $count); do $(active "f\$i") & done"
        reset="for i in \$(seq $count); do ip addr del 10.99.202.\$i/16 dev eth0; done"
        wall=$(cost "$reset" sh -c "$start; wait" | cut -f 1)
        printf '| %s | %s | %s |\n' "$count" "$wall" "$(awk "BEGIN { printf \"%.2f\", $wall / $count }")"
    done
}

probes() {
    local count off
    # shellcheck disable=SC2046
    off=$(cost "$remove" $(active one) | cut -f 1)
    printf '\n## The duplicate-address check\n\n'
    printf 'Nobody answers; the tool asks the link and waits 400 ms for that. What the check adds beyond the wait (medians of 3):\n\n'
    printf '| addresses probed at once | activation ms | beyond the wait ms |\n|---:|---:|---:|\n'
    for count in 1 10 100; do
        local wall
        # shellcheck disable=SC2046
        wall=$(inside "$measure" -n 3 -r "$remove; ip neigh flush dev eth0" $(active "probe$count") | cut -f 1)
        printf '| %s | %s | %s |\n' "$count" "$wall" "$(awk "BEGIN { printf \"%.2f\", $wall - $off - 400 }")"
    done
    printf '\n## Who has an address\n\nWhat qorping tells of addresses, and after how long (medians of 5):\n\n'
    bench/links.sh
}

write_configuration
set_up_network
# shellcheck disable=SC2016 # backquotes are Markdown's
printf '# Performance\n\nWritten by `script/bench` on %s: %s cores, %s, Linux %s. Medians of %s runs.\n' \
    "$(date +%F)" "$(nproc)" "$(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -n 1)" "$(uname -r)" "$runs"
compare_activation
compare_deactivation
grow
at_once
probes
