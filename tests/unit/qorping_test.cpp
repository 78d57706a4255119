#include "echo_socket.h"
#include "link_socket.h"
#include "probe.h"
#include "wire.h"

#include <csignal>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <sys/time.h>

static std::string questions; // what becomes of the next ones to a link: 'x' fails, with this error
static int failure;

extern "C" ssize_t __real_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);
extern "C" ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                                 socklen_t length)
{
    if (to->sa_family == AF_PACKET && !questions.empty()) {
        const bool fails = questions[0] == 'x';
        questions.erase(0, 1);
        errno = failure;
        if (fails)
            return -1;
    }
    return __real_sendto(fd, data, size, flags, to, length);
}

using bytes = std::vector<std::uint8_t>;

constexpr echo_cookie COOKIE = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

bytes operator+(bytes head, const bytes &tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

host_address host(const char *text, unsigned scope = 0)
{
    host_address address{{AF_INET6, 0, 0, {}, scope}};
    if (inet_pton(AF_INET6, text, &address.v6.sin6_addr) != 1)
        address.any.sa_family = inet_pton(AF_INET, text, &address.v4.sin_addr) == 1 ? AF_INET : AF_UNSPEC;
    return address;
}

/// The packet with one byte of its ICMP message changed and the checksum right again.
bytes changed(bytes packet, std::uint8_t at, std::uint8_t value)
{
    const auto message = packet.end() - sizeof(echo_packet);
    message[at] = value;
    put16(&message[2], 0);
    put16(&message[2], internet_checksum(&*message, sizeof(echo_packet)));
    return packet;
}

/// A good reply to the second request.
bytes reply_from(const host_address &probed)
{
    const bool v4 = probed.any.sa_family == AF_INET;
    const echo_packet request = echo_request(probed.any.sa_family, 0x1234, 2, COOKIE);
    const bytes header = bytes({0x45, 0, 0, 44, 0, 0, 0, 0, 0, IPPROTO_ICMP}) + bytes(10);
    return changed((v4 ? header : bytes()) + bytes(request.begin(), request.end()), 0, v4 ? 0 : 129);
}

bool accepted(const bytes &packet, const host_address &probed, const host_address &from, unsigned sent = 3)
{
    const reply_expectation expected = {probed, probed.any.sa_family == AF_INET, 0x1234, sent, COOKIE};
    return is_our_reply(expected, packet.data(), packet.size(), from);
}

struct change {
    const char *what;
    std::uint8_t at, value;
};

TEST(IsOurReply, AcceptsOnlyTheAnswerToOurOwnRequests)
{
    const host_address v4 = host("192.0.2.1"), v6 = host("fe80::1"), zoned = host("fe80::1", 7);
    const change changes[] = {{"type", 0, 3},           {"code", 1, 1},         {"identifier", 5, 0x35},
                              {"sequence", 7, 0},       {"not sent yet", 7, 4}, {"first of cookie", 8, 0},
                              {"last of cookie", 23, 0}};
    for (const host_address &probed : {v4, v6, zoned}) {
        const bytes good = reply_from(probed);
        EXPECT_TRUE(accepted(good, probed, probed));
        for (const auto &[what, at, value] : changes)
            EXPECT_FALSE(accepted(changed(good, at, value), probed, probed)) << what;
        for (auto end = good.begin(); end != good.end(); ++end)
            EXPECT_FALSE(accepted(bytes(good.begin(), end), probed, probed)) << end - good.begin();
    }
    EXPECT_FALSE(accepted(reply_from(v4), v4, host("192.0.2.2")));
    EXPECT_FALSE(accepted(reply_from(v6), v6, host("fe80::2")));
    EXPECT_TRUE(accepted(reply_from(v6), v6, zoned));
    EXPECT_FALSE(accepted(reply_from(v6), zoned, host("fe80::1", 8)));
}

TEST(IsOurReply, ReadsTheIpv4Header)
{
    const host_address probed = host("192.0.2.1");
    bytes packet = changed(reply_from(probed), 7, 0);
    packet.insert(packet.begin() + 20, 40, 0); // options
    packet[0] = 0x4f;
    packet[3] = 84;
    packet.resize(100); // padding
    EXPECT_TRUE(accepted(packet, probed, probed, 70000)) << "the sequence numbers have wrapped";
    const change changes[] = {{"version", 0, 0x6f},    {"short header", 0, 0x4e}, {"protocol", 9, 17},
                              {"beyond packet", 2, 1}, {"into padding", 3, 85},   {"checksum", 62, 0}};
    for (const auto &[what, at, value] : changes) {
        bytes spoilt = packet;
        spoilt[at] = value;
        EXPECT_FALSE(accepted(spoilt, probed, probed, 70000)) << what;
    }
}

const network_link ethernet = {3, "eth0", ARPHRD_ETHER, {{2, 0, 0, 0, 0, 1}, 6}, {{}, 6}};
const network_link infiniband = {4, "ib0", ARPHRD_INFINIBAND, {{0x80, 0, 0, 0x48, 0xfe, 0x80}, 20}, {{}, 20}};
const in_addr target = {htonl(0xc0000209)}; // 192.0.2.9

const in6_addr target6 = host("2001:db8::12:3456").v6.sin6_addr;
const bytes target6_bytes(target6.s6_addr, target6.s6_addr + 16);

TEST(LinkQuestion, HasRoomForALongHardwareAddress)
{
    const auto &from = infiniband.address.bytes;
    const bytes sender(from.begin(), from.begin() + 20), asked = {192, 0, 2, 9};
    EXPECT_EQ(arp_probe(infiniband, target), bytes({0, 32, 8, 0, 20, 4, 0, 1}) + sender + bytes(24) + asked);
    const bytes head = {135, 0, 0, 0, 0, 0, 0, 0}, option = {1, 3, 0, 0}; // padded by two bytes in front
    EXPECT_EQ(neighbour_solicitation(infiniband, target6), head + target6_bytes + option + sender);
}

TEST(IsArpAnswer, AcceptsOnlyAReplyToOurProbe)
{
    for (const network_link &link : {ethernet, infiniband}) {
        const std::size_t hardware = link.address.length;
        bytes reply = arp_probe(link, target);
        std::swap_ranges(&reply[8], &reply[12 + hardware], &reply[12 + hardware]); // sender and target
        reply[7] = ARPOP_REPLY;
        reply[8] = 0xee;
        hardware_address owner = {};
        const auto accepted = [&](const bytes &packet) {
            return is_arp_answer(link, target, bytes(packet).data(), packet.size(), &owner);
        };
        EXPECT_TRUE(accepted(reply + bytes(18))) << "padding";
        EXPECT_TRUE(owner.bytes[0] == 0xee && owner.length == hardware);
        for (auto end = reply.begin(); end != reply.end(); ++end)
            EXPECT_FALSE(accepted(bytes(reply.begin(), end))) << end - reply.begin();
        const std::size_t link_type = 1, protocol = 2, link_length = 4, length = 5, operation = 7,
                          owner_ip = 11 + hardware, asker = 12 + hardware, asker_ip = 15 + 2 * hardware;
        for (const std::size_t at :
             {link_type, protocol, link_length, length, operation, owner_ip, asker, asker_ip}) {
            bytes packet = reply;
            packet[at] ^= 3;
            EXPECT_FALSE(accepted(packet)) << at;
        }
    }
}

TEST(IsNeighbourAnswer, AcceptsAdvertisementsAndTheSearchForDuplicatesOnly)
{
    const char *const us = "fe80::1", *const owner = "fe80::2";
    const char *const all = "ff02::1", *const group = "ff02::1:ff12:3456"; // the target's
    const bytes advert = {136, 0, 0, 0, 0x60}, unsolicited = {136, 0, 0, 0, 0x20}, search = {135, 0, 0, 0, 0};
    const bytes target_option = {2, 1, 2, 0, 0, 0, 0, 9}, source_option = {1, 1, 2, 0, 0, 0, 0, 9}, no_option;
    const auto is_answer = [&](const char *from, const char *to, int hop_limit, const bytes &head,
                               const bytes &options) {
        const bytes packet = head + bytes(8 - head.size()) + target6_bytes + options;
        const auto accepted = [&](const in6_addr &probed, bytes cut) { // no slack behind it
            return is_neighbour_answer(
                probed, {host(from).v6.sin6_addr, host(to).v6.sin6_addr, hop_limit, cut.data(), cut.size()});
        };
        EXPECT_FALSE(accepted(host("2001:db8::13:3456").v6.sin6_addr, packet)) << "another target";
        for (auto end = packet.begin(); end != packet.begin() + 24; ++end)
            EXPECT_FALSE(accepted(target6, bytes(packet.begin(), end))) << "cut";
        return accepted(target6, packet);
    };
    EXPECT_TRUE(is_answer(owner, us, 255, advert, target_option));
    EXPECT_TRUE(is_answer(owner, us, 255, advert, no_option));
    EXPECT_TRUE(is_answer(owner, all, 255, unsolicited, target_option));
    EXPECT_FALSE(is_answer(owner, all, 255, advert, target_option)) << "solicited";
    EXPECT_FALSE(is_answer(owner, us, 254, advert, target_option)) << "forwarded";
    EXPECT_FALSE(is_answer(owner, us, 255, {136, 1, 0, 0, 0x60}, target_option)) << "code";
    EXPECT_FALSE(is_answer(owner, us, 255, {137, 0, 0, 0, 0x60}, target_option)) << "type";
    EXPECT_FALSE(is_answer(owner, us, 255, advert, {2, 0, 0, 0, 0, 0, 0, 0})) << "option without length";
    EXPECT_FALSE(is_answer(owner, us, 255, advert, {14, 2, 0, 0, 0, 0, 0, 0})) << "option cut off";
    EXPECT_FALSE(is_answer(owner, us, 255, advert, {2, 1, 2, 0})) << "half an option";
    EXPECT_TRUE(is_answer("::", group, 255, search, no_option));
    EXPECT_TRUE(is_answer("::", group, 255, search, {14, 1, 1, 2, 3, 4, 5, 6})) << "a nonce";
    EXPECT_FALSE(is_answer("::", group, 255, search, source_option));
    EXPECT_FALSE(is_answer("::", "ff02::1:ff12:3457", 255, search, no_option)) << "another group";
    EXPECT_FALSE(is_answer("::", group, 64, search, no_option)) << "from a router beyond";
    EXPECT_FALSE(is_answer("fe80::3", group, 255, search, no_option)) << "somebody looks for the owner";
}

void enter_network(const std::string &more)
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    ASSERT_EQ(system(("ip link set lo up && " + more).c_str()), 0); // NOLINT
}

