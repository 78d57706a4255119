#include "icmp_echo.h"
#include "probe.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr echo_cookie COOKIE = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

host_address host(const char *text, unsigned scope = 0)
{
    host_address address{};
    if (inet_pton(AF_INET, text, &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        return address;
    }
    EXPECT_EQ(inet_pton(AF_INET6, text, &address.v6.sin6_addr), 1) << text;
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_scope_id = scope;
    return address;
}

void set_checksum(std::uint8_t *message, std::size_t length)
{
    message[2] = message[3] = 0;
    const std::uint16_t sum = internet_checksum(message, length);
    message[2] = static_cast<std::uint8_t>(sum >> 8);
    message[3] = static_cast<std::uint8_t>(sum);
}

/// A run that has sent the requests 1 to 3, and a good reply to the second; each case spoils one thing.
struct exchange {
    reply_expectation expected{};
    host_address from{};
    bytes packet;
    std::size_t message = 0; // where the ICMP message starts in the packet

    explicit exchange(const char *address, std::size_t ip_options = 0)
    {
        from = expected.address = host(address);
        const bool v4 = from.any.sa_family == AF_INET;
        expected.ip_header = v4;
        expected.identifier = 0x1234;
        expected.sent = 3;
        expected.cookie = COOKIE;
        const echo_packet request = echo_request(from.any.sa_family, 0x1234, 2, COOKIE);
        message = v4 ? 20 + ip_options : 0;
        packet.assign(message, 0);
        packet.insert(packet.end(), request.begin(), request.end());
        if (v4) {
            packet[0] = static_cast<std::uint8_t>(0x45 + ip_options / 4);
            packet[3] = static_cast<std::uint8_t>(packet.size());
            packet[9] = IPPROTO_ICMP;
        }
        set(0, v4 ? 0 : 129);
    }

    /// Changes a byte of the message, keeping the IPv4 checksum right.
    void set(std::size_t at, std::uint8_t value)
    {
        packet.at(message + at) = value;
        if (expected.ip_header)
            set_checksum(&packet[message], packet.size() - message);
    }

    [[nodiscard]] bool accepted() const { return is_our_reply(expected, packet.data(), packet.size(), from); }
};

struct changed_byte {
    const char *what;
    std::size_t at;
    std::uint8_t value;
};

} // namespace

TEST(EchoRequest, HasTheLayoutOfTheFamily)
{
    const bytes example = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}; // RFC 1071, 3
    EXPECT_EQ(internet_checksum(example.data(), 8), static_cast<std::uint16_t>(~0xddf2));
    const echo_packet v4 = echo_request(AF_INET, 0x1234, 0xfffe, COOKIE);
    const bytes head = {8, 0, v4[2], v4[3], 0x12, 0x34, 0xff, 0xfe, 1};
    EXPECT_EQ(bytes(v4.begin(), v4.begin() + 9), head);
    EXPECT_EQ(internet_checksum(v4.data(), v4.size()), 0);
    EXPECT_EQ(echo_request(AF_INET6, 1, 1, COOKIE)[0], 128);
}

TEST(IsOurReply, AcceptsOnlyTheAnswerToOurOwnRequests)
{
    for (const char *address : {"192.0.2.1", "fe80::1"}) {
        for (const changed_byte &c : std::initializer_list<changed_byte>{{"type", 0, 3},
                                                                         {"code", 1, 1},
                                                                         {"identifier", 5, 0x35},
                                                                         {"sequence 0", 7, 0},
                                                                         {"sequence not sent yet", 7, 4},
                                                                         {"begin of the cookie", 8, 0},
                                                                         {"end of the cookie", 23, 0}}) {
            exchange x(address);
            EXPECT_TRUE(x.accepted()) << address;
            x.set(c.at, c.value);
            EXPECT_FALSE(x.accepted()) << address << ": " << c.what;
        }
        for (std::size_t length = 0; length < exchange(address).packet.size(); length++) {
            exchange x(address);
            x.packet = bytes(x.packet.begin(), x.packet.begin() + static_cast<long>(length));
            EXPECT_FALSE(x.accepted()) << address << " cut to " << length;
        }
        exchange wrapped(address);
        wrapped.expected.sent = 70000;
        wrapped.set(7, 0);
        EXPECT_TRUE(wrapped.accepted()) << address;
    }
}

