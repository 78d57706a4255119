"""A host that has an address and tells only who asks its link for it.

link_host.py INTERFACE ADDRESS DELAY_MS LOST: answers ARP probes or neighbour solicitations for ADDRESS, each
DELAY_MS later, but never the first LOST of them. Prints a line when it is ready.
"""
import ipaddress
import socket
import struct
import sys
import threading

interface, address, delay_s, lost = sys.argv[1], ipaddress.ip_address(sys.argv[2]), int(sys.argv[3]) / 1000, int(sys.argv[4])
if address.version == 4:
    link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0806))
    link.bind((interface, 0x0806))
    own = link.getsockname()[4]
else:
    link = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
    group = ipaddress.ip_address("ff02::1:ff00:0").packed[:13] + address.packed[13:]
    index = struct.pack("@I", socket.if_nametoindex(interface))
    link.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, group + index)
    link.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_UNICAST_HOPS, 255)


def answer_to(packet, sender):
    """What is to be sent, and where; or None for what asks for something else."""
    if address.version == 4:
        probe = packet[20:22] == b"\0\1" and packet[28:32] == bytes(4) and packet[38:42] == address.packed
        reply = packet[6:12] + own + packet[12:20] + b"\0\2" + own + address.packed + packet[22:28] + bytes(4)
        return (reply, (interface, 0)) if probe else None
    solicitation = packet[0] == 135 and packet[8:24] == address.packed
    return (b"\x88\0\0\0\x60\0\0\0" + address.packed, sender) if solicitation else None


print("ready", flush=True)
while True:
    answer = answer_to(*link.recvfrom(1500))
    if answer and lost > 0:
        lost -= 1
    elif answer:
        threading.Timer(delay_s, link.sendto, answer).start()
