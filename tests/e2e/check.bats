# The check mode and the dynamic update modes: what a draft configuration is told, and what is left alone.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

draft=home/etc/check/cluster.xml report=home/log/check.log
passed='I [001] Success in a composition check.'
internal='E [099] Internal error occurred.' fip=' [type : fip][rscname : '

# judge BODY LINE...: checks the resource r1, of this body if it is not empty; exactly these lines are written
judge() {
    [ -z "$1" ] || echo "<root>${servers-}<resource><fip name='r1'>$1</fip></resource></root>" >"$draft"
    rm -f "$report"
    fip "$([ "$2" = "$passed" ]; echo $?)" --TEST r1
    written r1 "${@:2}"
}
# refuses ADDRESS FINDING
refuses() { judge "$(body "$1")" "E $2 (value=$1)"; }
written() { [ "$(<"$report")" = "$(block "$@")" ] || fail "$(<"$report")" '--- is not:' "$(block "$@")"; }
block() { printf '%s\n' "*****START$fip$1]" "${@:2}" "*****END$fip$1]"; }

# body ADDRESS [PARAMETERS]: a resource whose other values are good
body() { echo "<comment>c</comment><parameters><ip>$1</ip>$2<ping><timeout>1</timeout></ping></parameters>"; }

good=$(body 192.0.2.10/24)
arp1000='<arp><retry>1000</retry></arp>'
range='is out of range. (value'
arp_finding="E [004] Value of ARP Send Count $range=1000)"

later='<nd><retry>-1</retry><dad>3</dad><timeout>0</timeout></nd><guard><interface>2</interface></guard>'

@test "each value's finding, in the order of the values" {
    judge '<parameters><ip>x</ip></parameters>' 'E [097] Path of Comment does not exist.'
    judge "${good/>c</>$(printf %0128d 0)<}" 'E [098] Length of Comment is out of range.'
    judge "${good/>c</>$(printf %0127d 0)<}" "$passed"
    judge "$(body '')" 'E [003] Parameter IP address is empty.'
    judge "$(body $'10.0.0.300\nI [1] x')" 'E [006] IP address is invalid. (value=10.0.0.300\nI [1] x)'
    refuses '10.0.0.1/%s%n' '[008] Subnet mask is invalid.'
    refuses 10.0.0.1/33 '[008] Subnet mask is invalid.'
    refuses 10.0.0.1%eth0/24 '[005] Format of FIP address is invalid.'
    refuses 10.0.0.1/24%eth0:x '[007] NIC alias is invalid.'
    refuses fe80::g '[006] IP address is invalid.'
    judge "$(body 'fd00::5/64%eth0')" "$passed"
    judge "$(body 10.0.0.1 "$arp1000<check><ping><execute>-1</execute></ping></check>")" "$arp_finding" \
        "E [004] Value of Confirm I/F Reception $range=-1)"
    judge "$(body 10.0.0.1 '<monmii>2</monmii>')" "E [004] Value of Judge NIC Link Down as Abnormal $range=2)"
    judge "$(body ::1 '<arp><retry>999</retry></arp><ifconfig><timeout>9999</timeout></ifconfig>')" "$passed"
    judge "$(body ::1 "$later")" "E [004] Value of NA Send Count $range=-1)" "E [004] Value of DAD Mode $range=3)" \
        "E [004] Value of DAD Timeout $range=0)" "E [004] Value of Interface Guard $range=2)"
}

@test "the later parameters have no limits in a policy from before them, and may be unknown to it" {
    sed -i -e '/<param1[0-9]/d' -e '/<nd>/,/<.guard>/d' home/etc/policy/fip.xml
    judge "$(body ::1 "$later")" "$passed"
    judge "$good" "$passed"
    # Each server's own address comes after the common one, in the order of the servers.
    servers='<server name="s2"/><server name="s1"/>'
    judge "$good<server name='s1'><parameters><ip>1.2.3.4/99</ip></parameters></server>
        <server name='s2'><parameters><ip>x</ip></parameters></server>" \
        'E [006] IP address is invalid. (value=x)' 'E [008] Subnet mask is invalid. (value=1.2.3.4/99)'
}

@test "what cannot be read is an internal error, and what was found before stays" {
    judge '' "$internal"
    judge '<comment>' "$internal"
    judge "$(body 10.0.0.1 "$arp1000<ifconfig><timeout>soon</timeout></ifconfig>")" "$arp_finding" "$internal"
    sed -i 's|<param6><type>1<|<param6><type>4<|' home/etc/policy/fip.xml
    judge "$(body 10.0.0.1 "$arp1000")" "$passed"
    sed -i 's|<minimum>0</minimum>||' home/etc/policy/fip.xml
    judge "$good" "$internal"
    chmod o+w "$draft"
    judge '' "$internal"
}

@test "arguments, names and check logs that are no good" {
    judge "$good" "$passed"
    for extra in '' extra; do
        rm "$report"
        fip 1 --test ${extra:+r1 "$extra"}
        written '' 'E [002] Invalid argument.'
    done
    for name in "'" '"]..' '%s%s%n' $'\xff\xfe' '' '../x' 'r1/server@s1'; do
        rm "$report"
        fip 1 --test "$name"
        [[ $name == */* ]] && finding='E [002] Invalid argument.' || finding='E [097] Path of Comment does not exist.'
        sed -n 2p "$report" | grep -xF "$finding"
    done
    # A log that cannot be written: the whole block goes to the trace log.
    mknod home/full c 1 7
    ln -s check.log home/log/link
    mkfifo home/log/unread
    for target in full log log/link log/unread; do
        sed -i "s|<rdrctpath>.*<|<rdrctpath>$target<|" home/etc/policy/cluster.xml
        fip 1 --test r1
        while read -r line; do traced 4 "$line"; done < <(block r1 "$passed")
    done
}

@test "a line of the check log that the disk has no room for fails the check, and glues to no other" {
    judge "$good" "$passed"
    truncate -s 1M "$report"
    before=$(block r1 "$passed" | head -2)
    agent=(prlimit "--fsize=$((1048576 + ${#before} + 1 + 5))" "${agent[@]}")
    fip 1 --test r1
    traced 4 "*****END${fip}r1]"
    search "$PATH"
    fip 0 --test r1
    [ "$(tail -c +1048577 "$report")" = "$before"$'\n****\n'"$(block r1 "$passed")" ]
}

@test "the check leaves network and states alone, also where there are none" {
    activate 0
    cp -r home/run before
    judge "$good" "$passed"
    diff -r home/run before
    carries "$alias0"
    rm -r home/run
    judge "$good" "$passed"
    [ ! -e home/run ]
}

@test "the dynamic update modes read the configuration under check" {
    sed 's|192.0.2.10|192.0.2.77|' home/etc/cluster.xml >"$draft"
    fip 0 --dactive -r fip1 -g g1
    carries "${alias0/.10/.77}"
    activate 0
    fip 0 --ddeactive -r fip1 -g g1
    carries "${alias0/veth:0/veth:1}"
    rm "$draft"
    fip 7 --dactive -r fip1 -g g1
}