TEST(IsOurReply, ReadsTheIpv4Header)
{
    for (const changed_byte &c : std::initializer_list<changed_byte>{{"version", 0, 0x65},
                                                                     {"header too short", 0, 0x44},
                                                                     {"header beyond the packet", 0, 0x4f},
                                                                     {"protocol", 9, IPPROTO_UDP},
                                                                     {"length beyond the packet", 2, 1},
                                                                     {"length below the header", 3, 19},
                                                                     {"message too long", 3, 45},
                                                                     {"checksum", 22, 0}}) {
        exchange x("192.0.2.1");
        x.packet.resize(60); // padding up to the least size of a frame
        EXPECT_TRUE(x.accepted());
        x.packet.at(c.at) = c.value;
        EXPECT_FALSE(x.accepted()) << c.what;
    }
    EXPECT_TRUE(exchange("192.0.2.1", 40).accepted()) << "options";
}

TEST(IsOurReply, ComesFromTheProbedHost)
{
    const struct {
        host_address probed, from;
        bool ours;
    } cases[] = {
        {host("192.0.2.1"), host("192.0.2.2"), false},  {host("fe80::1"), host("fe80::2"), false},
        {host("fe80::1"), host("192.0.2.1"), false},    {host("fe80::1"), host("fe80::1", 7), true},
        {host("fe80::1", 7), host("fe80::1", 7), true}, {host("fe80::1", 7), host("fe80::1", 8), false},
    };
    for (const auto &c : cases) {
        exchange x(c.probed.any.sa_family == AF_INET ? "192.0.2.1" : "fe80::1");
        x.expected.address = c.probed;
        x.from = c.from;
        EXPECT_EQ(x.accepted(), c.ours) << "case " << &c - cases;
    }
}

namespace
{

/// Sends a message as an echo reply from the given address, with a checksum that is off by sum_error.
void send_reply(bytes message, const char *source, int sum_error = 0)
{
    message[0] = 0;
    set_checksum(message.data(), message.size());
    message[3] = static_cast<std::uint8_t>(message[3] + sum_error);
    const int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    const host_address from = host(source);
    const host_address to = host("127.0.0.1");
    EXPECT_EQ(bind(fd, &from.any, sizeof from.v4), 0);
    EXPECT_GT(sendto(fd, message.data(), message.size(), 0, &to.any, sizeof to.v4), 0);
    close(fd);
}

/// Answers each request to 127.0.0.1 with replies that are all wrong in one point.
void respond_wrongly(int fd, const std::atomic<bool> &stop, int *requests)
{
    std::array<std::uint8_t, 128> packet{};
    while (!stop) {
        const ssize_t n = recv(fd, packet.data(), packet.size(), 0);
        if (n < 44 || packet[20] != 8)
            continue;
        ++*requests;
        const bytes request(packet.begin() + 20, packet.begin() + n);
        for (const std::size_t at : {5U, 7U, 23U}) { // identifier, sequence, cookie
            bytes other = request;
            other[at] ^= 0x40;
            send_reply(other, "127.0.0.1");
        }
        send_reply(request, "127.0.0.2");
        send_reply(request, "127.0.0.1", 1);
    }
}

/// A network namespace with a loopback interface on which the kernel does not answer.
void enter_quiet_namespace(int *fd)
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    *fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    ifreq request{};
    std::memcpy(request.ifr_name, "lo", 3);
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(*fd, SIOCSIFFLAGS, &request), 0);
    const timeval tick{0, 50'000};
    ASSERT_EQ(setsockopt(*fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick), 0);
    std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << 1;
}

} // namespace

TEST(Probe, IsSilentForTheWholeTimeDespiteForeignRepliesAndSignals)
{
    int fd = -1;
    ASSERT_NO_FATAL_FAILURE(enter_quiet_namespace(&fd));
    struct sigaction action {
    };
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    std::atomic<bool> stop = false;
    int requests = 0;
    std::thread responder(respond_wrongly, fd, std::cref(stop), &requests);

    const itimerval every_20_ms{{0, 20'000}, {0, 20'000}};
    EXPECT_EQ(setitimer(ITIMER_REAL, &every_20_ms, nullptr), 0);
    const auto start = std::chrono::steady_clock::now();
    probe_report report{};
    EXPECT_EQ(qorping_probe({host("127.0.0.1"), 0}, 2, &report), PROBE_SILENT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    const itimerval off{};
    EXPECT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);

    stop = true;
    responder.join();
    close(fd);
    EXPECT_GE(requests, 1);
    EXPECT_LE(requests, 2);
}
