# The check mode and the dynamic update modes: what a configuration under check is told, and what is left alone.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

good='<comment>c</comment><parameters><ip>192.0.2.10/24</ip><ping><timeout>1</timeout></ping></parameters>'
passed='I [001] Success in a composition check.'

# judge CODE [BODY [LINE...]]: checks the resource r1, of this body, and gets exactly these lines. Without a
# BODY the configuration under check stays as it is.
judge() {
    [ "$#" -lt 2 ] || {
        mkdir -p "$QOR_HOME/etc/check"
        echo "<root>${servers-}<resource><fip name='r1'>$2</fip></resource></root>" >"$QOR_HOME/etc/check/cluster.xml"
    }
    rm -f "$QOR_HOME/log/check.log"
    fip "$1" --TEST r1
    [ "$#" -lt 3 ] || [ "$(cat "$QOR_HOME/log/check.log")" = "$(block r1 "${@:3}")" ] ||
        fail "$(cat "$QOR_HOME/log/check.log")" "--- is not:" "$(block r1 "${@:3}")"
}

block() { printf '%s\n' "*****START [type : fip][rscname : $1]" "${@:2}" "*****END [type : fip][rscname : $1]"; }

# body ADDRESS [PARAMETERS]: a resource whose other values are good
body() { echo "<comment>c</comment><parameters><ip>$1</ip>${2-}<ping><timeout>1</timeout></ping></parameters>"; }

@test "a comment: absent, too long, of the longest length" {
    judge 1 '<parameters><ip>x</ip></parameters>' 'E [097] Path of Comment does not exist.'
    judge 1 "<comment>$(printf %128s x | tr ' ' c)</comment>" 'E [098] Length of Comment is out of range.'
    judge 0 "${good/>c</>$(printf %127s x | tr ' ' c)<}" "$passed"
}

@test "an address, whole and in pieces" {
    local row
    for row in '10.0.0.1/%s%n|008] Subnet mask is invalid. (value=10.0.0.1/%s%n)' '|003] Parameter IP address is empty.' \
        '10.0.0.300|006] IP address is invalid. (value=10.0.0.300)' \
        '10.0.0.1/33|008] Subnet mask is invalid. (value=10.0.0.1/33)' \
        '10.0.0.1/-1|008] Subnet mask is invalid. (value=10.0.0.1/-1)' \
        '10.0.0.1%eth0/24|005] Format of FIP address is invalid. (value=10.0.0.1%eth0/24)' \
        '10.0.0.1/24%eth0:x|007] NIC alias is invalid. (value=10.0.0.1/24%eth0:x)' \
        'fe80::g/64|006] IP address is invalid. (value=fe80::g)'; do
        judge 1 "$(body "${row%%|*}")" "E [${row#*|}"
    done
    judge 0 "$(body 'fd00::5/64%eth0')" "$passed"
    judge 1 "$(body $'10.0.0.300\nI [001] forged')" 'E [006] IP address is invalid. (value=10.0.0.300?I [001] forged)'
}

@test "each server's own address after the common one, in the order of the servers" {
    servers='<server name="s2"/><server name="s1"/>'
    judge 1 "$good<server name='s1'><parameters><ip>1.2.3.4/99</ip></parameters></server>
        <server name='s2'><parameters><ip>x</ip></parameters></server>" \
        'E [006] IP address is invalid. (value=x)' 'E [008] Subnet mask is invalid. (value=1.2.3.4/99)'
    judge 0 "$good<server name='s1'><parameters><ip>192.0.2.11</ip></parameters></server>" "$passed"
}

@test "numbers against the policy's bounds, the bounds themselves allowed" {
    judge 1 "$(body 10.0.0.1 '<arp><retry>1000</retry></arp><ifconfig><timeout>0</timeout></ifconfig><monmii>2</monmii>
        <check><ping><execute>-1</execute></ping></check>')" \
        'E [004] Value of ARP Send Count is out of range. (value=1000)' \
        'E [004] Value of Ifconfig Timeout is out of range. (value=0)' \
        'E [004] Value of Confirm I/F Reception is out of range. (value=-1)' \
        'E [004] Value of Judge NIC Link Down as Abnormal is out of range. (value=2)'
    judge 0 "$(body 10.0.0.1 '<arp><retry>999</retry></arp><ifconfig><timeout>9999</timeout></ifconfig>')" "$passed"
}

