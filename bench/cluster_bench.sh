#!/usr/bin/env bash
# Prints the bench's section on clusters as Markdown: the resource agent beside IPaddr2, in turns. To be run by
# script/cluster --bench; takes 2 minutes, and 3 more for each run behind a median.
#
#   cluster_bench.sh [-n RUNS]
set -euo pipefail

runs=6
while getopts n: option; do
    case $option in
    n) runs=$OPTARG ;;
    *) exit 2 ;;
    esac
done
# shellcheck source-path=SCRIPTDIR source=cluster_stage.sh
source bench/cluster_stage.sh

kinds='ipaddr2 checked unchecked'
many=50
results=$stage/results # a line each: MEASURE KIND VALUE
: >"$results"
note() { echo "$@" >>"$results"; }

# ---- the resources: one of each kind for the same address, of which one runs at a time, and many of each kind

off='<ping><timeout>0</timeout></ping><check><ping><execute>0</execute></ping></check>'
define() {
    local node i lines=("checked $vip/24%eth0" "unchecked $vip/24%eth0 $off")
    for ((i = 1; i <= many; i++)); do
        lines+=("checked$i 192.0.2.$((150 + i))/24%eth0" "unchecked$i 192.0.2.$((200 + i))/24%eth0 $off")
    done
    for node in 1 2; do fips $node "${lines[@]}"; done
}
address_of() { # KIND NUMBER
    case $1 in
    ipaddr2) echo "192.0.2.$((100 + $2))" ;;
    checked) echo "192.0.2.$((150 + $2))" ;;
    unchecked) echo "192.0.2.$((200 + $2))" ;;
    esac
}
# resource ID KIND FIP ADDRESS [META]
resource() {
    case $2 in
    ipaddr2) primitive "$1" heartbeat:IPaddr2 "ip=$4 cidr_netmask=24 nic=eth0" "${@:5}" ;;
    *) primitive "$1" qor:fip "resource=$3" "${@:5}" ;;
    esac
}

# ---- the measures

exec_time() { # NODE RESOURCE: what Pacemaker says that its last start there has taken, in ms
    on "$1" cibadmin -Q --xpath "//node_state[@uname='node$1']//lrm_rsc_op[@operation='start' and starts-with(@id, '$2_')]" |
        grep -o 'exec-time="[0-9]*"' | tail -n 1 | tr -dc 0-9
}

planned_move() {
    local from to
    locate 1 "$1"
    watch_start
    move 1 "$1" "$to"
    note move "$1" "$(watch_stop)"
    is_settled 1
}

come_back() { # NODE KIND: the node that was off, while the other one has worked on
    power_on "$1"
    eventually both_online "$(other "$1")"
    cleanup "$(other "$1")" "$2"
    is_settled "$(other "$1")"
}

power_cut() {
    local from to
    locate 1 "$1"
    watch_start
    power_off "$from"
    eventually is_on "$vip" "$to"
    note cut "$1" "$(watch_stop)"
    is_settled "$to"
    note start "$1" "$(exec_time "$to" "$1")"
    come_back "$from" "$1"
}

ghost() {
    local from to
    locate 1 "$1"
    kill_processes "$from"
    eventually has_tried "$to" "$1"
    is_settled "$to"
    note ghost "$1" "$(is_on "$vip" '1 2' && echo 1 || echo 0)"
    power_off "$from"
    come_back "$from" "$1"
}
has_tried() { is_on "$vip" '1 2' || shows "$1" "$2 start on node$1 returned"; }

monitor() { # KIND: 20 monitors on the node that runs it, called as Pacemaker calls them
    local node agent=/usr/lib/ocf/resource.d/qor/fip
    node=$(where 1 "$1")
    [ "$1" != ipaddr2 ] || agent=/usr/lib/ocf/resource.d/heartbeat/IPaddr2
    # shellcheck disable=SC2016 # the node's shell's own
    on "$node" env OCF_RESOURCE_INSTANCE="$1" OCF_RESKEY_CRM_meta_interval=10000 OCF_RESKEY_resource="$1" \
        OCF_RESKEY_ip="$vip" OCF_RESKEY_cidr_netmask=24 OCF_RESKEY_nic=eth0 \
        unshare --pid --fork --mount-proc bash -c '
            before=$(cat /proc/sys/kernel/ns_last_pid) start=${EPOCHREALTIME/./}
            for i in {1..20}; do "$0" monitor >/dev/null 2>&1 || exit; done
            end=${EPOCHREALTIME/./} after=$(cat /proc/sys/kernel/ns_last_pid)
            echo "$(((end - start) / 20)) $(((after - before - 1) / 20))"' "$agent" >"$stage/cost"
    note monitor "$1" "$(awk '{ printf "%.1f", $1 / 1000 }' "$stage/cost")"
    note processes "$1" "$(cut -d ' ' -f 2 "$stage/cost")"
}

