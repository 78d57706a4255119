#include "rtnetlink.h"

#include "descriptor.h"

#include <array>
#include <cstdint>
#include <cstring>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace
{

/// More than any request or reply of this file has.
constexpr std::size_t message_size = 4096;

/// One message to the kernel: header, body, attributes.
struct request {
    alignas(NLMSG_ALIGNTO) std::array<char, message_size> bytes;
    std::size_t length;
};

template <class T>
request make_request(std::uint16_t type, unsigned flags, const T &body)
{
    request message = {{}, NLMSG_LENGTH(sizeof(body))};
    nlmsghdr header = {};
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    std::memcpy(message.bytes.data(), &header, sizeof(header));
    std::memcpy(message.bytes.data() + NLMSG_HDRLEN, &body, sizeof(body));
    return message;
}

void add_attribute(request *message, std::uint16_t type, const void *value, std::size_t length)
{
    const rtattr header = {static_cast<std::uint16_t>(RTA_LENGTH(length)), type};
    char *at = message->bytes.data() + NLMSG_ALIGN(message->length);
    std::memcpy(at, &header, sizeof(header));
    std::memcpy(at + RTA_LENGTH(0), value, length);
    message->length = NLMSG_ALIGN(message->length) + header.rta_len;
}

/// Sends the message, and takes the reply into *reply when one is wanted: rtnetlink has it ready when the
/// send returns, so that nothing here can hang. False when there is none.
bool ask_kernel(request *message, request *reply)
{
    const auto length = static_cast<std::uint32_t>(message->length);
    std::memcpy(message->bytes.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof(length));
    const descriptor sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const sockaddr_nl kernel = {AF_NETLINK, 0, 0, 0};
    if (sock.fd < 0 || sendto(sock.fd, message->bytes.data(), message->length, 0,
                              reinterpret_cast<const sockaddr *>(&kernel), sizeof(kernel)) < 0) {
        return false;
    }
    if (reply == nullptr) {
        return true;
    }
    const ssize_t n = recv(sock.fd, reply->bytes.data(), reply->bytes.size(), MSG_DONTWAIT);
    reply->length = n < 0 ? 0 : static_cast<std::size_t>(n);
    return n > 0;
}

/// A route with exactly one interface and no gateway leads to a link; one whose hops are told otherwise
/// (several of them, or an object of their own) says nothing for sure.
route_match judge_attributes(const rtattr *attribute, int left)
{
    route_match match = {ROUTE_OPEN, 0};
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == RTA_GATEWAY || attribute->rta_type == RTA_VIA) {
            return {ROUTE_GATEWAY, 0};
        }
        if (attribute->rta_type == RTA_OIF) {
            match.kind = ROUTE_LINK;
            std::memcpy(&match.interface, RTA_DATA(attribute), sizeof(match.interface));
        }
    }
    return match;
}

/// A route that refuses its packets comes as an error, as if there were none.
route_match judge_route(const request &reply)
{
    const auto *header = reinterpret_cast<const nlmsghdr *>(reply.bytes.data());
    if (!NLMSG_OK(header, reply.length) || header->nlmsg_type != RTM_NEWROUTE ||
        header->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
        return {ROUTE_OPEN, 0};
    }
    const auto *route = static_cast<const rtmsg *>(NLMSG_DATA(header));
    if (route->rtm_type != RTN_UNICAST) {
        return {ROUTE_HERE, 0};
    }
    return route->rtm_dst_len == 0 ? route_match{ROUTE_OPEN, 0}
                                   : judge_attributes(RTM_RTA(route), static_cast<int>(RTM_PAYLOAD(header)));
}

} // namespace

route_match find_route(const host_address &address)
{
    const bool v4 = address.any.sa_family == AF_INET;
    rtmsg body = {};
    body.rtm_family = static_cast<unsigned char>(address.any.sa_family);
    body.rtm_dst_len = v4 ? 32 : 128;
    body.rtm_flags = RTM_F_FIB_MATCH; // the route itself, whose prefix tells a default route from others
    request message = make_request(RTM_GETROUTE, 0, body);
    if (v4) {
        add_attribute(&message, RTA_DST, &address.v4.sin_addr, sizeof(address.v4.sin_addr));
    } else {
        add_attribute(&message, RTA_DST, &address.v6.sin6_addr, sizeof(address.v6.sin6_addr));
    }
    request reply = {};
    return ask_kernel(&message, &reply) ? judge_route(reply) : route_match{ROUTE_OPEN, 0};
}

void note_neighbour(const network_link &link, const in_addr &address, const hardware_address &owner)
{
    ndmsg body = {};
    body.ndm_family = AF_INET;
    body.ndm_ifindex = static_cast<int>(link.index);
    body.ndm_state = NUD_STALE;
    request message = make_request(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_EXCL, body);
    add_attribute(&message, NDA_DST, &address, sizeof(address));
    add_attribute(&message, NDA_LLADDR, owner.bytes.data(), owner.length);
    (void)ask_kernel(&message, nullptr);
}
