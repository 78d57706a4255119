# The command line of qorfip: exit code, what is filed for the resource manager, and the trace.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

wrong='Option was invalid.'

# expect CODE STATE LEVEL TRACE ARGUMENT...: STATE is all that the run files, on a home without states
expect() {
    rm -rf "$QOR_HOME/run"
    fip "$1" "${@:5}"
    filed "$2"
    traced "$3" "$4"
    traced 4 "return(ret=$1)"
    if [ "$1" -eq 0 ]; then
        carries "$alias0"
        deactivate 0
    fi
    carries ''
}

@test "a command line that is incomplete or unknown" {
    expect 4 "|fip|||$wrong" 1 'Invalid option. (argc=2)' --active
    expect 4 "|fip|||$wrong" 1 'Invalid option. (argc=3)' --active -r
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option.' --active -r fip1
    expect 4 "g1|fip|||$wrong" 1 'Invalid option.' --deactive -g g1
    expect 4 "|fip|||$wrong" 1 'Invalid option.' --active -a 192.0.2.10 -i veth
    for mode in --activ --activate active -r -- ''; do
        expect 4 "|fip|||$wrong" 1 'Invalid option.' "$mode" -r fip1 -g g1
    done
}

@test "an option without a value" {
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-g ?)' --active -r fip1 -g
    expect 4 "g1|fip|||$wrong" 1 'Invalid option. (-r ?)' --active -g g1 -r
    expect 4 "|fip|||$wrong" 1 'Invalid option. (-r ?)' --active -r -g g1
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-g ?)' --deactive -r fip1 -G -x
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-a ?)' --add -r fip1 -a
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-a ?)' --del -r fip1 -A -1
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-i ?)' --add -r fip1 -a 192.0.2.10 -i
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-i ?)' --add -r fip1 -I -a 192.0.2.10
}

@test "a value longer than its field is refused, one that fills it is taken whole" {
    local long=0123456789012345678901234567890
    expect 4 "|fip|||$wrong" 1 'Invalid option. (-r ?)' --active -r "${long}x" -g g1
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-g ?)' --active -r fip1 -g "${long}x"
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-i ?)' --add -r fip1 -i "${long}x" -a 192.0.2.10
    expect 4 "|fip|fip1||$wrong" 1 'Invalid option. (-a ?)' --add -r fip1 -a "192.0.2.10%veth:$(printf %066d 0)"
    expect 30 '|fip|fip1||Success.' 1 'Interface name is too long.' \
        --add -r fip1 -a "192.0.2.10%veth:$(printf %065d 0)"
    expect 9 "$long|fip|$long||Internal error. (status=9)" 4 "active   rsc:$long, grp:$long" \
        --active -r "$long" -g "$long"
}

@test "keywords in any case, a later option wins, and what is unknown is passed over" {
    expect 0 "$state0" 4 'active   rsc:fip1, grp:g1' --ACTIVE -R fip1 -G g1
    expect 0 "$state0" 4 'active   rsc:fip1, grp:g1' --Active -g g0 -r none -R fip1 -g g1
    expect 0 "$state0" 2 'Invalid option. (argv[i] : -x)' --active -r fip1 -g g1 -x
    expect 0 "$state0" 2 'Invalid option. (argv[i] : %s%n)' --active %s%n -r fip1 -g g1
    expect 0 "$state0" 4 'vdev : veth:0, addr : 192.0.2.10, mask : 255.255.255.0, bcast : 192.0.2.255' \
        --ADD -A 203.0.113.1 -a 192.0.2.10 -I bare -i veth -r fip1 -g g1
    expect 0 "$state0" 8 'trusted mode' --add -r fip1 -g g1 -i bare -a 192.0.2.10%veth:0
    activate 0
    fip 0 --DEACTIVE -r fip1 -g g1
    traced 4 'deactive rsc:fip1, grp:g1'
    activate 0
    fip 0 --Del -a 192.0.2.10
    carries ''
}

@test "an address mode without address has no message of its own; without names it files under empty ones" {
    expect 4 '|fip|||Success.' 2 'Invalid option. (argv[i] : -x)' --add -i veth -x
    expect 4 'g1|fip|fip1||Success.' 4 'return(ret=4)' --del -r fip1 -g g1
    expect 0 '|fip||veth:0|Success.' 4 'fip_send_arp() OK.' --add -a 192.0.2.10
}

@test "names are text, whatever they hold" {
    # shellcheck disable=SC2016 # the dollar is what matters
    for name in '%s%n' "x']/*" '$(touch made)' '../../etc' 'a@b'; do
        expect 9 "g;1|fip|$name||Internal error. (status=9)" 4 "active   rsc:$name, grp:g;1" \
            --active -r "$name" -g 'g;1'
    done
    [ ! -e made ]
}

@test "an address that is malformed" {
    while read -r code address message; do
        expect "$code" 'g1|fip|fip1||Success.' 1 "$message" --add -r fip1 -g g1 -a "$address"
        traced 1 "fip_div_ipmask failed. (ret=$code)"
        cluster "fip1 $address"
        expect "$code" 'g1|fip|fip1||Success.' 1 "$message" --active -r fip1 -g g1
    done <<-EOT
	29 192.0.2.10%veth/24 FIP address is invalid
	31 192.0.2.10/255.255.255.0 Mask is invalid.(mask=255.255.255.0)
	31 192.0.2.10/ Mask is not set.
	31 192.0.2.10/33 over max mask bit num.(mask bit=33)
	31 2001:db8::10/129 over max mask bit num.(mask bit=129)
	30 192.0.2.10%veth: IP alias is not set.
	30 192.0.2.10%veth:x IP alias is invalid.(alias=x)
	30 192.0.2.10/24%veth:10000 over max IP alias num.(alias=10000)
	30 192.0.2.10/33%a234567890123456 Interface name is too long.
	EOT
    for address in 192.0.2 host 192.0.2.256 '192.0.2.10;' 2001:db8::g; do
        for mode in --add --del; do
            expect 29 'g1|fip|fip1||Internal error. (status=29)' 1 'FIP address is invalid' \
                $mode -r fip1 -g g1 -a "$address/24"
        done
    done
}

@test "without arguments, or by another user than root: nothing is filed or changed" {
    mkdir -m 777 "$QOR_HOME/run" "$QOR_HOME/log"
    chmod go+rx "$QOR_HOME"
    fip 4
    for arguments in '--active -r fip1 -g g1' '--add -a 192.0.2.10' --bogus; do
        # shellcheck disable=SC2086 # several arguments
        run -5 ip netns exec "$here" setpriv --reuid 65534 --clear-groups "$QOR_BIN/qorfip" $arguments
        [ -z "$output" ]
    done
    rmdir "$QOR_HOME/run" "$QOR_HOME/log" # empty
    carries ''
}
