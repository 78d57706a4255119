/// Spoils good echo replies and answers of a link: what is accepted holds the unguessable part, or names the
/// target at its place and comes from the link.
#include "fuzz_input.h"
#include "icmp_echo.h"
#include "link_probe.h"

#include <algorithm>
#include <cstring>

using bytes = std::vector<std::uint8_t>;

/// By pairs of position and new value; a position beyond the packet sets its length instead.
static bytes spoilt(bytes packet, std::string_view pairs)
{
    const bytes data(pairs.begin(), pairs.end());
    for (std::size_t i = 0; i + 1 < data.size(); i += 2)
        if (data[i] < packet.size())
            packet[data[i]] = data[i + 1];
        else
            packet.resize(data[i + 1]);
    packet.shrink_to_fit(); // no slack that hides a read beyond it
    return packet;
}

void fuzz(std::string_view input)
{
    for (const bool v4 : {true, false}) {
        const sa_family_t family = v4 ? AF_INET : AF_INET6;
        const reply_expectation expected{{{family, 0, 0, {}, 0}}, v4, 0, 5, {'C', 'o', 'o', 'k', 'i', 'e'}};
        const echo_packet request = echo_request(family, 0, 3, expected.cookie);
        bytes reply = {0x45, 0, 0, 44, 0, 0, 0, 0, 0, IPPROTO_ICMP};
        reply.resize(v4 ? 20 : 0);
        reply.insert(reply.end(), request.begin(), request.end());
        reply[v4 ? 20 : 0] = v4 ? 0 : 129;
        reply[v4 ? 22 : 2] += 8; // as much as the type went down, in the complement of the sum
        reply = spoilt(reply, input);
        const auto &cookie = expected.cookie;
        require(is_our_reply(expected, reply.data(), reply.size(), expected.address)
                    ? memmem(reply.data(), reply.size(), cookie.data(), cookie.size()) != nullptr
                    : !input.empty());
    }
    const network_link link = {1, "eth0", 1, {{2, 0, 0, 0, 0, 1}, 6}, {{}, 6}};
    const in6_addr target6 = {{{0x20, 1, 13, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}}};
    const in_addr target = {9};
    bytes arp = arp_probe(link, target), advert = neighbour_solicitation(link, target6);
    std::swap_ranges(arp.begin() + 8, arp.begin() + 18, arp.begin() + 18);
    arp[7] = 2;
    arp = spoilt(arp, input);
    advert[0] = 136;
    advert = spoilt(advert, input);
    hardware_address owner = {};
    require(is_arp_answer(link, target, arp.data(), arp.size(), &owner)
                ? memcmp(&arp[14], &target, 4) == 0 && owner.length == 6
                : !input.empty());
    require(is_neighbour_answer(target6, {target6, {}, 255, advert.data(), advert.size()})
                ? memcmp(&advert[8], &target6, 16) == 0
                : !input.empty());
}