TEST(Sockets, FindTheReplyBehindAFloodOfForeignOnes)
{
    enter_network("true");
    const host_address probed = host("127.0.0.2"), here = host("127.0.0.1");
    echo_socket echo;
    const char *step = nullptr;
    ASSERT_EQ(open_echo_socket({probed, 0}, &echo, &step), 0);
    const bytes reply = reply_from(probed);
    const int raw = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(sendto(raw, &reply[20], 24, 0, &here.any, sizeof(here.v4)), 24);
    echo_errors errors = {};
    send_echo(&echo, &errors);
    int looks = 500;
    while (!read_echo_reply(echo) && --looks > 0)
        usleep(10'000);
    EXPECT_GT(looks, 0);
}

TEST(Sockets, FindTheLinksAnswerBehindAFloodOfForeignOnes)
{
    enter_network("true");
    const network_link lo = {1, "lo", 1, {{2, 0, 0, 0, 0, 1}, 6}, {{}, 6}};
    link_socket link;
    ASSERT_EQ(open_link_socket(host("127.0.0.2"), &link), 0);
    bytes answer = {0, 1, 8, 0, 6, 4, 0, 2, 2, 0, 0, 0, 0, 7, 127, 0, 0, 3, 2, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    std::uint8_t &owner_end = answer[13], &address_end = answer[17];
    sockaddr_ll to = {AF_PACKET, htons(ETHERTYPE_ARP), 1, 0, 0, 6, {}}; // to lo's own hardware address
    const int packet = socket(AF_PACKET, SOCK_DGRAM, 0);
    const auto send_answer = [&] {
        ASSERT_EQ(sendto(packet, answer.data(), 28, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), 28);
    };
    for (int i = 0; i < 2000; ++i)
        send_answer();
    address_end = 2;
    to.sll_addr[5] = 1; // for another host
    send_answer();
    owner_end = 9;
    to.sll_addr[5] = 0;
    send_answer();
    hardware_address owner = {};
    for (int looks = 500; read_link_answer(link, {lo}, &owner) == nullptr && looks > 0; --looks)
        usleep(10'000);
    EXPECT_EQ(owner.bytes[5], 9);
}

TEST(Probe, LetsALinkDecideOnlyIfEveryQuestionOfTheLastRoundWentOut)
{
    enter_network("ip link add v0 type veth peer name v1 && ip link set v1 up && ip link set v0 up &&"
                  "ip address add 192.0.2.1/24 dev v0");
    usleep(100'000); // the link's state is told to others a little later
    const auto probe = [](const char *becomes_of_questions, int error, unsigned rounds, int waited_ms) {
        questions = becomes_of_questions;
        failure = error;
        probe_report report = {};
        const probe_outcome outcome = qorping_probe({host("192.0.2.9"), 0}, {rounds, false, false}, &report);
        EXPECT_EQ(report.waited.count(), waited_ms) << becomes_of_questions << ' ' << error;
        return outcome;
    };
    EXPECT_EQ(probe("...", 0, 1, 400), PROBE_SILENT);
    EXPECT_EQ(probe("x..", ENOBUFS, 1, 1000), PROBE_SILENT);
    EXPECT_EQ(probe("..x", ENOBUFS, 1, 1000), PROBE_SILENT);
    EXPECT_EQ(probe("xxx", EPERM, 1, 1000), PROBE_SILENT);
    EXPECT_EQ(probe("xxx", ENOBUFS, 1, 1000), PROBE_FAILED);
    EXPECT_EQ(probe("x..", ENOBUFS, 2, 1400), PROBE_SILENT);
}

TEST(Probe, IsSilentForTheWholeTimeDespiteSignals)
{
    enter_network("echo 1 >/proc/sys/net/ipv4/icmp_echo_ignore_all");
    std::signal(SIGALRM, [](int) {});
    const itimerval every_20_ms{{0, 20'000}, {0, 20'000}};
    EXPECT_EQ(setitimer(ITIMER_REAL, &every_20_ms, nullptr), 0);
    const auto start = std::chrono::steady_clock::now();
    probe_report report{};
    EXPECT_EQ(qorping_probe({host("127.0.0.2"), 0}, {2, false, false}, &report), PROBE_SILENT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
