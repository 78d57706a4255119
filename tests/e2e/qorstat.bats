#!/usr/bin/env bats
# qorstat as its operator sees it, on a suite home of each test's own.

setup() {
    export QOR_HOME="$BATS_TEST_TMPDIR"
    QORSTAT="$QOR_BIN/qorstat"
}

# field OFFSET TEXT: puts text into the table of resource states
field() {
    # shellcheck disable=SC2059 # escapes are meant
    printf "$2" | dd of="$QOR_HOME/run/resource.shm" bs=1 seek="$1" conv=notrunc status=none
}

# resource INDEX GROUP TYPE NAME DEVICE MESSAGE: files an entry, as layout 1 of the table has it
resource() {
    "$QORSTAT" >/dev/null # creates the table
    local at=$((20 + $1 * 452))
    field $at "$3"
    field $((at + 32)) "$4"
    field $((at + 68)) "$2"
    field $((at + 100)) "$5"
    field $((at + 132)) "$6"
    field 16 "\\x$(printf %x $(($1 + 1)))"
}

@test "shows the header and the flags of a node without resources" {
    run "$QORSTAT"
    [ "$status" -eq 0 ]
    [ "$output" = $'GROUP  TYPE  RESOURCE  DEVICE  LAST MESSAGE\n\nnpsimu: off' ]
    run "$QORSTAT" --plain
    [ "$status" -eq 0 ]
    [ -z "$output" ]
}

@test "shows resources in aligned columns, or plain with tabs" {
    resource 0 failover1 fip web1 eth0:1 'Success.'
    resource 1 "" fip a_longer_name "" 'No answer.'
    run "$QORSTAT"
    [ "$status" -eq 0 ]
    [ "$output" = 'GROUP      TYPE  RESOURCE       DEVICE  LAST MESSAGE
failover1  fip   web1           eth0:1  Success.
           fip   a_longer_name          No answer.

npsimu: off' ]
    run "$QORSTAT" --plain
    [ "$status" -eq 0 ]
    [ "$output" = $'failover1\tfip\tweb1\teth0:1\tSuccess.\n\tfip\ta_longer_name\t\tNo answer.' ]
}

@test "shows a question mark for what could command the terminal" {
    resource 0 g fip 'a\tb' 'd\n' '\x1b[2J\x9bx\x7f'
    run "$QORSTAT" --plain
    [ "$output" = $'g\tfip\ta?b\td?\t?[2J?x?' ]
}

@test "sets and clears the npsimu flag" {
    for flag in on on off; do
        run "$QORSTAT" --npsimu $flag
        [ "$status" -eq 0 ]
        [ -z "$output" ]
        run "$QORSTAT"
        [ "${lines[1]}" = "npsimu: $flag" ]
    done
}

@test "refuses unknown arguments with 2 and the usage" {
    for arguments in --bad web1 --npsimu "--npsimu yes" "--npsimu on --plain" "--plain x" "--help x"; do
        # shellcheck disable=SC2086 # words
        run "$QORSTAT" $arguments
        [ "$status" -eq 2 ]
        [[ "$output" == Usage:* ]]
    done
    run "$QORSTAT" --help
    [ "$status" -eq 0 ]
    [[ "$output" == *"--npsimu on|off"* ]]
    run "$QORSTAT" --version
    [ "$status" -eq 0 ]
    [[ "$output" =~ ^qorstat\ [0-9]+\.[0-9]+\.[0-9]+$ ]]
}

@test "exits with 1 when the state cannot be read or shown" {
    run setpriv --reuid 65534 --clear-groups "$QORSTAT"
    [ "$status" -eq 1 ]
    [[ "$output" == *root* ]]
    run sh -c '"$0" >/dev/full' "$QORSTAT"
    [ "$status" -eq 1 ]
    [[ "$output" == *"cannot write"* ]]
    printf 'something else' >"$QOR_HOME/run/node.shm"
    run "$QORSTAT"
    [ "$status" -eq 1 ]
    [[ "$output" == *"cannot read the node's flags"* ]]
    run "$QORSTAT" --plain # does without them
    [ "$status" -eq 0 ]
    QOR_HOME=/nonexistent run "$QORSTAT" --plain
    [ "$status" -eq 1 ]
    [[ "$output" == *"resource states"* ]]
}
