#include "link_probe.h"

#include "wire.h"

#include <algorithm>
#include <cstring>

#include <net/ethernet.h>
#include <net/if_arp.h>
#include <netinet/icmp6.h>

namespace
{

constexpr std::size_t ip_length = sizeof(in_addr);

// The fixed part of an ARP packet (RFC 826); sender and target follow, each a hardware and
// a protocol address.
constexpr std::size_t arp_type_at = 0;
constexpr std::size_t arp_protocol_at = 2;
constexpr std::size_t arp_hardware_length_at = 4;
constexpr std::size_t arp_protocol_length_at = 5;
constexpr std::size_t arp_operation_at = 6;
constexpr std::size_t arp_sender_at = 8;

// A neighbour solicitation or advertisement (RFC 4861, 4.3 and 4.4); options follow the target.
constexpr std::size_t nd_type_at = 0;
constexpr std::size_t nd_code_at = 1;
constexpr std::size_t nd_flags_at = 4;
constexpr std::size_t nd_target_at = 8;
constexpr std::size_t nd_options_at = 24;
constexpr std::uint8_t nd_solicited_flag = 0x40;

/// Options are counted in units of 8 bytes.
constexpr std::size_t nd_option_unit = 8;

/// RFC 4861, 7.1: a packet that was forwarded on its way can't have this.
constexpr int link_hop_limit = 255;

/// RFC 4391, 9.3: two reserved bytes precede InfiniBand's address in the option.
std::size_t option_padding(const network_link &link)
{
    return link.hardware_type == ARPHRD_INFINIBAND ? 2 : 0;
}

/// RFC 4861, 7.1: "All included options have a length that is greater than zero." Nothing may be cut off.
/// *source_address tells whether a source link-layer address is among them.
bool options_are_whole(const neighbour_message &message, bool *source_address)
{
    *source_address = false;
    std::size_t at = nd_options_at;
    while (at < message.length) {
        if (message.length - at < nd_option_unit) {
            return false;
        }
        const std::size_t option_length = message.bytes[at + 1] * nd_option_unit;
        if (option_length == 0 || option_length > message.length - at) {
            return false;
        }
        *source_address = *source_address || message.bytes[at] == ND_OPT_SOURCE_LINKADDR;
        at += option_length;
    }
    return true;
}

/// RFC 4861, 7.1.2: "If the IP Destination Address is a multicast address the Solicited flag is zero."
bool is_advertisement(const neighbour_message &message)
{
    return message.bytes[nd_type_at] == ND_NEIGHBOR_ADVERT &&
           (!IN6_IS_ADDR_MULTICAST(&message.to) || (message.bytes[nd_flags_at] & nd_solicited_flag) == 0);
}

/// RFC 4861, 7.1.1: from the unspecified address it goes to the solicited-node group, without the source
/// link-layer address. From any other source somebody only looks for the owner.
bool is_duplicate_search(const in6_addr &target, const neighbour_message &message, bool source_address)
{
    const in6_addr group = solicited_node_group(target);
    return message.bytes[nd_type_at] == ND_NEIGHBOR_SOLICIT && IN6_IS_ADDR_UNSPECIFIED(&message.from) &&
           IN6_ARE_ADDR_EQUAL(&message.to, &group) && !source_address;
}

} // namespace

std::vector<std::uint8_t> arp_probe(const network_link &link, const in_addr &target)
{
    const std::size_t hardware_length = link.address.length;
    std::vector<std::uint8_t> packet(arp_sender_at + 2 * (hardware_length + ip_length));
    put16(&packet[arp_type_at], link.hardware_type);
    put16(&packet[arp_protocol_at], ETHERTYPE_IP);
    packet[arp_hardware_length_at] = link.address.length;
    packet[arp_protocol_length_at] = ip_length;
    put16(&packet[arp_operation_at], ARPOP_REQUEST);
    std::copy_n(link.address.bytes.begin(), hardware_length, &packet[arp_sender_at]);
    std::memcpy(&packet[packet.size() - ip_length], &target, ip_length);
    return packet;
}

bool is_arp_answer(const network_link &link, const in_addr &target, const std::uint8_t *packet,
                   std::size_t length, hardware_address *owner)
{
    const std::size_t hardware_length = link.address.length;
    const std::size_t sender_ip_at = arp_sender_at + hardware_length;
    const std::size_t target_at = sender_ip_at + ip_length;
    const std::size_t target_ip_at = target_at + hardware_length;
    // Behind it there may be the frame's padding.
    if (length < target_ip_at + ip_length) {
        return false;
    }
    if (get16(packet + arp_type_at) != link.hardware_type ||
        get16(packet + arp_protocol_at) != ETHERTYPE_IP ||
        packet[arp_hardware_length_at] != hardware_length || packet[arp_protocol_length_at] != ip_length ||
        get16(packet + arp_operation_at) != ARPOP_REPLY) {
        return false;
    }
    constexpr in_addr probe_sender = {INADDR_ANY};
    if (std::memcmp(packet + sender_ip_at, &target, ip_length) != 0 ||
        std::memcmp(packet + target_at, link.address.bytes.data(), hardware_length) != 0 ||
        std::memcmp(packet + target_ip_at, &probe_sender, ip_length) != 0) {
        return false;
    }
    *owner = {{}, link.address.length};
    std::copy_n(packet + arp_sender_at, hardware_length, owner->bytes.begin());
    return true;
}

in6_addr solicited_node_group(const in6_addr &address)
{
    in6_addr group = {{{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff}}};
    std::copy_n(&address.s6_addr[13], 3, &group.s6_addr[13]);
    return group;
}

std::vector<std::uint8_t> neighbour_solicitation(const network_link &link, const in6_addr &target)
{
    const std::size_t address_at = nd_options_at + 2 + option_padding(link);
    const std::size_t end = address_at + link.address.length;
    const std::size_t units = (end - nd_options_at + nd_option_unit - 1) / nd_option_unit;
    std::vector<std::uint8_t> packet(nd_options_at + units * nd_option_unit);
    packet[nd_type_at] = ND_NEIGHBOR_SOLICIT;
    std::memcpy(&packet[nd_target_at], &target, sizeof(target));
    packet[nd_options_at] = ND_OPT_SOURCE_LINKADDR;
    packet[nd_options_at + 1] = static_cast<std::uint8_t>(units);
    std::copy_n(link.address.bytes.begin(), link.address.length, &packet[address_at]);
    return packet;
}

bool is_neighbour_answer(const in6_addr &target, const neighbour_message &message)
{
    bool source_address = false;
    return message.hop_limit == link_hop_limit && message.length >= nd_options_at &&
           message.bytes[nd_code_at] == 0 &&
           std::memcmp(message.bytes + nd_target_at, &target, sizeof(target)) == 0 &&
           options_are_whole(message, &source_address) &&
           (is_advertisement(message) || is_duplicate_search(target, message, source_address));
}
