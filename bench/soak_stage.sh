# What the fault campaigns (soak.sh, points.sh) play on: the suite home, the tools that misbehave, the two network
# namespaces, and the faults that come from outside the agent.
#
# shellcheck shell=bash disable=SC2034,SC2154 # the files share their variables

disk=512 # KiB under the log
hang=15  # seconds that a tool hangs: longer than every limit that the agent sets
own='192.0.2.1 198.51.100.1 2001:db8::1'

# NAME ADDRESS OPTIONS; i: changed by the ifconfig command where its layout is the older one; p: ping first;
# q: ping after the removal; m: look at the link; s: source of the routes.
resources=${resources:-'fip1 192.0.2.101/24 p            fip2 192.0.2.102/24 iq             fip3 192.0.2.103/24 m
    fip4 192.0.2.104 i                      fip5 192.0.2.105/24%veth -         fip6 192.0.2.106/24%veth m
    fip7 192.0.2.107/24%veth:107 p          fip8 192.0.2.108/24%veth:108 -     fip9 203.0.113.9/24%veth:109 i
    fip10 203.0.113.10/24%veth:110 i        fip11 192.0.2.111/24 ipm           fip12 192.0.2.112/24 iq
    fip13 192.0.2.113/24%veth:113 im        fip14 2001:db8::14/64 ip           fip15 2001:db8::15/64%veth iq
    fip16 2001:db8::16 m                    fip17 2001:db8::17/64%veth:7 -     fip18 192.0.2.118/25 i
    fip19 198.51.100.19/24 ips              fip20 198.51.100.20/24%side:120 s  probe 192.0.2.250/24 -'}
declare -A argument address options known
names=()
while read -r name text letters; do
    [ "$name" = probe ] || names+=("$name")
    argument[$name]=$text address[$name]=${text%%[/%]*} options[$name]=$letters
    known[${text%%[/%]*}]=$name
done < <(xargs -n 3 <<<"$resources")

make_home() {
    make_configuration
    mount -t tmpfs -o "size=${disk}k,mode=755" soak "$home/log"
    ln -s "$tools/tool" "$home/bin/qorping"
}
make_configuration() {
    local name letter
    declare -A parameters=(
        [i]='<ifconfig><use>0</use></ifconfig>' [p]='<ping><timeout>1</timeout></ping>' [m]='<monmii>1</monmii>'
        [q]='<check><ping><execute>1</execute></ping></check>' [s]='<srcip><use>1</use></srcip>' [-]='')
    mkdir -p "$home/bin" "$home/log" "$tools"
    chmod 755 "$work"
    cp -r etc "$home/etc"
    chmod -R go-w "$home"
    sed -i "s|/opt/qor|$home|" "$home/etc/policy/all.xml"
    sed -i -e 's|<level>.*<|<level>8<|; s|<size>.*<|<size>150000<|' \
        -e '/<ifconfig>/,/<\/ifconfig>/ { s|<timeout>.*<|<timeout>1<|; s|<use>.*<|<use>1<| }' \
        -e '/<ping>/,/<\/ping>/ { s|<timeout>.*<|<timeout>0<|; s|<execute>.*<|<execute>0<| }' \
        -e '/<check>/,/<\/check>/ { s|<retry>.*<|<retry>1<|; s|<interval>.*<|<interval>0<| }' \
        -e '/<check>/,/<\/check>/ s|<error>.*<|<error>1<|' "$home/etc/policy/fip.xml"
    {
        echo '<root><resource>'
        for name in "${!argument[@]}"; do
            echo "<fip name='$name'><comment>soak</comment><parameters><ip>${argument[$name]}</ip>"
            while read -rn 1 letter; do echo "${parameters[${letter:--}]}"; done <<<"${options[$name]}"
            echo '</parameters></fip>'
        done
        echo '</resource></root>'
    } >"$home/etc/cluster.xml"
}

# The tools stand in front of the real ones. $SOAK_FAULTS, "TOOL:CALL:KIND ...", says which call of the run
# misbehaves. One that hangs has not worked and never will; a late one has worked; a lying one says that it has.
make_tools() {
    cat >"$tools/tool" <<-EOT
	#!/bin/sh
	tool=\${0##*/}
	case \$tool in
	ifconfig) real=$(command -v ifconfig); [ "\$SOAK_LAYOUT" = newer ] || real="$(command -v busybox) ifconfig" ;;
	arp) real=$(command -v arp) ;;
	ip) real=$(command -v ip) ;;
	qorping) real=$bin/qorping ;;
	esac
	case " \$SOAK_FAULTS" in *" \$tool:"*) ;; *) exec \$real "\$@" ;; esac
	echo >>"$round_dir/calls.\$SOAK_RUN.\$tool"
	call=\$(wc -l <"$round_dir/calls.\$SOAK_RUN.\$tool")
	for fault in \$SOAK_FAULTS ::; do
	    kind=\${fault##*:}
	    [ "\${fault%:*}" != "\$tool:\$call" ] || break
	done
	case \$kind:\$tool:"\$*" in
	:* | lie:ifconfig:-a | lie:ifconfig:*netmask* | lie:ifconfig:*add*) exec \$real "\$@" ;;
	esac
	echo "\$SOAK_RUN \$tool \$kind" >>"$round_dir/faults"
	ulimit -c 0
	case \$kind in
	fail) exit 7 ;;
	die) kill -SEGV \$\$ ;;
	hang) trap '' TERM; sleep $hang; exit 1 ;;
	late) \$real "\$@"; sleep $hang; exit 1 ;;
	lie) exit 0 ;;
	rubbish)
	    head -c 6000 /dev/urandom | tr -d '\\n'
	    printf '\\n<!DOCTYPE error>\\n\\0 inet\\ninet addr:\\n  HWaddr\\n%%s%%n\\n'
	    [ "\$*" = -a ] || [ \$tool = arp ] || exit 77 ;;
	esac
	EOT
    chmod +x "$tools/tool"
    for name in ifconfig arp ip; do ln -s tool "$tools/$name"; done
}