prefer() { # KIND NODE: all of its many resources
    on 1 cibadmin --modify --allow-create -o constraints \
        --xml-text "<rsc_location id='$1-place' rsc='$1-many' node='node$2' score='INFINITY'/>"
}
all_at() { # KIND NODE
    local i
    ip -n "node$2" -o -4 address show >"$stage/addresses"
    for ((i = many; i > 0; i--)); do
        grep -q " $(address_of "$1" $i)/" "$stage/addresses" || return
    done
}
make_many() {
    local kind i text
    for kind in $kinds; do
        case $kind in
        ipaddr2) text="provider='heartbeat' type='IPaddr2'" ;;
        *) text="provider='qor' type='fip'" ;;
        esac
        text="<resources><template id='$kind-many' class='ocf' $text/>"
        for ((i = 1; i <= many; i++)); do
            text+=$(resource "$kind$i" "$kind" "$kind$i" "$(address_of "$kind" $i)" |
                sed "s/ class='[^>]*>/ template='$kind-many'>/; s/<operations>.*//; s/<op .*<\/primitive>/<\/primitive>/; /^<op /d")
        done
        on 1 cibadmin --modify --allow-create -o resources --xml-text "$text</resources>"
        prefer "$kind" 1
        eventually all_at "$kind" 1
        is_settled 1
    done
}
move_many() { # KIND NODE
    local start=${EPOCHREALTIME/./}
    prefer "$1" "$2"
    until all_at "$1" "$2"; do sleep 0.02; done
    note many "$1" $(((${EPOCHREALTIME/./} - start) / 1000))
    is_settled 1
}

# ---- the table

# cell MEASURE KIND: the median, and between which values it lies
cell() {
    awk -v measure="$1" -v kind="$2" '$1 == measure && $2 == kind { print $3 }' "$results" | sort -n |
        awk '{ v[NR] = $1 } END { printf " %s (%s-%s) |", v[int((NR + 1) / 2)], v[1], v[NR] }'
}
row() { # MEASURE TEXT
    local kind
    printf '| %s |' "$2"
    for kind in $kinds; do cell "$1" "$kind"; done
    echo
}
table() {
    local kind
    printf '\n## Under Pacemaker\n\n'
    # shellcheck disable=SC2016 # Markdown's backquotes
    printf 'Two nodes as `script/cluster` makes them: Pacemaker %s, Corosync %s, its token 1000 ms.\n' \
        "$(dpkg-query -W -f '${Version}' pacemaker)" "$(dpkg-query -W -f '${Version}' corosync)"
    printf 'A client asks every 10 ms. Medians of %s runs, in turns, and the lowest and highest of them. Most of a power\n' "$runs"
    printf 'cut is what Corosync and Pacemaker take to be sure. There is no fencing. Pacemaker does 4 actions at a time.\n\n'
    printf '| | IPaddr2 | ocf:qor:fip, both checks on | ocf:qor:fip, both off |\n|---|---:|---:|---:|\n'
    row move 'planned move, no answer for, ms'
    row cut 'power cut, no answer for, ms'
    row start 'power cut, the start alone, ms'
    row monitor 'one monitor, ms'
    row processes 'one monitor, processes'
    printf '| all processes of a node die, its kernel answers on: address on both nodes |'
    for kind in $kinds; do
        awk -v kind="$kind" '$1 == "ghost" && $2 == kind { n++; both += $3 } END { printf " %d of %d |", both, n }' "$results"
    done
    echo
    row many "$many moved at once, ms"
}

make_cluster
define
eventually both_online 1
for kind in $kinds; do add 1 "$(resource "$kind" "$kind" "$kind" "$vip" target-role=Stopped)"; done
is_settled 1
for ((run = 1; run <= runs; run++)); do
    for kind in $kinds; do
        set_role 1 "$kind" Started
        eventually answers "$vip"
        is_settled 1
        planned_move "$kind"
        monitor "$kind"
        power_cut "$kind"
        ghost "$kind"
        set_role 1 "$kind" Stopped
        eventually is_on "$vip" ''
        is_settled 1
    done
    echo "run $run of $runs" >&2
done
make_many
for ((run = 1; run <= runs; run++)); do
    for kind in $kinds; do move_many "$kind" $((run % 2 + 1)); done
done
table
