#include "nd.h"

#include "../fip.h"
#include "trace_source.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <net/if_arp.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>

namespace
{

/// How long a send may wait for room in the device's queue, seconds: a stuck device must not hang the run.
constexpr int send_limit_s = 1;

/// RFC 4861 7.1.2: a message with another hop limit may have come from elsewhere and is dropped.
constexpr int hop_limit = 255;

/// Options are counted in units of so many bytes.
constexpr std::size_t option_unit = 8;

constexpr in6_addr all_nodes = {{{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};

/// What a look at the address tells of its DAD. An optimistic address (RFC 4429) is in use already, but not
/// to be announced before the end.
dad_state judge(const nl_address &address, bool carrier)
{
    if ((address.flags & IFA_F_DADFAILED) != 0) {
        return DAD_FAILED;
    }
    if ((address.flags & IFA_F_TENTATIVE) == 0) {
        return DAD_OVER;
    }
    return carrier ? DAD_RUNNING : DAD_SUSPENDED;
}

/// Looks through a socket that is open.
dad_look look(nl_socket *kernel, const vdevinfo &dev)
{
    nl_link link = {};
    nl_address address = {};
    int err = nl_get_link(kernel, nic_device_name(dev), &link);
    if (err == 0) {
        err = nl_get_address6(kernel, dev.nipel6.addr, link.ifindex, &address);
    }
    if (err == EADDRNOTAVAIL || err == ENODEV) {
        return {DAD_GONE, 0};
    }
    if (err != 0) {
        TRACE_AS("fip_look_dad", TRACE_WARNING, "%s of %s cannot be looked at. (errno=%d)", dev.sipel.addr,
                 nic_device_name(dev), err);
        return {DAD_UNKNOWN, 0};
    }
    return {judge(address, link.carrier), address.created};
}

/// Whether a notification may tell of the address's DAD, or of a link's carrier.
bool concerns(const nlmsghdr *message, const in6_addr &addr)
{
    nl_address address = {};
    return !nl_read_address(message, &address) || IN6_ARE_ADDR_EQUAL(&address.addr6, &addr);
}

/// Waits until a notification is a reason for another look. Lost ones are a reason, too.
/// @return false when the time is over
bool await_news(nl_socket *news, const in6_addr &addr, std::chrono::steady_clock::time_point deadline)
{
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= milliseconds::zero()) {
            return false;
        }
        nl_list notified;
        const int err =
            nl_wait(news, static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX)), &notified);
        if (err != 0 && err != ETIMEDOUT) {
            return err == ENOBUFS;
        }
        for (const nlmsghdr *it = nl_first(notified); it != nullptr; it = nl_next(notified, it)) {
            if (concerns(it, addr)) {
                return true;
            }
        }
    }
}

/// Opens a socket that sends from the address through the interface.
int open_sender(const vdevinfo &dev, int ifindex, unique_fd *sock)
{
    sock->reset(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));
    if (sock->fd < 0) {
        TRACE_AS("fip_send_na", TRACE_ERROR, "socket() failed. (errno=%d)", errno);
        return fip_internal_error(FIP_ERR_SOCKET);
    }
    const int off = 0;
    const timeval limit = {send_limit_s, 0};
    icmp6_filter nothing = {};
    ICMP6_FILTER_SETBLOCKALL(&nothing);
    setsockopt(sock->fd, IPPROTO_ICMPV6, ICMP6_FILTER, &nothing, sizeof(nothing));
    setsockopt(sock->fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hop_limit, sizeof(hop_limit));
    setsockopt(sock->fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &off, sizeof(off));
    setsockopt(sock->fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    const sockaddr_in6 from = {AF_INET6, 0, 0, dev.nipel6.addr, static_cast<std::uint32_t>(ifindex)};
    if (bind(sock->fd, reinterpret_cast<const sockaddr *>(&from), sizeof(from)) != 0) {
        TRACE_AS("fip_send_na", TRACE_ERROR, "bind(%s) failed. (errno=%d)", dev.sipel.addr, errno);
        return fip_internal_error(FIP_ERR_SEND);
    }
    return FIP_SUCCESS;
}

} // namespace