make_network() {
    local namespace
    for namespace in "$here" "$peer"; do
        ip netns add "$namespace"
        # No link-local addresses, no waiting for duplicate-address detection; and what distributions set: an
        # address that goes does not take the others of its subnet along.
        ip netns exec "$namespace" sh -c 'cd /proc/sys/net && echo 1 >ipv6/conf/default/addr_gen_mode &&
            echo 0 | tee ipv6/conf/default/accept_dad ipv6/conf/all/accept_dad >/dev/null &&
            echo 1 >ipv4/conf/all/promote_secondaries'
    done
    ip -n "$here" -batch - <<-EOT
	link add veth type veth peer name veth netns $peer
	link add side type veth peer name side netns $peer
	link set veth up
	link set side up
	$(own_network)
	route add default via 198.51.100.2 dev side
	EOT
    ip -n "$peer" -batch - <<-EOT
	link set veth up
	link set side up
	address add 192.0.2.2/24 dev veth
	address add 2001:db8::2/64 dev veth
	address add 198.51.100.2/24 dev side
	EOT
}

own_network() {
    printf 'address add %s\n' '192.0.2.1/24 dev veth' '2001:db8::1/64 dev veth' '198.51.100.1/24 dev side'
}

# The node's addresses and routes, in an order of their own.
network() {
    ip -n "$here" -json address show | jq -S 'map(.addr_info |= sort_by(.local)) | sort_by(.ifname)'
    { ip -n "$here" -json route show table all && ip -n "$here" -6 -json route show table all; } |
        jq -S -s 'add | sort_by(.dev, .dst, .table, .type)'
}

doze() { sleep "$(printf '%d.%03d' $(($1 / 1000)) $(($1 % 1000)))"; } # MILLISECONDS

# haunt FAULT: repeats it at random instants, until the round is over
haunt() {
    local start=$RANDOM # drawn here: the background shell's own would not follow the seed
    until_stop "$start" "$1" &
    helpers+=($!)
}
until_stop() {
    RANDOM=$1
    while [ ! -e "$work/stop" ]; do
        "$2" || true
        doze $((RANDOM % 400))
    done
}
happened() { echo "$*" >>"$round_dir/weather"; }

full_disk() {
    head -c ${disk}K /dev/zero >"$home/log/filler" || happened disk full
    doze $((RANDOM % 300))
    rm "$home/log/filler"
}
lost_run() {
    if ((RANDOM % 2)); then
        rm -rf "$home/run" && happened run/ removed
        return
    fi
    mv "$home/run" "$work/away" || return 0
    doze $((RANDOM % 200))
    rm -rf "$home/run"
    mv -T "$work/away" "$home/run" && happened run/ moved away and back
    rm -rf "$work/away"
}
answering_peer() {
    local name=${names[RANDOM % ${#names[@]}]} dev=veth bits=24
    case ${address[$name]} in *:*) bits=64 ;; 198*) dev=side ;; esac
    ip -n "$peer" address add "${address[$name]}/$bits" dev $dev && happened peer answers
    doze $((RANDOM % 1500))
    ip -n "$peer" address delete "${address[$name]}/$bits" dev $dev
}
lost_link() {
    ip -n "$peer" link set veth down && happened link down
    doze $((RANDOM % 200))
    ip -n "$peer" link set veth up
    ip -n "$peer" address replace 2001:db8::2/64 dev veth
    doze $((RANDOM % 500))
}
