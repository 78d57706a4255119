/// Asking links for one address, and what they answer.
#ifndef LINK_SOCKET_H
#define LINK_SOCKET_H

#include "host_address.h"
#include "link_probe.h"
#include "unique_fd.h"

/// One for all links: to close a packet socket takes some 10 ms, which fifty of them would take each.
struct link_socket {
    unique_fd socket;
    host_address address = {}; ///< asked for
};

/// Opens it: a packet socket for IPv4, a raw ICMPv6 socket for IPv6.
///
/// @return 0, or errno; EPERM without CAP_NET_RAW
[[nodiscard]] int open_link_socket(const host_address &address, link_socket *sock);

/// Asks one link once.
///
/// @return 0 when the question went out, or errno; EADDRNOTAVAIL when the link gives no IPv6 source address
[[nodiscard]] int ask_link(const link_socket &sock, const network_link &link);

/// Looks at the packets that have arrived, without waiting.
///
/// @param asked  only answers from these links count
/// @return the link that has the address, or null. For IPv4 *owner is the hardware address of its host
[[nodiscard]] const network_link *
read_link_answer(const link_socket &sock, const std::vector<network_link> &asked, hardware_address *owner);

#endif
