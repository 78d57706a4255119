#!/usr/bin/env bash
# Process 1 of a node of script/cluster, in namespaces of its own: puts the node's own files where the programs
# look for them, says that it is ready, and then only reaps what ends here.
#
#   cluster_node.sh DIRECTORY OCF-AGENTS
set -euo pipefail

mount --make-rprivate /
for place in /dev/shm /var/lib/pacemaker /var/lib/corosync /var/log /opt; do
    mount -t tmpfs -o mode=755 node "$place"
done
mount --bind "$1/corosync" /etc/corosync
mount --bind "$2" /usr/lib/ocf/resource.d
mkdir /opt/qor
mount --bind "$1/home" /opt/qor
install -d -m 750 -o hacluster -g haclient /var/lib/pacemaker /var/lib/pacemaker/{cib,pengine,cores,blackbox}
install -m 600 -o hacluster -g haclient "$1/cib.xml" /var/lib/pacemaker/cib
mount -t tmpfs -o mode=755 node /run # last: it hides the directory

hostname "${1##*/}"
chmod 1777 /dev/shm
mkdir -p /var/log/corosync /run/lock /run/resource-agents
install -d -m 770 -o hacluster -g haclient /var/log/pacemaker
install -d -m 750 -o hacluster -g haclient /run/crm
touch /run/ready
while :; do
    sleep 1000 &
    wait
done