dad_look fip_look_dad(const vdevinfo &dev)
{
    nl_socket kernel;
    return nic_open_netlink(&kernel, 0) == 0 ? look(&kernel, dev) : dad_look{DAD_UNKNOWN, 0};
}

void fip_await_dad(const vdevinfo &dev, int timeout)
{
    TRACE(TRACE_DEBUG, "fip_await_dad()  ENTRY...");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
    nl_socket kernel;
    nl_socket news;
    if (nic_open_netlink(&kernel, 0) != 0 || nic_open_netlink(&news, RTMGRP_IPV6_IFADDR | RTMGRP_LINK) != 0) {
        return;
    }
    // Each look comes after what was notified before it, so no end of DAD is missed.
    dad_look seen = look(&kernel, dev);
    while (seen.state == DAD_RUNNING && await_news(&news, dev.nipel6.addr, deadline)) {
        seen = look(&kernel, dev);
    }
}

std::size_t make_na(unsigned char *pkt, const in6_addr &addr, const nl_link &link)
{
    nd_neighbor_advert head = {};
    head.nd_na_type = ND_NEIGHBOR_ADVERT;
    head.nd_na_flags_reserved = ND_NA_FLAG_OVERRIDE | (link.forwards6 ? ND_NA_FLAG_ROUTER : 0);
    head.nd_na_target = addr;
    memcpy(pkt, &head, sizeof(head));
    unsigned char *option = pkt + sizeof(head);
    // InfiniBand has two reserved bytes before its address (RFC 4391 9.3); other links have their padding
    // behind it.
    const std::size_t gap = sizeof(nd_opt_hdr) + (link.type == ARPHRD_INFINIBAND ? 2 : 0);
    const std::size_t units = (gap + link.maclen + option_unit - 1) / option_unit;
    option[0] = ND_OPT_TARGET_LINKADDR;
    option[1] = static_cast<unsigned char>(units);
    memcpy(option + gap, link.mac, link.maclen);
    return sizeof(head) + units * option_unit;
}

int fip_send_na(const vdevinfo &dev, int count)
{
    TRACE(TRACE_DEBUG, "fip_send_na()  ENTRY...");
    nl_socket kernel;
    nl_link link = {};
    int err = nic_open_netlink(&kernel, 0);
    if (err == 0) {
        err = nl_get_link(&kernel, nic_device_name(dev), &link);
    }
    if (err == ENODEV) {
        TRACE(TRACE_ERROR, "send_na: No such device [%s]", nic_device_name(dev));
        fip_set_message("Fip interface was not found.");
        return FIP_ERR_NODEV;
    }
    if (err != 0) {
        TRACE(TRACE_ERROR, "send_na: %s cannot be asked about. (errno=%d)", nic_device_name(dev), err);
        return fip_internal_error(FIP_ERR_IFLIST);
    }
    if (link.maclen == 0) {
        TRACE(TRACE_ERROR, "send_na: No MAC Address [%s]", nic_device_name(dev));
        return FIP_ERR_NODEV;
    }
    unsigned char pkt[NA_PACKET_SIZE] = {};
    const std::size_t size = make_na(pkt, dev.nipel6.addr, link);
    unique_fd sock;
    const int ret = open_sender(dev, link.ifindex, &sock);
    const sockaddr_in6 to = {AF_INET6, 0, 0, all_nodes, static_cast<std::uint32_t>(link.ifindex)};
    for (int i = 0; ret == FIP_SUCCESS && i < count; ++i) {
        if (sendto(sock.fd, pkt, size, 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to)) < 0) {
            TRACE(TRACE_ERROR, "sendto(%d) failed. (errno=%d)", sock.fd, errno);
            return fip_internal_error(FIP_ERR_SEND);
        }
    }
    return ret;
}
