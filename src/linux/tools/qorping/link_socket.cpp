#include "link_socket.h"

#include "packet_filter.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include <net/ethernet.h>
#include <net/if_arp.h>
#include <netinet/icmp6.h>
#include <netpacket/packet.h>

namespace
{

/// Packets looked at before the clock is asked again: a flood must not hold up the end.
constexpr int drain_limit = 64;

/// RFC 4861, 7.1.1: hosts drop a solicitation with any other.
constexpr int link_hop_limit = 255;

/// Room for the longest ARP packet, or a neighbour message with more options than any host sends.
using packet_buffer = std::array<std::uint8_t, 1500>;

/// sockaddr_ll with room for an address longer than eight bytes.
struct packet_address {
    sockaddr_ll ll;
    std::array<std::uint8_t, 16> rest;
};

int open_arp(link_socket *sock)
{
    sock->socket = unique_fd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ARP)));
    if (sock->socket.fd < 0) {
        return errno;
    }
    // Only replies, and only those whose sender protocol address, behind the hardware address, is the target.
    packet_filter filter = {BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6)};
    require_loaded(&filter, ARPOP_REPLY);
    filter.push_back(BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 4));
    filter.push_back(BPF_STMT(BPF_MISC | BPF_TAX, 0));
    require_address(&filter, BPF_IND, 8, sock->address);
    attach_filter(sock->socket.fd, std::move(filter));
    return 0;
}

int open_neighbour(link_socket *sock)
{
    sock->socket = unique_fd(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMPV6));
    const int fd = sock->socket.fd;
    constexpr int on = 1;
    constexpr int off = 0;
    if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof(on)) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof(on)) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &link_hop_limit, sizeof(link_hop_limit)) != 0) {
        const int error = errno;
        sock->socket.reset();
        return error;
    }
    setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &off, sizeof(off));
    icmp6_filter types = {};
    ICMP6_FILTER_SETBLOCKALL(&types);
    ICMP6_FILTER_SETPASS(ND_NEIGHBOR_ADVERT, &types);
    ICMP6_FILTER_SETPASS(ND_NEIGHBOR_SOLICIT, &types);
    setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &types, sizeof(types));
    packet_filter filter;
    require_address(&filter, BPF_ABS, offsetof(nd_neighbor_advert, nd_na_target), sock->address);
    attach_filter(fd, std::move(filter));
    return 0;
}

