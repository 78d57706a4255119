# Shared by the tests of qorfip: a node ("here", on which the agent runs) and another host ("there"), each in
# a network namespace of its own, joined by veth; and a suite home made from the tree's etc/.
#   here   veth 192.0.2.1/24, 2001:db8::1/64, 02:00:00:00:00:01     bare: an interface without address
#   there  veth 192.0.2.2/24, 2001:db8::2/64, 02:00:00:00:00:02
# shellcheck shell=bash

bats_require_minimum_version 1.5.0

export alias0='veth inet 192.0.2.10/24 brd 192.0.2.255 scope global secondary veth:0'

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
    for namespace in $(ip netns list | grep -oE "^($here|$there)\>"); do
        ip netns pids "$namespace" | xargs -r kill -9
        ip netns delete "$namespace"
    done
}

# The home as installed, but with every trace level, without what costs seconds, and with the practice of old:
# a test that wants today's asks for it.
make_home() {
    : "${QOR_SOURCE:?the source tree}" "${QOR_BIN:?the programs}"
    mkdir "$QOR_HOME" "$QOR_HOME/bin"
    cp -r "$QOR_SOURCE/etc" "$QOR_HOME/etc"
    mkdir -p "$QOR_HOME/etc/check"
    chmod -R go-w "$QOR_HOME"
    ln -s "$QOR_BIN"/qor* "$QOR_HOME/bin/"
    sed -i "s|/opt/qor|$QOR_HOME|" "$QOR_HOME/etc/policy/all.xml"
    sed -i -E 's|(<level>).*<|\18<|; /<ping>|<check>/,/<.ping>/ s/(<(timeout|interval|execute)>).*</\10</' \
        "$QOR_HOME/etc/policy/fip.xml"
    practice 0 1 0
}

# practice RETRY DAD GUARD: nd/retry, nd/dad and guard/interface of all resources
practice() {
    sed -i -E "/<nd>/,/<.nd>/ { s/(<retry>).*</\\1$1</; s/(<dad>).*</\\1$2</ }
        /<guard>/,/<.guard>/ s/(<interface>).*</\\1$3</" "$QOR_HOME/etc/policy/fip.xml"
}

make_network() {
    local namespace host=1
    for namespace in "$here" "$there"; do
        ip netns add "$namespace"
        # No link-local addresses, and no waiting for duplicate-address detection.
        ip netns exec "$namespace" sh -c 'cd /proc/sys/net/ipv6/conf/default && echo 1 >addr_gen_mode &&
            echo 0 | tee accept_dad ../all/accept_dad >/dev/null'
    done
    ip -n "$here" link add veth type veth peer name veth netns "$there"
    ip -n "$here" link add bare up type bridge
    for namespace in "$here" "$there"; do
        ip -n "$namespace" link set veth address "02:00:00:00:00:0$host" up
        ip -n "$namespace" address add "192.0.2.$host/24" dev veth
        ip -n "$namespace" address add "2001:db8::$((host++))/64" dev veth
    done
}

node() { ip -n "$here" address "$@"; }
peer() { ip -n "$there" address "$@"; }
runs() { [[ $(ip -n "$here" link show "$1") == *[,\<]UP[,\>]* ]] || fail "$1 went down"; }

# setting NAME VALUE: a setting of the node's IPv6 on veth; turned_down ADDRESS: its duplicate address detection failed
setting() { ip netns exec "$here" sh -c "echo $2 >/proc/sys/net/ipv6/conf/veth/$1"; }
turned_down() { [[ $(node show dadfailed) == *" $1/"* ]]; }

# search PATH: what the agent searches for commands
search() { agent=(ip netns exec "$here" env "PATH=$1" "$QOR_BIN/qorfip"); }

# tool NAME: makes standard input a shell script, in front of what the agent searches
tool() {
    mkdir -p tools
    { echo '#!/bin/sh'; cat; } | install -m 755 /dev/stdin "tools/$1"
    search "$PWD/tools:$PATH"
}

# ip_tool PATTERN COMMAND...: an ip that does this first when its arguments match
ip_tool() { tool ip <<<"case \$* in $1) ${*:2} ;; esac; exec $(command -v ip) \"\$@\""; }

# layout newer|older: how ifconfig prints. With the older layout addresses are changed by command.
layout() {
    search "$PATH"
    [ "$1" = newer ] || tool ifconfig <<<"exec busybox ifconfig \"\$@\""
}

# own_ifconfig: standard input becomes what the following clusters name as their ifconfig
own_ifconfig() { tool own && shared="<ifconfig><path>$PWD/tools/own</path></ifconfig>"; }

# ping_tool: puts standard input in the ping tool's place; its runs leave a line each in the file pings
ping_tool() {
    { echo '#!/bin/sh'; echo 'echo "$@" >>pings'; cat; } | install -m 755 /dev/stdin "$QOR_HOME/bin/qorping"
    rm -f pings
}

