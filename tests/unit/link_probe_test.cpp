#include "link_probe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>

using bytes = std::vector<std::uint8_t>;

const network_link ethernet = {3, "eth0", ARPHRD_ETHER, {{2, 0, 0, 0, 0, 1}, 6}, {{}, 6}};
const network_link infiniband = {4, "ib0", ARPHRD_INFINIBAND, {{0x80, 0, 0, 0x48, 0xfe, 0x80}, 20}, {{}, 20}};
const in_addr target = {htonl(0xc0000209)}; // 192.0.2.9

in6_addr v6(const char *text)
{
    in6_addr address = {};
    EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1);
    return address;
}
const in6_addr target6 = v6("2001:db8::12:3456"); // its group is ff02::1:ff12:3456

bytes operator+(bytes head, const bytes &tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}
const bytes target6_bytes(target6.s6_addr, target6.s6_addr + 16);

TEST(LinkQuestion, HasTheLayoutOfTheLink)
{
    const bytes sender = {2, 0, 0, 0, 0, 1, 0, 0, 0, 0}, asked = {0, 0, 0, 0, 0, 0, 192, 0, 2, 9};
    EXPECT_EQ(arp_probe(ethernet, target), bytes({0, 1, 8, 0, 6, 4, 0, 1}) + sender + asked);
    const bytes head = bytes({135, 0, 0, 0, 0, 0, 0, 0}) + target6_bytes, mac = {1, 1, 2, 0, 0, 0, 0, 1};
    EXPECT_EQ(neighbour_solicitation(ethernet, target6), head + mac);
    const bytes option = {1, 3, 0, 0, 0x80, 0, 0, 0x48, 0xfe, 0x80}; // padded by two bytes in front
    EXPECT_EQ(neighbour_solicitation(infiniband, target6), head + option + bytes(14));
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
        for (auto end = reply.begin(); end != reply.end(); ++end) {
            EXPECT_FALSE(accepted(bytes(reply.begin(), end))) << end - reply.begin();
        }
        // Types and lengths, operation; another owner, for another host, and what a proxy answers the kernel.
        for (const std::size_t at :
             {1ul, 2ul, 4ul, 5ul, 7ul, 11 + hardware, 12 + hardware, 15 + 2 * hardware}) {
            bytes packet = reply;
            packet[at] ^= 3;
            EXPECT_FALSE(accepted(packet)) << at;
        }
    }
}

TEST(IsNeighbourAnswer, AcceptsAdvertisementsAndTheSearchForDuplicatesOnly)
{
    const char *const us = "fe80::1", *const owner = "fe80::2", *const group = "ff02::1:ff12:3456";
    const bytes advert = {136, 0, 0, 0, 0x60}, unsolicited = {136, 0, 0, 0, 0x20}, search = {135, 0, 0, 0, 0};
    const bytes target_option = {2, 1, 2, 0, 0, 0, 0, 9}, source_option = {1, 1, 2, 0, 0, 0, 0, 9};
    // WHAT, WHETHER ACCEPTED, FROM, TO, HOP LIMIT, HEAD before and OPTIONS behind the target
    const std::tuple<const char *, bool, const char *, const char *, int, bytes, bytes> cases[] = {
        {"advertisement", true, owner, us, 255, advert, target_option},
        {"without options", true, owner, us, 255, advert, {}},
        {"unsolicited, to all", true, owner, "ff02::1", 255, unsolicited, target_option},
        {"solicited, but to all", false, owner, "ff02::1", 255, advert, target_option},
        {"forwarded", false, owner, us, 254, advert, target_option},
        {"code", false, owner, us, 255, {136, 1, 0, 0, 0x60}, target_option},
        {"type", false, owner, us, 255, {137, 0, 0, 0, 0x60}, target_option},
        {"option without length", false, owner, us, 255, advert, {2, 0, 0, 0, 0, 0, 0, 0}},
        {"option cut off", false, owner, us, 255, advert, {14, 2, 0, 0, 0, 0, 0, 0}},
        {"half an option", false, owner, us, 255, advert, {2, 1, 2, 0}},
        {"search for duplicates", true, "::", group, 255, search, {}},
        {"the same with a nonce", true, "::", group, 255, search, {14, 1, 1, 2, 3, 4, 5, 6}},
        {"the same with its address", false, "::", group, 255, search, source_option},
        {"the same to another group", false, "::", "ff02::1:ff12:3457", 255, search, {}},
        {"the same from a router beyond", false, "::", group, 64, search, {}},
        {"somebody looks for the owner", false, "fe80::3", group, 255, search, {}},
    };
    for (const auto &[what, is_one, from, to, hop_limit, head, options] : cases) {
        const bytes packet = head + bytes(8 - head.size()) + target6_bytes + options;
        const auto accepted = [&](const in6_addr &probed, bytes cut) { // no slack behind it
            return is_neighbour_answer(probed, {v6(from), v6(to), hop_limit, cut.data(), cut.size()});
        };
        EXPECT_EQ(accepted(target6, packet), is_one) << what;
        EXPECT_FALSE(accepted(v6("2001:db8::13:3456"), packet)) << what << " for another address";
        for (auto end = packet.begin(); end != packet.begin() + 24; ++end) {
            EXPECT_FALSE(accepted(target6, bytes(packet.begin(), end))) << what << " cut";
        }
    }
}
