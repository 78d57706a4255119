/// Asking on the link itself who has an address: forming ARP probes (RFC 5227) and neighbour solicitations
/// (RFC 4861), and deciding whether a received packet answers them. Nothing here touches a socket or a clock.
#ifndef LINK_PROBE_H
#define LINK_PROBE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <netinet/in.h>

/// A hardware address; InfiniBand's 20 bytes are the longest that is known here.
struct hardware_address {
    std::array<std::uint8_t, 20> bytes;
    std::uint8_t length;
};

/// A network whose hosts have hardware addresses, seen from this host's interface to it.
struct network_link {
    unsigned index;
    std::string name;
    std::uint16_t hardware_type; ///< ARPHRD_ETHER, ...
    hardware_address address;    ///< the interface's own
    hardware_address broadcast;
};

/// Forms the ARP probe of RFC 5227, 2.1.1: a request whose sender protocol address is zero, so that it enters
/// no cache.
[[nodiscard]] std::vector<std::uint8_t> arp_probe(const network_link &link, const in_addr &target);

/// Tells whether a received ARP packet is the reply of the target's owner to an ARP probe of ours.
///
/// A reply to the kernel's own request, which carries this host's protocol address, does not count: a router
/// that forwards for the address (proxy ARP) sends such replies for hosts that may not exist.
///
/// @param link    that the packet came from
/// @param packet  what arrived: anything at all, of any length
/// @param owner   set to the owner's hardware address when the packet is one
[[nodiscard]] bool is_arp_answer(const network_link &link, const in_addr &target, const std::uint8_t *packet,
                                 std::size_t length, hardware_address *owner);

/// The group that every owner of the address listens to (RFC 4291, 2.7.1).
[[nodiscard]] in6_addr solicited_node_group(const in6_addr &address);

/// Forms the neighbour solicitation of RFC 4861, 4.3, with the source link-layer address: a host that does
/// not know us can answer no other. The kernel fills in the checksum.
[[nodiscard]] std::vector<std::uint8_t> neighbour_solicitation(const network_link &link,
                                                               const in6_addr &target);

/// A received ICMPv6 message, whose checksum the kernel has verified.
struct neighbour_message {
    in6_addr from;
    in6_addr to;
    int hop_limit;
    const std::uint8_t *bytes; ///< anything at all, of any length
    std::size_t length;
};

/// Tells whether a message shows that a host of the link has the target: an advertisement for it, or the
/// solicitation with which a host that is taking it looks for duplicates (RFC 4862, 5.4.3).
[[nodiscard]] bool is_neighbour_answer(const in6_addr &target, const neighbour_message &message);

#endif
