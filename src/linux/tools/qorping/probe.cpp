#include "probe.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/icmp.h>

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr std::chrono::seconds SEND_PERIOD_s{1};

// Packets looked at before the clock is asked again: a flood of foreign replies must not hold up the end.
constexpr int DRAIN_LIMIT = 64;

class owned_fd
{
public:
    owned_fd() = default;
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    ~owned_fd()
    {
        if (fd >= 0)
            close(fd);
    }
    int fd = -1;
};

struct prober {
    owned_fd socket;
    reply_expectation expected{};
    int unreachable = 0; // errno of the last request that the network refused
    int failed = 0;      // errno of the last request that failed otherwise
};

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

/// Only a help against needless wake-ups: is_our_reply decides, and packets may arrive before this.
void pass_replies_only(int fd, sa_family_t family)
{
    if (family == AF_INET) {
        icmp_filter filter{};
        filter.data = ~(1U << ICMP_ECHOREPLY);
        (void)setsockopt(fd, SOL_RAW, ICMP_FILTER, &filter, sizeof filter);
    } else {
        icmp6_filter filter{};
        ICMP6_FILTER_SETBLOCKALL(&filter);
        ICMP6_FILTER_SETPASS(ICMP6_ECHO_REPLY, &filter);
        (void)setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
    }
}

/// The kernel chooses the identifier of a datagram ICMP socket: the "port" that the socket is bound to.
bool bind_identifier(int fd, sa_family_t family, std::uint16_t *identifier)
{
    host_address local{};
    local.any.sa_family = family;
    socklen_t length = sizeof local;
    if (bind(fd, &local.any, length) != 0 || getsockname(fd, &local.any, &length) != 0)
        return false;
    *identifier = ntohs(family == AF_INET ? local.v4.sin_port : local.v6.sin6_port);
    return true;
}

/// Opens the socket and draws what identifies this run; false with the failing step in the report.
bool open_prober(const probe_target &target, prober *p, probe_report *report)
{
    const sa_family_t family = target.address.any.sa_family;
    const int protocol = family == AF_INET ? static_cast<int>(IPPROTO_ICMP) : IPPROTO_ICMPV6;
    const auto fail = [report](const char *step) {
        report->step = step;
        report->error = errno;
        return false;
    };

    // Never waits for entropy: early in the boot, less of it is better than an address check that hangs.
    reply_expectation &expected = p->expected;
    if (getrandom(expected.cookie.data(), expected.cookie.size(), GRND_INSECURE) < 0 ||
        getrandom(&expected.identifier, sizeof expected.identifier, GRND_INSECURE) < 0)
        return fail("getrandom");
    expected.address = target.address;

    p->socket.fd = socket(family, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
    if (p->socket.fd >= 0) {
        expected.ip_header = family == AF_INET;
        pass_replies_only(p->socket.fd, family);
    } else if (errno == EPERM || errno == EACCES) {
        p->socket.fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
        if (p->socket.fd >= 0 && !bind_identifier(p->socket.fd, family, &expected.identifier))
            return fail("bind");
    }
    if (p->socket.fd < 0)
        return fail("socket");

    // sin6_scope_id chooses the link of link-local addresses only. Binding to the device would do for all,
    // but it would also keep out the reply of an address that this host itself carries.
    const unsigned index = htonl(target.interface);
    if (target.interface != 0 &&
        setsockopt(p->socket.fd, IPPROTO_IPV6, IPV6_UNICAST_IF, &index, sizeof index) != 0)
        return fail("setsockopt");
    return true;
}

/// The target once for every interface that is up; empty with errno set when they can't be listed, or with
/// ENETUNREACH when there is none.
std::vector<host_address> on_every_link(const host_address &address)
{
    std::vector<host_address> links;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return links;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        // Each interface has exactly one packet address, with or without IP addresses.
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET ||
            (entry->ifa_flags & IFF_UP) == 0)
            continue;
        host_address link = address;
        link.v6.sin6_scope_id =
            static_cast<unsigned>(reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr)->sll_ifindex);
        links.push_back(link);
    }
    if (links.empty())
        errno = ENETUNREACH;
    return links;
}

