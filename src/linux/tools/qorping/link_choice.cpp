#include "link_choice.h"

#include "route.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <system_error>

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>

namespace
{

using interface_list = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

interface_list list_interfaces()
{
    ifaddrs *list = nullptr;
    const bool listed = getifaddrs(&list) == 0;
    return {listed ? list : nullptr, freeifaddrs};
}

/// Each interface has exactly one packet address, with or without IP addresses.
const sockaddr_ll *packet_address(const ifaddrs &entry)
{
    return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_PACKET
               ? reinterpret_cast<const sockaddr_ll *>(entry.ifa_addr)
               : nullptr;
}

/// An address longer than sll_addr runs on behind it, in room that getifaddrs(3) keeps for it.
hardware_address read_hardware_address(const sockaddr *address, std::uint8_t length)
{
    hardware_address read = {{}, length};
    const char *bytes = reinterpret_cast<const char *>(address) + offsetof(sockaddr_ll, sll_addr);
    std::memcpy(read.bytes.data(), bytes, length);
    return read;
}

/// Whether the interface's hosts are found by ARP and neighbour discovery, and it can carry packets
/// now. A tun or ppp device has no hardware addresses; without a carrier nothing goes out, and
/// silence means nothing.
bool can_be_asked(const ifaddrs &entry, const sockaddr_ll &packet)
{
    constexpr unsigned needed = IFF_UP | IFF_RUNNING;
    // Through a bond's port the switch would learn the bond's address in the wrong place; the bond
    // itself is asked.
    return (entry.ifa_flags & (needed | IFF_NOARP | IFF_SLAVE)) == needed &&
           (packet.sll_hatype == ARPHRD_ETHER || packet.sll_hatype == ARPHRD_INFINIBAND) &&
           packet.sll_halen > 0 && packet.sll_halen <= hardware_address{}.bytes.size() &&
           entry.ifa_broadaddr != nullptr;
}

/// All links, or that of one interface.
std::vector<network_link> askable_links(const ifaddrs *list, unsigned interface)
{
    std::vector<network_link> links;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        const sockaddr_ll *packet = packet_address(*entry);
        if (packet == nullptr || !can_be_asked(*entry, *packet)) {
            continue;
        }
        const auto index = static_cast<unsigned>(packet->sll_ifindex);
        if (interface == 0 || index == interface) {
            links.push_back({index, entry->ifa_name, packet->sll_hatype,
                             read_hardware_address(entry->ifa_addr, packet->sll_halen),
                             read_hardware_address(entry->ifa_broadaddr, packet->sll_halen)});
        }
    }
    return links;
}

/// Whether this host has the address: a link-local one with zone on that interface, any other on whichever.
bool is_carried_here(const ifaddrs *list, const probe_target &target)
{
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        host_address own = {};
        if (entry->ifa_addr == nullptr) {
            continue;
        }
        if (entry->ifa_addr->sa_family == AF_INET) {
            std::memcpy(&own.v4, entry->ifa_addr, sizeof(own.v4));
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            std::memcpy(&own.v6, entry->ifa_addr, sizeof(own.v6));
        }
        if (same_address(own, target.address) &&
            (!is_link_local(own) || target.interface == 0 || target.interface == own.v6.sin6_scope_id)) {
            return true;
        }
    }
    return false;
}

/// The route that the zone stands for, or the kernel's.
route_match route_to(const probe_target &target)
{
    if (target.interface != 0) {
        return {ROUTE_LINK, target.interface};
    }
    return is_link_local(target.address) ? route_match{ROUTE_OPEN, 0} : find_route(target.address);
}

} // namespace

link_choice choose_links(const probe_target &target)
{
    const interface_list list = list_interfaces();
    if (!list) {
        return {{}, false, "getifaddrs: " + std::system_category().message(errno)};
    }
    const route_match route = route_to(target);
    if (route.kind == ROUTE_HERE || is_carried_here(list.get(), target)) {
        return {{}, false, "it is of this host, or of no single one"};
    }
    if (route.kind == ROUTE_GATEWAY) {
        return {{}, false, "it is behind a gateway"};
    }
    std::vector<network_link> links = askable_links(list.get(), route.interface);
    return {std::move(links), route.kind == ROUTE_LINK,
            "no link with hardware addresses and a carrier leads there"};
}

std::vector<unsigned> interfaces_up()
{
    std::vector<unsigned> indexes;
    const interface_list list = list_interfaces();
    if (!list) {
        return indexes;
    }
    for (const ifaddrs *entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        const sockaddr_ll *packet = packet_address(*entry);
        if (packet != nullptr && (entry->ifa_flags & IFF_UP) != 0) {
            indexes.push_back(static_cast<unsigned>(packet->sll_ifindex));
        }
    }
    if (indexes.empty()) {
        errno = ENETUNREACH;
    }
    return indexes;
}