# cluster "NAME ADDRESS [PARAMETERS]"...: the cluster configuration. Parameters that all share are in $shared.
cluster() {
    local name address parameters
    {
        echo '<root><resource>'
        while read -r name address parameters; do
            echo "<fip name='$name'><parameters><ip>$address</ip>$parameters</parameters></fip>"
        done < <(printf '%s\n' "$@")
        echo "<fip><parameters>${shared-}</parameters></fip></resource></root>"
    } >"$QOR_HOME/etc/cluster.xml"
}

# fail TEXT...: fails the test, with what helps to find out why
fail() {
    printf '%s\n' "$@" "--- output: $output" "--- states:" "$(states)" "$(cat "$trace" 2>/dev/null)"
    return 1
}

# row NAME...: the next row of the table on standard input, into these variables. Columns are divided by "|", with
# blanks around them as they like; lines that begin with "#" are for the reader: the heading, which must agree with
# the names, and a word above each group of rows.
row() {
    local _row _name
    while read -r _row; do
        if [[ $_row == '#'* ]]; then
            [[ $_row != *'|'* || $(xargs <<<"${_row//[#|]/ }") == "$*" ]] || exit 1
        else
            IFS='|' read -r "$@" <<<"$_row"
            for _name; do read -r "${_name?}" <<<"${!_name}"; done
            return 0
        fi
    done
    return 1
}

# fip CODE ARGUMENT...: one run on "here", with a trace of its own, that ends with CODE. It prints to a file,
# for a pipe would be waited for when something that the run started survives it.
fip() {
    [[ -L $trace || ! -f $trace ]] || rm "$trace"
    status=0
    timeout 60 "${agent[@]}" "${@:2}" >output 2>&1 3>&- || status=$?
    output=$(<output)
    [ "$status" -eq "$1" ] || fail "qorfip ${*:2}: exit $status, not $1"
    [ -z "$output" ] || fail "qorfip ${*:2}: prints something"
}

# activate|deactivate CODE [RESOURCE]
activate() { fip "$1" --active -r "${2:-fip1}" -g g1; }
deactivate() { fip "$1" --deactive -r "${2:-fip1}" -g g1; }

# goes "ADDRESS [PARAMETERS]" CODE "DEVICE|MESSAGE" [ADDED]: up, which puts ADDED on the node, and down again
goes() {
    local before
    before=$(addresses)
    rm -rf "$QOR_HOME/run"
    cluster "fip1 $1"
    activate "$2"
    filed "g1|fip|fip1|$3"
    carries "${4:+${before:+$before$'\n'}}${4:-$before}"
    [ "$2" -ne 0 ] || deactivate 0
    filed "g1|fip|fip1|$3"
    carries "$before"
}

# filed STATES: these are the resource states, one per line, GROUP|TYPE|RESOURCE|DEVICE|MESSAGE
filed() { [ "$(states)" = "$1" ] || fail "filed is not: $1"; }
states() { "$QOR_BIN/qorstat" --plain | tr '\t' '|'; }

# traced LEVEL TEXT: the last run's trace has the line; after a resource's name, or before it is known
traced() { is_traced "$@" || fail "not traced: $*"; }
is_traced() {
    LC_ALL=C sed -E 's/^([^ ]+ ){3}([0-9]+) [^|]*[|] (.{8}: )?/\2 /' "$trace" | grep -qxF "$1 $2"
}

# hears FILTER COMMAND...: what the other host gets on $link while the command runs is in the file heard. The
# question for an address that nobody has marks the end.
hears() {
    rm -f listening
    ip netns exec "$there" tcpdump -i "${link-veth}" --immediate-mode -lntvve "$1" >heard 2>listening 3>&- &
    eventually grep -qs listening listening
    "${@:2}"
    ip netns exec "$here" bash -c 'echo >/dev/udp/192.0.2.99/9'
    eventually grep -q 'who-has 192.0.2.99' heard
    kill "$!"
}

# agrees CODE: "here" has the address fip1 exactly if a run that ended with CODE says so
agrees() { carries "$([ "$1" -ne 0 ] || echo "$alias0")"; }

# carries ADDRESSES: these are the addresses of "here", beside the two of its own
carries() { [ "$(addresses)" = "$1" ] || fail "not: $1" "but: $(addresses)"; }
addresses() {
    ip -n "$here" -o address show scope global |
        sed -E -e 's/^[0-9]+: //; s/\\.*//; s/ +/ /g; s/ $//; / (192.0.2.1|2001:db8::1)\//d'
}

# Waits for a condition, for at most 10 s.
eventually() {
    for _ in {1..500}; do
        ! "$@" || return 0
        sleep 0.02
    done
    fail "never: $*"
}
