# Set-up shared by the tests of qorfip: a node ("here", on which the agent runs) and another host ("there"),
# each in a network namespace of its own, joined by veth; and a suite home made from the tree's etc/.
#
#   here   veth 192.0.2.1/24, 2001:db8::1/64, 02:00:00:00:00:01     bare: an interface without address
#   there  veth 192.0.2.2/24, 2001:db8::2/64, 02:00:00:00:00:02
#
# shellcheck shell=bash

bats_require_minimum_version 1.5.0

export alias0='veth inet 192.0.2.10/24 brd 192.0.2.255 scope global secondary veth:0' # how 192.0.2.10/24 goes up
export state0='g1|fip|fip1|veth:0|Success.'

setup() {
    here="qfh$$" there="qft$$"
    export QOR_HOME="$BATS_TEST_TMPDIR/home"
    trace="$QOR_HOME/log/fip.log"
    cd "$BATS_TEST_TMPDIR" || return
    make_home
    make_network
    search "$PATH"
    cluster 'fip1 192.0.2.10/24'
}

teardown() {
    local namespace
    for namespace in "$here" "$there"; do
        [ -e "/run/netns/$namespace" ] || continue
        ip netns pids "$namespace" | xargs -r kill -9
        ip netns delete "$namespace"
    done
}

# The home as installed, but with every trace level, and with what costs seconds switched off.
make_home() {
    : "${QOR_SOURCE:?the source tree}" "${QOR_BIN:?the programs}"
    mkdir -p "$QOR_HOME/bin"
    cp -r "$QOR_SOURCE/etc" "$QOR_HOME/etc"
    chmod -R go-w "$QOR_HOME"
    ln -s "$QOR_BIN"/qor* "$QOR_HOME/bin/"
    sed -i "s|/opt/qor|$QOR_HOME|" "$QOR_HOME/etc/policy/all.xml"
    sed -i -e 's|<level>.*<|<level>8<|' -e '/<ping>/,/<\/ping>/ s|<timeout>.*<|<timeout>0<|' \
        -e 's|<execute>.*<|<execute>0<|' -e '/<ping>/,/<\/ping>/ s|<interval>.*<|<interval>0<|' \
        "$QOR_HOME/etc/policy/fip.xml"
}

make_network() {
    local namespace
    for namespace in "$here" "$there"; do
        ip netns add "$namespace"
        # No link-local addresses, and no waiting for duplicate-address detection.
        ip netns exec "$namespace" sh -c 'cd /proc/sys/net/ipv6/conf/default && echo 1 >addr_gen_mode &&
            echo 0 | tee accept_dad ../all/accept_dad >/dev/null'
    done
    ip -n "$here" -batch - <<-EOT
	link add veth type veth peer name veth netns $there
	link add bare up type bridge
	link set veth address 02:00:00:00:00:01 up
	address add 192.0.2.1/24 dev veth
	address add 2001:db8::1/64 dev veth
	EOT
    ip -n "$there" -batch - <<-EOT
	link set veth address 02:00:00:00:00:02 up
	address add 192.0.2.2/24 dev veth
	address add 2001:db8::2/64 dev veth
	EOT
}

# search PATH: what the agent searches for commands
search() { agent=(ip netns exec "$here" env "PATH=$1" "$QOR_BIN/qorfip"); }

# tool NAME: makes standard input a shell script, in front of what the agent searches
tool() {
    mkdir -p tools
    { echo '#!/bin/sh'; cat; } >"tools/$1"
    chmod +x "tools/$1"
    search "$PWD/tools:$PATH"
}

# layout newer|older: the layout in which ifconfig prints. With the older one addresses are changed by command.
layout() {
    search "$PATH"
    # shellcheck disable=SC2016 # the script's own "$@"
    [ "$1" = newer ] || tool ifconfig <<<'exec busybox ifconfig "$@"'
}

# ping_tool: puts standard input in the ping tool's place; its runs leave a line each in the file pings
ping_tool() {
    { echo 'echo "$@" >>pings'; cat; } | tool ping
    ln -sf "$PWD/tools/ping" "$QOR_HOME/bin/qorping"
    search "$PATH"
    rm -f pings
}

