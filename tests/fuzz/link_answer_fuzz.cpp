/// Spoils good answers of a link: whatever is accepted names the target at its place, and comes from the
/// link.
#include "fuzz_input.h"
#include "link_probe.h"

#include <algorithm>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const network_link link = {1, "eth0", 1, {{2, 0, 0, 0, 0, 1}, 6}, {{}, 6}};
    const in6_addr target6 = {{{0x20, 1, 13, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}}};
    const in_addr target = {9};
    std::vector<std::uint8_t> arp = arp_probe(link, target), advert = neighbour_solicitation(link, target6);
    std::swap_ranges(arp.begin() + 8, arp.begin() + 18, arp.begin() + 18);
    arp[7] = 2;
    advert[0] = 136;
    spoil(&arp, data, size);
    spoil(&advert, data, size);
    hardware_address owner = {};
    const bool arp_ours = is_arp_answer(link, target, arp.data(), arp.size(), &owner);
    require(arp_ours ? memcmp(&arp[14], &target, 4) == 0 && owner.length == 6 : size > 0);
    const bool advert_ours = is_neighbour_answer(target6, {target6, {}, 255, advert.data(), advert.size()});
    require(advert_ours ? memcmp(&advert[8], &target6, 16) == 0 : size > 0);
    return 0;
}
