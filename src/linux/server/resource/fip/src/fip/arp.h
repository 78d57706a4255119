/// Gratuitous ARP: tells the segment's neighbours which hardware address the floating address now has.
#ifndef FIP_ARP_H
#define FIP_ARP_H

#include "../nicCommon.h"

#include <linux/if_packet.h>

/// Bytes of the buffer that make_arp fills.
enum { ARP_PACKET_SIZE = 256 };

/// Builds an ARP packet (RFC 826) that carries the address as both sender's and target's protocol address,
/// and the interface's hardware address as both hardware addresses.
///
/// @param pkt     ARP_PACKET_SIZE bytes, zeroed
/// @param ip      IPv4 address text
/// @param sll     the interface's hardware type and address, of at most MAC_SIZE bytes; those beyond
///                sll_addr's 8 lie behind it
/// @param opcode  1 request, 2 reply
/// @return the packet's length in bytes: 28 for Ethernet
[[nodiscard]] unsigned int make_arp(unsigned char *pkt, const char *ip, const sockaddr_ll *sll, int opcode);

/// Broadcasts `count` such packets through the target's interface, and records the interface's hardware
/// address in the record as soon as it is known.
/// @return 0; FIP_ERR_IFLIST; FIP_ERR_NODEV when there is no such interface, or it has no hardware address,
///         no broadcast address, or a hardware address longer than MAC_SIZE; FIP_ERR_SOCKET;
///         FIP_ERR_SEND. All but the missing or overlong addresses leave a result message.
[[nodiscard]] int fip_send_arp(vdevinfo *pvdevinfo, int count, int opcode);

/// Leaves it to the kernel to close the announcement's socket, which would take 10 ms. For the very end
/// of the process, when all is filed and closed: a filter that kills for the system calls used here does
/// no harm then.
void fip_close_arp();

#endif