@test "what cannot be read is an internal error, and what was found before stays" {
    judge 1 "$(body 10.0.0.1 '<arp><retry>1000</retry></arp><ifconfig><timeout>soon</timeout></ifconfig>')" \
        'E [004] Value of ARP Send Count is out of range. (value=1000)' 'E [099] Internal error occurred.'
    traced 1 'xmllib_get_value(/root/resource/fip@r1/parameters/ifconfig/timeout, 1) failed. (ret=9)'
    sed -i 's|<param6><type>1<|<param6><type>4<|' "$QOR_HOME/etc/policy/fip.xml"
    judge 0 "$(body 10.0.0.1 '<arp><retry>1000</retry></arp>')" "$passed"
    traced 1 'Value of type tag /root/resource/fip/param6/type is invalid. (value=4)'
    sed -i 's|<minimum>0</minimum>||' "$QOR_HOME/etc/policy/fip.xml"
    judge 1 "$good" 'E [099] Internal error occurred.'
}

@test "a configuration under check that is absent, malformed, or writable by others" {
    rm -rf "$QOR_HOME/etc/check"
    judge 1
    [ "$(cat "$QOR_HOME/log/check.log")" = "$(block r1 'E [099] Internal error occurred.')" ]
    judge 1 '<comment>' 'E [099] Internal error occurred.'
    judge 0 "$good" "$passed"
    chmod o+w "$QOR_HOME/etc/check/cluster.xml"
    judge 1
    traced 1 'xmllib_load_pathconfig() failed. (ret=7)'
}

@test "arguments: none, too many, and names that are no good" {
    for arguments in '' 'r1 extra'; do
        rm -f "$QOR_HOME/log/check.log"
        # shellcheck disable=SC2086 # words
        fip 1 --test $arguments
        [ "$(cat "$QOR_HOME/log/check.log")" = "$(block '' 'E [002] Invalid argument.')" ]
    done
    judge 0 "$good"
    for name in "'" '"]/..' '%s%s%n' '../../x' $'\xff\xfe' ''; do
        rm -f "$QOR_HOME/log/check.log"
        fip 1 --test "$name"
        [ "$(sed -n 2p "$QOR_HOME/log/check.log")" = 'E [097] Path of Comment does not exist.' ] || fail "$name"
    done
}

@test "a check log that cannot be written: the whole block goes to the trace log" {
    judge 0 "$good"
    mknod "$QOR_HOME/full" c 1 7
    ln -s check.log "$QOR_HOME/log/link"
    for target in full log log/link; do
        sed -i "s|<rdrctpath>.*<|<rdrctpath>$target<|" "$QOR_HOME/etc/policy/cluster.xml"
        fip 1 --test r1
        traced 4 '*****START [type : fip][rscname : r1]'
        traced 4 "$passed"
        traced 4 '*****END [type : fip][rscname : r1]'
    done
}

@test "the check leaves network, states and lock alone" {
    ifconfig_free() { flock -n "$QOR_HOME/run/ifconfig.lock" true; }
    activate 0
    before=$(find "$QOR_HOME/run" -type f -exec sha256sum {} + && addresses)
    judge 0 "$good" "$passed"
    [ "$(find "$QOR_HOME/run" -type f -exec sha256sum {} + && addresses)" = "$before" ]
    rm -rf "$QOR_HOME/run"
    judge 0 "$good" "$passed"
    [ ! -e "$QOR_HOME/run" ]
    deactivate 0
}

@test "two checks at once append whole lines to one file" {
    judge 0 "$good"
    rm "$QOR_HOME/log/check.log"
    for _ in $(seq 20); do "${agent[@]}" --test r1 & done
    wait
    [ "$(sort -u "$QOR_HOME/log/check.log")" = "$(block r1 "$passed" | sort)" ]
    [ "$(wc -l <"$QOR_HOME/log/check.log")" -eq 60 ]
}

@test "the dynamic update modes read the configuration under check" {
    mkdir -p "$QOR_HOME/etc/check"
    sed 's|192.0.2.10|192.0.2.77|' "$QOR_HOME/etc/cluster.xml" >"$QOR_HOME/etc/check/cluster.xml"
    fip 0 --dactive -r fip1 -g g1
    traced 4 'Run with dynamic update mode.'
    carries "${alias0/.10/.77}"
    activate 0
    carries "${alias0/.10/.77}"$'\n'"${alias0/veth:0/veth:1}"
    fip 0 --ddeactive -r fip1 -g g1
    carries "${alias0/veth:0/veth:1}"
    rm "$QOR_HOME/etc/check/cluster.xml"
    fip 7 --dactive -r fip1 -g g1
    traced 1 'fip_load_chkconf() failed. (ret=7)'
    deactivate 0
}

@test "one resource of ten thousand, in a file of 50 MB" {
    judge 0 "$good"
    awk -v good="$good" 'BEGIN { pad = sprintf("%4800s", ""); print "<root><resource>"
        for (i = 0; i < 10000; ++i) printf "<fip name=\"f%d\">%s<x>%s</x></fip>", i, good, pad
        print "<fip name=\"r1\">" good "</fip></resource></root>" }' >"$QOR_HOME/etc/check/cluster.xml"
    judge 0
    [ "$(sed -n 2p "$QOR_HOME/log/check.log")" = "$passed" ]
}
