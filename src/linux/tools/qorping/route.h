/// What the kernel's routing knows about an address, by rtnetlink(7).
#ifndef ROUTE_H
#define ROUTE_H

#include "host_address.h"
#include "link_probe.h"

enum route_kind {
    ROUTE_OPEN,    ///< no route, one that refuses, only a default route, or several hops: it may be anywhere
    ROUTE_HERE,    ///< the address stays on this host, or stands for no single host
    ROUTE_GATEWAY, ///< a router is asked to pass packets on
    ROUTE_LINK,    ///< its owner is on the link of one interface
};

struct route_match {
    route_kind kind;
    unsigned interface; ///< ROUTE_LINK: its index
};

/// Looks up the route to an address without zone. A kernel that can't be asked gives ROUTE_OPEN.
[[nodiscard]] route_match find_route(const host_address &address);

/// Tells the kernel's neighbour table whose the address is, unless it has an entry: where no route leads to
/// the address the kernel has never asked, and arp(8) would not know the owner. Needs CAP_NET_ADMIN;
/// without it nothing is noted, and nothing else depends on it.
void note_neighbour(const network_link &link, const in_addr &address, const hardware_address &owner);

#endif
