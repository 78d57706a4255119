/// IPv6 neighbour discovery: what became of the kernel's duplicate address detection, and telling the
/// neighbours which hardware address the floating address now has.
#ifndef FIP_ND_H
#define FIP_ND_H

#include "../nicCommon.h"
#include "rtnetlink.h"

/// Bytes of the longest advertisement: the message of RFC 4861 4.4 and an option for NL_MAC_SIZE bytes.
enum { NA_PACKET_SIZE = 64 };

/// What is known of the address's duplicate address detection (DAD).
enum dad_state {
    DAD_UNKNOWN, ///< the kernel could not be asked
    DAD_OVER,    ///< over and passed, or not run at all
    DAD_RUNNING,
    DAD_SUSPENDED, ///< the link has no carrier: DAD would ask nobody, and the kernel puts it off
    DAD_FAILED,
    DAD_GONE ///< the interface does not have the address
};

/// The address, as it was looked at.
struct dad_look {
    dad_state state;
    std::uint32_t created; ///< tells the address from one that was removed and added again
};

/// Looks at the target's IPv6 address on its interface.
[[nodiscard]] dad_look fip_look_dad(const vdevinfo &dev);

/// Waits while DAD runs, on the kernel's notifications, for `timeout` seconds at most.
void fip_await_dad(const vdevinfo &dev, int timeout);

/// Builds an unsolicited neighbour advertisement (RFC 4861 4.4, 7.2.6): Override is set, Router as the link's
/// forwarding says. The checksum is left to the kernel.
///
/// @param pkt   NA_PACKET_SIZE bytes, zeroed
/// @param link  its hardware address, however long, is the target link-layer address
/// @return the message's length in bytes: 32 for Ethernet
[[nodiscard]] std::size_t make_na(unsigned char *pkt, const in6_addr &addr, const nl_link &link);

/// Sends `count` such messages from the target's address to all nodes of its interface, one right behind the
/// other: they are to outlast a lost packet, and the run does not stay for one later.
/// @return 0; FIP_ERR_NODEV when there is no such interface, or it has no hardware address; FIP_ERR_IFLIST
///         when rtnetlink cannot be asked; FIP_ERR_SOCKET; FIP_ERR_SEND, also when the kernel does not let
///         the address send because its DAD is not over. All but the missing hardware address
///         leave a result message.
[[nodiscard]] int fip_send_na(const vdevinfo &dev, int count);

#endif