void note_error(prober *p, int error)
{
    (means_unreachable(error) ? p->unreachable : p->failed) = error;
}

/// Sends one request, or one per link.
void send_round(prober *p)
{
    const host_address &address = p->expected.address;
    const bool every_link = address.any.sa_family == AF_INET6 &&
                            IN6_IS_ADDR_LINKLOCAL(&address.v6.sin6_addr) && address.v6.sin6_scope_id == 0;
    const std::vector<host_address> targets =
        every_link ? on_every_link(address) : std::vector<host_address>{address};
    if (targets.empty())
        note_error(p, errno);

    const auto sequence = static_cast<std::uint16_t>(p->expected.sent + 1);
    const echo_packet packet =
        echo_request(address.any.sa_family, p->expected.identifier, sequence, p->expected.cookie);
    const socklen_t length = address.any.sa_family == AF_INET ? sizeof address.v4 : sizeof address.v6;
    bool sent = false;
    for (const host_address &target : targets) {
        ssize_t n = -1;
        do {
            n = sendto(p->socket.fd, packet.data(), packet.size(), 0, &target.any, length);
        } while (n < 0 && errno == EINTR);
        if (n < 0)
            note_error(p, errno);
        else
            sent = true;
    }
    if (sent)
        p->expected.sent++;
}

/// Looks at the packets that have arrived, without waiting.
bool reply_arrived(const prober &p)
{
    for (int i = 0; i < DRAIN_LIMIT; i++) {
        // Our reply has at most 60 + 24 bytes: what is longer, and is cut off here, is not ours.
        std::array<std::uint8_t, 128> packet;
        host_address from{};
        socklen_t from_length = sizeof from;
        const ssize_t n = recvfrom(p.socket.fd, packet.data(), packet.size(), 0, &from.any, &from_length);
        if (n < 0 && errno == EAGAIN)
            return false;
        // Any other error is one that the network left on the socket; reading it has cleared it.
        if (n >= 0 && is_our_reply(p.expected, packet.data(), static_cast<std::size_t>(n), from))
            return true;
    }
    return false;
}

/// Waits for a packet until the given time at the latest; false when the wait itself fails.
bool wait_until(const prober &p, clock_type::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock_type::now()).count();
    pollfd event{p.socket.fd, POLLIN, 0};
    return poll(&event, 1, static_cast<int>(std::max<decltype(left)>(left, 0))) >= 0 || errno == EINTR;
}

probe_outcome judge_silence(const prober &p, probe_report *report)
{
    if (p.expected.sent > 0)
        return PROBE_SILENT;
    if (p.failed != 0) {
        report->step = "send";
        report->error = p.failed;
        return PROBE_FAILED;
    }
    report->error = p.unreachable;
    return PROBE_SILENT;
}

} // namespace

probe_outcome qorping_probe(const probe_target &target, unsigned seconds, probe_report *report)
{
    *report = {};
    prober p;
    if (!open_prober(target, &p, report))
        return PROBE_FAILED;

    const auto start = clock_type::now();
    const auto deadline = start + std::chrono::seconds(seconds);
    auto next = start;
    for (;;) {
        // What has arrived counts, even if this process was not scheduled until after the deadline.
        if (reply_arrived(p)) {
            report->elapsed =
                std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - start);
            return PROBE_ANSWERED;
        }
        const auto now = clock_type::now();
        if (now >= deadline)
            return judge_silence(p, report);
        if (now >= next) {
            send_round(&p);
            next = now + SEND_PERIOD_s;
        }
        if (!wait_until(p, std::min(next, deadline))) {
            report->step = "poll";
            report->error = errno;
            return PROBE_FAILED;
        }
    }
}
