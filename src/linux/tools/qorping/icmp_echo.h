/// Echo messages of ICMP and ICMPv6: forming a request, and deciding whether a received packet answers it.
/// Nothing here touches a socket or a clock.
#ifndef ICMP_ECHO_H
#define ICMP_ECHO_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "host_address.h"

/// What every request of one run carries as its data. The 16-bit identifier can't keep two runs apart for
/// sure; these 128 random bits do, and nobody who has not seen a request can guess them.
using echo_cookie = std::array<std::uint8_t, 16>;

/// The 8-byte echo header and the cookie.
using echo_packet = std::array<std::uint8_t, 8 + std::tuple_size_v<echo_cookie>>;

/// The checksum of RFC 1071 over the bytes, in host order; 0 over a message that carries a valid one.
[[nodiscard]] std::uint16_t internet_checksum(const std::uint8_t *bytes, std::size_t length);

/// Forms an echo request.
///
/// The checksum is filled in for IPv4 only: that of ICMPv6 covers the IPv6 header too, which only the kernel
/// knows, and the kernel always sets it (RFC 3542, 3.1).
///
/// @param family  AF_INET or AF_INET6
[[nodiscard]] echo_packet echo_request(sa_family_t family, std::uint16_t identifier, std::uint16_t sequence,
                                       const echo_cookie &cookie);

/// What an answer to one run's requests looks like.
struct reply_expectation {
    host_address address;     ///< the probed host; a non-zero sin6_scope_id also fixes the link
    bool ip_header;           ///< packets start with their IPv4 header, as raw IPv4 sockets deliver them
    std::uint16_t identifier; ///< of all requests
    std::uint32_t sent;       ///< requests sent so far; their sequence numbers start at 1 and wrap
    echo_cookie cookie;
};

/// Tells whether a received packet is an echo reply from the probed address to a request of this run.
///
/// @param packet  what arrived: anything at all, of any length
/// @param length  bytes received; a packet that a buffer of 84 bytes or more cut off is never taken for ours
/// @param from    the sender as the socket reported it
[[nodiscard]] bool is_our_reply(const reply_expectation &expected, const std::uint8_t *packet,
                                std::size_t length, const host_address &from);

#endif
