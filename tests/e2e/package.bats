# The Debian package: what it holds, and that it works where it puts things.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

setup_file() {
    export root="$BATS_FILE_TMPDIR/root" deb="$BATS_FILE_TMPDIR/package.deb" ocf_deb="$BATS_FILE_TMPDIR/ocf.deb"
    umask 007 # must not show in the package
    cpack -G DEB --config "$QOR_BIN/../CPackConfig.cmake" -B "$BATS_FILE_TMPDIR"
    umask 022
    mv "$BATS_FILE_TMPDIR"/qorfip-resource-agent_*_all.deb "$ocf_deb"
    mv "$BATS_FILE_TMPDIR"/qorfip_*.deb "$deb"
    dpkg-deb -R "$deb" "$root"
}

setup() {
    here="qph$$" there="qpt$$"
    cd "$BATS_TEST_TMPDIR" || return
}

# installed COMMAND...: runs on "here" with the package's directories mounted in their places, for it only
installed() {
    ip netns exec "$here" unshare --mount env -u QOR_HOME bash -ec '
        for place in opt etc/opt var/opt; do mount --bind "$0/$place" "/$place"; done
        exec "$@"' "$root" "$@"
}

# completes EXPECTED WORD...: what is offered in the place of the last word
completes() {
    run -0 bash --norc -c '
        source "$0/usr/share/bash-completion/completions/$1"
        function=$(complete -p "$1") function=${function#*-F } function=${function% *}
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        $function
        echo "${COMPREPLY[*]}"' "$root" "${@:2}"
    [ "$output" = "$1" ] || fail "${*:2}: $1 is not what is offered"
}

@test "what the package holds and tells: one version everywhere, safe files, nothing for lintian" {
    run -0 lintian --allow-root --display-info --fail-on error,warning "$deb" "$ocf_deb"
    [[ $output != *unused-override* && $output != *mismatched-override* ]] || fail
    version=$("$QOR_BIN/qorstat" --version)
    [ "$(dpkg-deb -f "$deb" Version)" = "${version#qorstat }" ]
    [ "$(dpkg-parsechangelog -l "$QOR_SOURCE/package/changelog" -S Version)" = "${version#qorstat }" ]
    grep -qF "## [${version#qorstat }]" "$QOR_SOURCE/CHANGELOG.md"
    [ "$(dpkg-deb -f "$deb" Depends | grep -oE '(libc6|libgcc-s1|libstdc\+\+6|libxml2) \(' | wc -l)" -eq 4 ]
    # Root's files, which nobody else may write, and links that lead somewhere.
    run -1 grep -vE '^(lrwxrwxrwx|[-d]rwxr-xr-x|-rw-r--r--|drwxr-x---) root/root ' \
        <(dpkg-deb -c "$deb" && dpkg-deb -c "$ocf_deb")
    [ "$(dpkg-deb -c "$deb" | grep -cE '^drwxr-x--- .*/qor/(log|run)/$')" -eq 2 ]
    [ "$(find "$root" -type l -lname '/*' -printf "$root%l\n" | xargs ls -d | wc -l)" -eq 6 ]
    [ "$root/opt/qor/bin/qorping-icmp" -ef "$root/opt/qor/bin/qorping" ]
    # Every page of the documents, which link to each other.
    [ "$(cd "$root/usr/share/doc/qorfip/docs" && echo *)" = "$(cd "$QOR_SOURCE/docs" && echo *.md)" ]
    # dpkg guards every file of the configuration, and no other.
    run -0 find "$root/etc" -type f -printf '/etc/%P\n'
    [ "$(sort <<<"$output")" = "$(sort "$root/DEBIAN/conffiles")" ] || fail
    [ "${#lines[@]}" -eq 5 ]
}

@test "the resource agent's package needs the other one, and works with it" {
    make_network
    dpkg-deb -R "$ocf_deb" agent
    [[ $(dpkg-deb -f "$ocf_deb" Package Architecture Depends) == *qorfip-resource-agent*all*'qorfip (>='* ]]
    export OCF_RESKEY_resource=fip1 HA_RSCTMP=$PWD
    for action in validate-all start monitor stop; do
        installed agent/usr/lib/ocf/resource.d/qor/fip "$action"
    done
    run -7 installed agent/usr/lib/ocf/resource.d/qor/fip monitor
}

@test "it works as installed, is purged, and does not go over a home that was made by hand" {
    make_network
    installed /opt/qor/bin/qorfip --test fip1
    peer add 192.0.2.10/24 dev veth
    run -15 installed /opt/qor/bin/qorfip --active -r fip1 -g group1
    carries ''
    peer del 192.0.2.10/24 dev veth
    ip -n "$there" neighbour replace 192.0.2.10 lladdr 02:00:00:00:de:ad dev veth nud stale
    installed /opt/qor/bin/qorfip --active -r fip1 -g group1
    carries "$alias0"
    run -0 installed /opt/qor/bin/qorstat --plain
    [ "$output" = $'group1\tfip\tfip1\tveth:0\tSuccess.' ] || fail
    [[ $(ip -n "$there" neighbour show 192.0.2.10) == *02:00:00:00:00:01* ]]
    # What the unit does when a run has failed, and when one was killed.
    post=$(sed -z 's/\\\n//g; s/\$\$/$/g' "$root/lib/systemd/system/qorfip@.service" | sed -n "s/^ExecStopPost=.* -c '\(.*\)'/\1/p")
    export QOR_RESOURCE=fip1 QOR_GROUP=group1
    SERVICE_RESULT=exit-code installed sh -c "$post"
    carries "$alias0"
    SERVICE_RESULT=timeout installed sh -c "$post"
    carries ''
    installed "$root/DEBIAN/postrm" remove
    [ -s "$root/var/opt/qor/log/fip.log" ] && [ -s "$root/var/opt/qor/log/check.log" ]
    touch "$root/var/opt/qor/"{log/{fip.log.1,disk.log},run/disk} # the last two are another module's
    while row removed left; do
        rm -f "$root/var/opt/qor/${removed:-none}"
        installed "$root/DEBIAN/postrm" purge
        run -0 find "$root/var/opt" -mindepth 1 -printf '%f '
        [ "$(xargs -n 1 <<<"$output" | sort | xargs)" = "$left" ] || fail "is not what is left: $left"
    done <<-EOT
	# removed    | left
	             | disk disk.log ifconfig.lock log node.shm qor resource.shm run
	log/disk.log | disk qor run
	run/disk
	EOT
    [ -f "$root/etc/opt/qor/cluster.xml" ]
    installed "$root/DEBIAN/preinst" install
    for name in etc log run; do
        place=$(readlink "$root/opt/qor/$name")
        ln -sfn /srv/own "$root/opt/qor/$name"
        run -1 installed "$root/DEBIAN/preinst" install
        [ "$output" = "qorfip: /opt/qor/$name is a link to /srv/own: remove it, and make $place one instead" ] || fail
        rm "$root/opt/qor/$name"
        mkdir "$root/opt/qor/$name"
        run -1 installed "$root/DEBIAN/preinst" install
        [ "$output" = "qorfip: /opt/qor/$name was installed by hand: move it away first" ] || fail
        rmdir "$root/opt/qor/$name"
    done
}

@test "completion of the modes, options, resources, interfaces and flags" {
    export QOR_HOME="$PWD"
    mkdir -p etc/check
    cat >etc/cluster.xml <<-'EOT'
	<root><server name="server1"/><!-- <fip name="old"> --><resource><fip name="fip1"><ip name="x"/></fip>
	<fip
	  comment="a" name = 'web'/><fipx name="no"/><fip name="$(touch made)"/><fip/><other name="fip9"/></resource>
	EOT
    echo '<root><fip name="fip2"/></root>' >etc/check/cluster.xml
    completes '--active --deactive --dactive --ddeactive --add --del --test' qorfip ''
    completes '-r -g -i' qorfip --active ''
    completes '\$\(touch\ made\) fip1 web' qorfip --active -r ''
    completes 'fip1' qorfip --ACTIVE -g group1 -R f
    completes 'fip1 fip2' qorfip --dactive -r f
    completes '' qorfip --test fip1 ''
    completes 'lo' qorfip --add -i lo
    completes '--plain --json -r --npsimu --help --version' qorstat ''
    completes '-r -g' qorstat --json ''
    completes 'on off' qorstat --npsimu ''
    [ ! -e made ]
    QOR_HOME=. completes '' qorfip --active -r web # relative: not taken, as by the agent
    rm etc/cluster.xml
    mkfifo etc/cluster.xml
    completes '' qorfip --active -r ''
}
