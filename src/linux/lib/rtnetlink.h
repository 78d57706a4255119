/// Rtnetlink (rtnetlink(7)): the kernel's addresses, routes and links beyond what the ioctls of netdevice(7)
/// can say and do. The agent, qorping and qorstat ask the kernel with this.
///
/// Everything is in the kernel's own messages: one that tells of an address or a route can be sent back as it
/// came, and so loses nothing. No call waits for longer than nl_limit_s at a time.
#ifndef RTNETLINK_H
#define RTNETLINK_H

#include "unique_fd.h"

#include <cstdint>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <vector>

/// How long the kernel's answer may take, seconds. It answers before the request's send returns; the limit is
/// for the case that it does not.
inline constexpr int nl_limit_s = 5;

/// A socket of rtnetlink. The kernel never sends more than the buffer's size at once (netlink(7)).
struct nl_socket {
    unique_fd sock;
    std::uint32_t sequence = 0;
    alignas(nlmsghdr) unsigned char buffer[32768];
};

/// Messages, one behind the other.
struct nl_list {
    std::vector<unsigned char> bytes;
};

/// A request while it is put together.
struct nl_request {
    alignas(nlmsghdr) unsigned char bytes[4096] = {};
    bool whole = true; ///< false: something did not fit

    nlmsghdr *header() { return reinterpret_cast<nlmsghdr *>(bytes); }
};

/// What a message tells of an address.
struct nl_address {
    int family; ///< AF_INET: addr, AF_INET6: addr6
    int ifindex;
    int masklen;
    std::uint32_t flags; ///< IFA_F_...
    in_addr addr;
    in6_addr addr6;
    char label[IFNAMSIZ];  ///< IPv4: the name it stands under
    std::uint32_t created; ///< hundredths of a second since boot
};

/// What a message tells of a route.
struct nl_route {
    int family;
    int ifindex; ///< 0: it has several ways
    int type;    ///< RTN_...
    int protocol;
    int tos;
    int masklen;
    bool gateway;
    std::uint32_t table;
    in_addr destination; ///< of an IPv4 route, as is the next
    in_addr source;      ///< the preferred one, or 0.0.0.0
};

/// Bytes of the longest hardware address that the kernel has (MAX_ADDR_LEN).
enum { NL_MAC_SIZE = 32 };

/// What the kernel tells of a link.
struct nl_link {
    int ifindex;
    int type; ///< ARPHRD_...
    bool carrier;
    bool forwards6;     ///< IPv6: it routes
    std::size_t maclen; ///< bytes of the hardware address
    unsigned char mac[NL_MAC_SIZE];
};

/// Opens the socket.
/// @param groups  RTMGRP_... whose notifications it gets; nl_exchange wants a socket without
/// @return 0, or the error number
[[nodiscard]] int nl_open(nl_socket *nl, unsigned groups);

/// Starts a request: flags besides NLM_F_REQUEST and NLM_F_ACK; body is the structure of the type.
void nl_begin(nl_request *request, int type, int flags, const void *body, std::size_t size);
void nl_add(nl_request *request, int type, const void *data, std::size_t size);

template <class T>
void nl_begin(nl_request *request, int type, int flags, const T &body)
{
    nl_begin(request, type, flags, &body, sizeof(body));
}

template <class T>
void nl_add(nl_request *request, int type, const T &data)
{
    nl_add(request, type, &data, sizeof(data));
}

/// Makes a request of a message of the kernel.
void nl_repeat(nl_request *request, int type, int flags, const nlmsghdr *message);

/// Sends the request and takes the answer up to its end. With NLM_F_ECHO the answer has the notifications of
/// all that the request changed, and only those, in the kernel's order.
/// @param answer  receives the messages but the last, which carries the result
/// @return 0; the kernel's error number; ETIMEDOUT; ENOMEM when the answer found no room, EMSGSIZE when the
///         request had none
[[nodiscard]] int nl_exchange(nl_socket *nl, nl_request *request, nl_list *answer);

/// Sends a request for a list until that comes whole, nothing having changed meanwhile.
/// @return as nl_exchange; EAGAIN when it never does
[[nodiscard]] int nl_dump(nl_socket *nl, nl_request *request, nl_list *answer);

/// Takes what has been notified, and waits for that if need be.
/// @param timeout_ms  0: look only
/// @return 0; ETIMEDOUT; ENOBUFS when notifications were lost; another error number
[[nodiscard]] int nl_wait(nl_socket *nl, int timeout_ms, nl_list *notified);

/// Makes room for a list of `size` bytes. @return false when there is no memory
[[nodiscard]] bool nl_reserve(nl_list *list, std::size_t size);

/// The list's first message, or the one behind `message`; null behind the last.
[[nodiscard]] const nlmsghdr *nl_first(const nl_list &list);
[[nodiscard]] const nlmsghdr *nl_next(const nl_list &list, const nlmsghdr *message);

/// Read a message. @return false when it tells of something else, or is damaged
[[nodiscard]] bool nl_read_address(const nlmsghdr *message, nl_address *address);
[[nodiscard]] bool nl_read_route(const nlmsghdr *message, nl_route *route);

/// Calls `take` for each attribute behind a structure of `size` bytes.
template <class F>
void nl_each(const nlmsghdr *message, std::size_t size, F take)
{
    const auto *attr = reinterpret_cast<const rtattr *>(reinterpret_cast<const unsigned char *>(message) +
                                                        NLMSG_SPACE(size));
    int left = static_cast<int>(message->nlmsg_len) - static_cast<int>(NLMSG_SPACE(size));
    for (; RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
        take(attr);
    }
}

/// Asks about a link by its name, an alias's base. @return 0, or the error number
[[nodiscard]] int nl_get_link(nl_socket *nl, const char *ifname, nl_link *link);

/// Asks about one IPv6 address of a link. @return 0; EADDRNOTAVAIL when it does not have it; or another
/// error number
[[nodiscard]] int nl_get_address6(nl_socket *nl, const in6_addr &addr, int ifindex, nl_address *address);

#endif