int send_packet(int fd, const std::vector<std::uint8_t> &packet, const void *to, socklen_t length)
{
    ssize_t n = -1;
    do {
        n = sendto(fd, packet.data(), packet.size(), 0, static_cast<const sockaddr *>(to), length);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? errno : 0;
}

int send_arp_probe(const link_socket &sock, const network_link &link)
{
    packet_address to = {};
    to.ll.sll_family = AF_PACKET;
    to.ll.sll_protocol = htons(ETH_P_ARP);
    to.ll.sll_ifindex = static_cast<int>(link.index);
    to.ll.sll_halen = link.broadcast.length;
    constexpr std::size_t address_at = offsetof(sockaddr_ll, sll_addr);
    std::memcpy(reinterpret_cast<char *>(&to) + address_at, link.broadcast.bytes.data(),
                link.broadcast.length);
    const std::size_t length = std::max(sizeof(to.ll), address_at + link.broadcast.length);
    return send_packet(sock.socket.fd, arp_probe(link, sock.address.v4.sin_addr), &to,
                       static_cast<socklen_t>(length));
}

/// The group is joined to hear a host that looks for duplicates of the address; advertisements come without.
int send_solicitation(const link_socket &sock, const network_link &link)
{
    const ipv6_mreq group = {solicited_node_group(sock.address.v6.sin6_addr), link.index};
    setsockopt(sock.socket.fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof(group));
    const sockaddr_in6 to = {AF_INET6, 0, 0, group.ipv6mr_multiaddr, link.index};
    return send_packet(sock.socket.fd, neighbour_solicitation(link, sock.address.v6.sin6_addr), &to,
                       sizeof(to));
}

const network_link *find_link(const std::vector<network_link> &links, unsigned index)
{
    const auto found = std::find_if(links.begin(), links.end(),
                                    [index](const network_link &link) { return link.index == index; });
    return found == links.end() ? nullptr : &*found;
}

/// The next packet that arrived, from whatever link; -1 with errno when there is none.
ssize_t receive(int fd, packet_buffer *packet, msghdr *message, void *from, socklen_t from_length)
{
    iovec room = {packet->data(), packet->size()};
    message->msg_name = from;
    message->msg_namelen = from_length;
    message->msg_iov = &room;
    message->msg_iovlen = 1;
    return recvmsg(fd, message, 0);
}

/// A frame that was not sent to this host is also one of a VLAN that this host is not in.
const network_link *judge_arp(const link_socket &sock, const std::vector<network_link> &asked,
                              const packet_buffer &packet, ssize_t n, const sockaddr_ll &from,
                              hardware_address *owner)
{
    const network_link *link = find_link(asked, static_cast<unsigned>(from.sll_ifindex));
    return link != nullptr && from.sll_pkttype != PACKET_OTHERHOST &&
                   is_arp_answer(*link, sock.address.v4.sin_addr, packet.data(), static_cast<std::size_t>(n),
                                 owner)
               ? link
               : nullptr;
}

/// Hop limit, destination and interface come beside an ICMPv6 message (RFC 3542, 6); without one of them it
/// can't be judged.
const network_link *judge_neighbour(const link_socket &sock, const std::vector<network_link> &asked,
                                    const packet_buffer &packet, ssize_t n, const sockaddr_in6 &from,
                                    msghdr *message)
{
    std::optional<int> hop_limit;
    std::optional<in6_pktinfo> info;
    for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_HOPLIMIT) {
            std::memcpy(&hop_limit.emplace(), CMSG_DATA(part), sizeof(int));
        } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO) {
            std::memcpy(&info.emplace(), CMSG_DATA(part), sizeof(in6_pktinfo));
        }
    }
    if (!hop_limit || !info) {
        return nullptr;
    }
    const neighbour_message judged = {from.sin6_addr, info->ipi6_addr, *hop_limit, packet.data(),
                                      static_cast<std::size_t>(n)};
    return is_neighbour_answer(sock.address.v6.sin6_addr, judged) ? find_link(asked, info->ipi6_ifindex)
                                                                  : nullptr;
}

} // namespace

int open_link_socket(const host_address &address, link_socket *sock)
{
    sock->address = address;
    return address.any.sa_family == AF_INET ? open_arp(sock) : open_neighbour(sock);
}

int ask_link(const link_socket &sock, const network_link &link)
{
    return sock.address.any.sa_family == AF_INET ? send_arp_probe(sock, link) : send_solicitation(sock, link);
}

const network_link *read_link_answer(const link_socket &sock, const std::vector<network_link> &asked,
                                     hardware_address *owner)
{
    const bool v4 = sock.address.any.sa_family == AF_INET;
    for (int i = 0; i < drain_limit; ++i) {
        packet_buffer packet;
        packet_address from_link = {};
        sockaddr_in6 from = {};
        alignas(cmsghdr) std::array<char, 128> beside;
        msghdr message = {};
        message.msg_control = beside.data();
        message.msg_controllen = beside.size();
        const ssize_t n = v4 ? receive(sock.socket.fd, &packet, &message, &from_link, sizeof(from_link))
                             : receive(sock.socket.fd, &packet, &message, &from, sizeof(from));
        if (n < 0 && errno == EAGAIN) {
            return nullptr;
        }
        if (n < 0 || (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
            continue; // an error that the network left, cleared by reading it; or not the whole of a packet
        }
        const network_link *link = v4 ? judge_arp(sock, asked, packet, n, from_link.ll, owner)
                                      : judge_neighbour(sock, asked, packet, n, from, &message);
        if (link != nullptr) {
            return link;
        }
    }
    return nullptr;
}