# cluster RESOURCE...: the cluster configuration; a RESOURCE is "NAME ADDRESS [PARAMETERS, as XML]". Parameters
# that all share are in $shared.
cluster() {
    local resource name address parameters
    {
        echo '<root><resource>'
        for resource; do
            read -r name address parameters <<<"$resource"
            echo "<fip name='$name'><parameters><ip>$address</ip>$parameters</parameters></fip>"
        done
        echo "<fip><parameters>${shared-}</parameters></fip></resource></root>"
    } >"$QOR_HOME/etc/cluster.xml"
}

# fail TEXT...: fails the test, with what helps to find out why
fail() {
    printf '%s\n' "$@" "--- output: $output" "--- states:"
    states
    cat "$trace" 2>/dev/null
    return 1
}

# fip CODE ARGUMENT...: one run on "here", with a trace of its own, that ends with CODE
fip() {
    local code=$1
    shift
    [[ -L $trace || ! -f $trace ]] || rm "$trace"
    status=0
    # A file, for a pipe would be waited for when something that the run started survives it.
    timeout 60 "${agent[@]}" "$@" >output 2>&1 3>&- || status=$?
    output=$(<output)
    [ "$status" -eq "$code" ] || fail "qorfip $*: exit $status, not $code"
    [ -z "$output" ] || fail "qorfip $*: prints something"
}

# activate CODE [RESOURCE]  deactivate CODE [RESOURCE]
activate() { fip "$1" --active -r "${2:-fip1}" -g g1; }
deactivate() { fip "$1" --deactive -r "${2:-fip1}" -g g1; }

# filed STATES: these are the resource states, one per line, GROUP|TYPE|RESOURCE|DEVICE|MESSAGE
filed() { [ "$(states)" = "$1" ] || fail "filed is not: $1"; }
states() { "$QOR_BIN/qorstat" --plain | tr '\t' '|'; }

# traced LEVEL TEXT: the last run's trace has the line; after a resource's name, or before it is known
traced() { is_traced "$@" || fail "not traced: $*"; }
not_traced() { ! is_traced "$@" || fail "traced: $*"; }
is_traced() {
    LEVEL=$1 TEXT=$2 awk '
        { line = $0; sub(/^[^|]*[|] /, "", line) }
        $4 == ENVIRON["LEVEL"] && (line == ENVIRON["TEXT"] || substr(line, 11) == ENVIRON["TEXT"]) { found = 1 }
        END { exit !found }' "$trace"
}

# carries ADDRESSES: these are the addresses of "here", beside the two of its own
carries() { [ "$(addresses)" = "$1" ] || fail "not: $1" "but: $(addresses)"; }
addresses() {
    ip -n "$here" -o address show scope global | sed -e 's/^[0-9]*: //' -e 's/\\.*//' -e 's/  */ /g' -e 's/ $//' |
        grep -vxF -e 'veth inet 192.0.2.1/24 scope global veth' -e 'veth inet6 2001:db8::1/64 scope global' || true
}

# Waits for a condition for at most 10 s.
eventually() {
    local i
    for ((i = 0; i < 500; ++i)); do
        ! "$@" || return 0
        sleep 0.02
    done
    fail "never: $*"
}

# sniff FILTER: records what reaches "there", until heard shows it
sniff() {
    ip netns exec "$there" tcpdump -i veth --immediate-mode -U -w heard.pcap "$1" 2>tcpdump.err 3>&- &
    eventually grep -q listening tcpdump.err
}

# One frame per line, in hexadecimal. The question for an address that nobody has marks the end of what was sent.
heard() {
    ip netns exec "$here" bash -c 'echo >/dev/udp/192.0.2.99/9'
    eventually is_marked
    frames | grep -v "$marker"
}
marker='^f*02000000000108060001.*c0000263$'
is_marked() { frames | grep -q "$marker"; }
frames() {
    tcpdump -r heard.pcap -xx -t -n 2>/dev/null | awk '
        /^\t0x/ { $1 = ""; gsub(/ /, ""); frame = frame $0; next }
        { if (frame) print frame; frame = "" }
        END { if (frame) print frame }'
}
