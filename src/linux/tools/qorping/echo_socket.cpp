#include "echo_socket.h"

#include "link_choice.h"
#include "packet_filter.h"

#include <array>
#include <cerrno>
#include <vector>

#include <linux/icmp.h>
#include <netinet/icmp6.h>
#include <sys/random.h>

namespace
{

/// Packets looked at before the clock is asked again: a flood must not hold up the end.
constexpr int drain_limit = 64;

/// The network's own way of saying that nobody can be there.
bool means_unreachable(int error)
{
    switch (error) {
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
    case ENODEV:
        return true;
    default:
        return false;
    }
}

/// Packets from the address only. connect(2) would do that too, but only while there is a route, not for a
/// link-local address without zone, and it would keep the source address of the moment for the whole run.
void pass_target_only(int fd, const host_address &address)
{
    constexpr std::uint32_t ipv4_source_at = 12;
    constexpr std::uint32_t ipv6_source_at = 8;
    packet_filter filter;
    // An offset from SKF_NET_OFF counts from the IP header, wherever the socket's packets begin.
    require_address(&filter, BPF_ABS,
                    static_cast<std::uint32_t>(SKF_NET_OFF) +
                        (address.any.sa_family == AF_INET ? ipv4_source_at : ipv6_source_at),
                    address);
    attach_filter(fd, std::move(filter));
}

/// Only a help against needless wake-ups, like every filter here: is_our_reply decides.
void pass_replies_only(int fd, sa_family_t family)
{
    if (family == AF_INET) {
        icmp_filter filter = {};
        filter.data = ~(1U << ICMP_ECHOREPLY);
        setsockopt(fd, SOL_RAW, ICMP_FILTER, &filter, sizeof(filter));
    } else {
        icmp6_filter filter = {};
        ICMP6_FILTER_SETBLOCKALL(&filter);
        ICMP6_FILTER_SETPASS(ICMP6_ECHO_REPLY, &filter);
        setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter));
    }
}

/// The kernel chooses the identifier of a datagram ICMP socket: the "port" that the socket is bound to.
bool bind_identifier(int fd, sa_family_t family, std::uint16_t *identifier)
{
    host_address local = {};
    local.any.sa_family = family;
    socklen_t length = sizeof(local);
    if (bind(fd, &local.any, length) != 0 || getsockname(fd, &local.any, &length) != 0) {
        return false;
    }
    *identifier = ntohs(family == AF_INET ? local.v4.sin_port : local.v6.sin6_port);
    return true;
}

/// Never waits for entropy: early in the boot, less of it is better than an address check that hangs.
bool draw_identity(reply_expectation *expected)
{
    return getrandom(expected->cookie.data(), expected->cookie.size(), GRND_INSECURE) >= 0 &&
           getrandom(&expected->identifier, sizeof(expected->identifier), GRND_INSECURE) >= 0;
}

/// The target, or the target once for every interface that is up; empty with errno set when there is none.
std::vector<host_address> destinations(const host_address &address)
{
    if (!is_link_local(address) || address.v6.sin6_scope_id != 0) {
        return {address};
    }
    std::vector<host_address> all;
    for (const unsigned index : interfaces_up()) {
        all.push_back(address);
        all.back().v6.sin6_scope_id = index;
    }
    return all;
}

/// Linux tells an IPv4 sender of a full queue (ENOBUFS) only while the socket also asks for errors of the
/// network (ip(7), IP_RECVERR), and those would pile up if it asked for longer than the send takes.
/// @return 0, or errno
int send_request(int fd, const echo_packet &packet, const host_address &to)
{
    const bool v4 = to.any.sa_family == AF_INET;
    constexpr int on = 1;
    constexpr int off = 0;
    if (v4) {
        setsockopt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof(on));
    }
    int error = 0;
    do {
        const ssize_t n =
            sendto(fd, packet.data(), packet.size(), 0, &to.any, v4 ? sizeof(to.v4) : sizeof(to.v6));
        error = n < 0 ? errno : 0;
    } while (error == EINTR);
    if (v4) {
        setsockopt(fd, IPPROTO_IP, IP_RECVERR, &off, sizeof(off));
    }
    return error;
}

void note_error(echo_errors *errors, int error)
{
    (means_unreachable(error) ? errors->unreachable : errors->failed) = error;
}

} // namespace

int open_echo_socket(const probe_target &target, echo_socket *sock, const char **step)
{
    const sa_family_t family = target.address.any.sa_family;
    const int protocol = family == AF_INET ? static_cast<int>(IPPROTO_ICMP) : IPPROTO_ICMPV6;
    constexpr int flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    sock->expected.address = target.address;
    *step = "getrandom";
    if (!draw_identity(&sock->expected)) {
        return errno;
    }

    *step = "socket";
    sock->socket = unique_fd(socket(family, SOCK_RAW | flags, protocol));
    if (sock->socket.fd >= 0) {
        sock->expected.ip_header = family == AF_INET;
        pass_replies_only(sock->socket.fd, family);
    } else if (errno == EPERM || errno == EACCES) {
        sock->socket = unique_fd(socket(family, SOCK_DGRAM | flags, protocol));
        if (sock->socket.fd >= 0 && !bind_identifier(sock->socket.fd, family, &sock->expected.identifier)) {
            *step = "bind";
            return errno;
        }
    }
    if (sock->socket.fd < 0) {
        return errno;
    }
    pass_target_only(sock->socket.fd, target.address);

    // sin6_scope_id chooses the link of link-local addresses only. Binding to the device would do for all,
    // but it would also keep out the reply of an address that this host itself carries.
    const unsigned index = htonl(target.interface);
    *step = "setsockopt";
    if (target.interface != 0 &&
        setsockopt(sock->socket.fd, IPPROTO_IPV6, IPV6_UNICAST_IF, &index, sizeof(index)) != 0) {
        return errno;
    }
    return 0;
}

void send_echo(echo_socket *sock, echo_errors *errors)
{
    const reply_expectation &expected = sock->expected;
    const std::vector<host_address> all = destinations(expected.address);
    if (all.empty()) {
        note_error(errors, errno);
    }
    const auto sequence = static_cast<std::uint16_t>(expected.sent + 1);
    const echo_packet packet =
        echo_request(expected.address.any.sa_family, expected.identifier, sequence, expected.cookie);
    bool sent = false;
    for (const host_address &to : all) {
        const int error = send_request(sock->socket.fd, packet, to);
        if (error != 0) {
            note_error(errors, error);
        }
        sent = sent || error == 0;
    }
    sock->expected.sent += sent ? 1 : 0;
}

bool read_echo_reply(const echo_socket &sock)
{
    for (int i = 0; i < drain_limit; ++i) {
        // Our reply has at most 60 + 24 bytes: what is longer, and is cut off here, is not ours.
        std::array<std::uint8_t, 128> packet;
        host_address from = {};
        socklen_t from_length = sizeof(from);
        const ssize_t n = recvfrom(sock.socket.fd, packet.data(), packet.size(), 0, &from.any, &from_length);
        if (n < 0 && errno == EAGAIN) {
            return false;
        }
        // Any other error is one that the network left on the socket; reading it has cleared it.
        if (n >= 0 && is_our_reply(sock.expected, packet.data(), static_cast<std::size_t>(n), from)) {
            return true;
        }
    }
    return false;
}
