/// Spoils good replies and feeds them to is_our_reply: whatever it accepts holds the unguessable part.
#include "fuzz_input.h"
#include "icmp_echo.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    for (const bool v4 : {true, false}) {
        const sa_family_t family = v4 ? AF_INET : AF_INET6;
        const reply_expectation expected{{{family, 0, 0, {}, 0}}, v4, 0, 5, {'C', 'o', 'o', 'k', 'i', 'e'}};
        const echo_packet request = echo_request(family, 0, 3, expected.cookie);
        std::vector<std::uint8_t> packet = {0x45, 0, 0, 44, 0, 0, 0, 0, 0, IPPROTO_ICMP};
        packet.resize(v4 ? 20 : 0);
        packet.insert(packet.end(), request.begin(), request.end());
        packet[v4 ? 20 : 0] = v4 ? 0 : 129;
        packet[v4 ? 22 : 2] += 8; // as much as the type went down, in the complement of the sum
        spoil(&packet, data, size);
        const bool ours = is_our_reply(expected, packet.data(), packet.size(), expected.address);
        const auto &cookie = expected.cookie;
        require(ours ? memmem(packet.data(), packet.size(), cookie.data(), cookie.size()) != nullptr
                     : size > 0);
    }
    return 0;
}
