/// Spoils good replies and feeds them to is_our_reply: whatever it accepts holds the unguessable part.
#include "icmp_echo.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <sys/socket.h>

namespace
{

void judge(bool v4, const std::uint8_t *edits, std::size_t size)
{
    reply_expectation expected{};
    expected.address.any.sa_family = v4 ? AF_INET : AF_INET6;
    expected.ip_header = v4;
    expected.sent = 5;
    expected.cookie.fill(0x43);
    const echo_packet request = echo_request(expected.address.any.sa_family, 0, 3, expected.cookie);
    std::vector<std::uint8_t> packet = {0x45, 0, 0, 44, 0, 0, 0, 0, 0, IPPROTO_ICMP};
    packet.resize(v4 ? 20 : 0);
    packet.insert(packet.end(), request.begin(), request.end());
    packet[v4 ? 20 : 0] = v4 ? 0 : 129;
    if (v4) // the type went down by 8, so the complement of the sum goes up by as much
        packet[22] = static_cast<std::uint8_t>(packet[22] + 8);

    // Pairs of position and new value; a position beyond the packet sets its length instead.
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        if (edits[i] < packet.size())
            packet[edits[i]] = edits[i + 1];
        else
            packet.resize(edits[i + 1]);
    }
    const std::vector<std::uint8_t> exact(packet.begin(),
                                          packet.end()); // no slack that hides a read beyond it
    const bool ours = is_our_reply(expected, exact.data(), exact.size(), expected.address);
    if (size == 0 ? !ours
                  : ours && std::search(exact.begin(), exact.end(), expected.cookie.begin(),
                                        expected.cookie.end()) == exact.end())
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    judge(true, data, size);
    judge(false, data, size);
    return 0;
}
