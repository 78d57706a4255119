/// Spoils good replies and feeds them to is_our_reply: whatever it accepts holds the unguessable part.
#include "fuzz_input.h"
#include "icmp_echo.h"

#include <cstring>
#include <vector>

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
        // Pairs of position and new value; a position beyond the packet sets its length instead.
        for (std::size_t i = 0; i + 1 < size; i += 2) {
            if (data[i] < packet.size())
                packet[data[i]] = data[i + 1];
            else
                packet.resize(data[i + 1]);
        }
        const auto copy = packet; // no slack that hides a read beyond it
        const bool ours = is_our_reply(expected, copy.data(), copy.size(), expected.address);
        const auto &cookie = expected.cookie;
        require(ours ? memmem(copy.data(), copy.size(), cookie.data(), cookie.size()) != nullptr : size > 0);
    }
    return 0;
}
