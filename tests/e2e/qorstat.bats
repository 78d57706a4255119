# qorstat as its operator sees it, on a suite home of each test's own.

bats_require_minimum_version 1.5.0

setup() {
    export QOR_HOME="$BATS_TEST_TMPDIR"
    QORSTAT="$QOR_BIN/qorstat"
    run -0 "$QORSTAT" # creates the tables
    [ "$output" = $'GROUP  TYPE  RESOURCE  DEVICE  LAST MESSAGE\n\nnpsimu: off' ]
}

# resources [TYPE NAME GROUP DEVICE MESSAGE]...: files entries, as layout 1 of the table has them
resources() {
    perl -e 'print pack("L(a32 a32 x4 a32 a32 a128 x192)*", @ARGV / 5, @ARGV)' -- "$@" |
        dd of="$QOR_HOME/run/resource.shm" bs=16 seek=1 conv=notrunc status=none
}

@test "shows resources aligned or plain, and escapes what could command the terminal" {
    run -0 "$QORSTAT" --npsimu on
    [ -z "$output" ]
    resources fip web1 failover1 eth0:1 'Success.' \
        fip änderung_5678 '' '' 'No answer.' fip $'a\tb' g $'d\n' $'\x1b[2J\x9bx\x7f'
    run -0 "$QORSTAT"
    [ "$output" = 'GROUP      TYPE  RESOURCE       DEVICE  LAST MESSAGE
failover1  fip   web1           eth0:1  Success.
           fip   änderung_5678          No answer.
g          fip   a\x09b         d\n     \x1b[2J\x9bx\x7f

npsimu: on' ]
    run -0 "$QORSTAT" --plain
    [ "$output" = $'failover1\tfip\tweb1\teth0:1\tSuccess.\n\tfip\tänderung_5678\t\tNo answer.\ng\tfip\ta\\x09b\td\\n\t\\x1b[2J\\x9bx\\x7f' ]
}

@test "prints JSON, whatever bytes the states hold" {
    resources fip $'a"\\' $'\x1b\t\x7f\xc2\x9b' 'ü€𝄞' $'\xe0\x80\xaf|\xed\xbf\xbf|\xf4\x90\x80\x80|\xe2\x82|\xff|\xc3'
    run -0 --separate-stderr "$QORSTAT" --json
    iconv -f utf-8 -t utf-8 <<<"$output" >/dev/null
    [[ "$output" == *'"group":"\u001b\u0009\u007f\u009b"'* ]]
    output=$(jq -ac '.resources[0], .flags' <<<"$output")
    [ "$output" = '{"group":"\u001b\t\u007f\u009b","type":"fip","resource":"a\"\\","device":"\u00fc\u20ac\ud834\udd1e","message":"\ufffd\ufffd\ufffd|\ufffd\ufffd\ufffd|\ufffd\ufffd\ufffd\ufffd|\ufffd\ufffd|\ufffd|\ufffd"}
{"npsimu":false}' ]
    run -5 --separate-stderr "$QORSTAT" --json -r $'a"\\'
    [ "$(jq -r '.status + .device' <<<"$output")" = unknownü€𝄞 ]
}

@test "refuses unknown arguments with 2 and the usage" {
    for arguments in --bad web1 --npsimu "--npsimu yes" "--npsimu on --plain" "--plain x" "--help x" \
        -r "-r -g" "-r -g g1" "-g g1" "-r a/b" "-r $(printf %032d 0)" "--plain --json"; do
        # shellcheck disable=SC2086 # words
        run -2 "$QORSTAT" $arguments
        [[ "$output" == Usage:* ]]
    done
    run -0 "$QORSTAT" --help
    [[ "$output" == *"--npsimu on|off"* ]]
    run -0 "$QORSTAT" --version
    [[ "$output" =~ ^qorstat\ [0-9]+\.[0-9]+\.[0-9]+$ ]]
}

@test "exits with 1 when the state cannot be read or shown" {
    run -1 setpriv --reuid 65534 --clear-groups "$QORSTAT"
    [[ "$output" == *root* ]]
    run -1 sh -c '"$0" >/dev/full' "$QORSTAT"
    [[ "$output" == *"cannot write"* ]]
    printf 'something else' >"$QOR_HOME/run/node.shm"
    run -1 "$QORSTAT"
    [[ "$output" == *"cannot read the node's flags"* ]]
    run -0 "$QORSTAT" --plain # does without them
    QOR_HOME=/nonexistent run -1 "$QORSTAT" --plain
    [[ "$output" == *"resource states"* ]]
}
