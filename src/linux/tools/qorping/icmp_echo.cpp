#include "icmp_echo.h"

#include "wire.h"

#include <algorithm>
#include <cstring>

#include <netinet/icmp6.h>

namespace
{

// RFC 792; <netinet/ip_icmp.h> and <linux/icmp.h> exclude each other, and this file needs two numbers.
constexpr std::uint8_t icmpv4_echo_reply = 0;
constexpr std::uint8_t icmpv4_echo_request = 8;

constexpr std::size_t type_at = 0;
constexpr std::size_t code_at = 1;
constexpr std::size_t checksum_at = 2;
constexpr std::size_t identifier_at = 4;
constexpr std::size_t sequence_at = 6;
constexpr std::size_t data_at = 8;

constexpr std::size_t ipv4_header_min = 20;

/// Moves packet and length from the whole IPv4 packet to the ICMP message in it; false when it holds none.
/// What follows the packet's own length is padding.
bool skip_ipv4_header(const std::uint8_t **packet, std::size_t *length)
{
    const std::uint8_t *header = *packet;
    if (*length < ipv4_header_min || header[0] >> 4 != 4 || header[9] != IPPROTO_ICMP) {
        return false;
    }
    const std::size_t header_length = static_cast<std::size_t>(header[0] & 0x0f) * 4;
    const std::size_t total_length = get16(header + 2);
    if (header_length < ipv4_header_min || total_length < header_length || total_length > *length) {
        return false;
    }
    *packet += header_length;
    *length = total_length - header_length;
    return true;
}

/// RFC 4443, 4.2: "The source address of an Echo Reply sent in response to a unicast Echo Request message
/// MUST be the same as the destination address of that Echo Request message." RFC 792 asks the same of IPv4.
bool is_probed_host(const host_address &probed, const host_address &from)
{
    return same_address(from, probed) && (!is_link_local(probed) || probed.v6.sin6_scope_id == 0 ||
                                          from.v6.sin6_scope_id == probed.v6.sin6_scope_id);
}

bool was_sent(std::uint16_t sequence, std::uint32_t sent)
{
    return static_cast<std::uint16_t>(sequence - 1) < sent;
}

} // namespace

std::uint16_t internet_checksum(const std::uint8_t *bytes, std::size_t length)
{
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < length; i++) {
        sum += i % 2 == 0 ? static_cast<std::uint64_t>(bytes[i]) << 8 : bytes[i];
    }
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

echo_packet echo_request(sa_family_t family, std::uint16_t identifier, std::uint16_t sequence,
                         const echo_cookie &cookie)
{
    echo_packet packet{};
    packet[type_at] = family == AF_INET ? icmpv4_echo_request : ICMP6_ECHO_REQUEST;
    put16(&packet[identifier_at], identifier);
    put16(&packet[sequence_at], sequence);
    std::copy(cookie.begin(), cookie.end(), packet.begin() + data_at);
    if (family == AF_INET) {
        put16(&packet[checksum_at], internet_checksum(packet.data(), packet.size()));
    }
    return packet;
}

bool is_our_reply(const reply_expectation &expected, const std::uint8_t *packet, std::size_t length,
                  const host_address &from)
{
    if (!is_probed_host(expected.address, from)) {
        return false;
    }
    if (expected.ip_header && !skip_ipv4_header(&packet, &length)) {
        return false;
    }

    // RFC 792: "The data received in the echo message must be returned in the echo reply message."
    // RFC 4443, 4.2: "returned entirely and unmodified". So the length is the request's, no more and no less.
    if (length != std::tuple_size_v<echo_packet>) {
        return false;
    }
    const bool v4 = expected.address.any.sa_family == AF_INET;
    if (packet[type_at] != (v4 ? icmpv4_echo_reply : ICMP6_ECHO_REPLY) || packet[code_at] != 0) {
        return false;
    }
    // A raw IPv4 socket gets its packets before the kernel has verified the ICMP checksum.
    if (v4 && internet_checksum(packet, length) != 0) {
        return false;
    }
    return get16(packet + identifier_at) == expected.identifier &&
           was_sent(get16(packet + sequence_at), expected.sent) &&
           std::memcmp(packet + data_at, expected.cookie.data(), expected.cookie.size()) == 0;
}
