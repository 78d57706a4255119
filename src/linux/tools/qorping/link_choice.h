/// Which links of this host are to be asked for an address.
#ifndef LINK_CHOICE_H
#define LINK_CHOICE_H

#include "host_address.h"
#include "link_probe.h"

struct link_choice {
    std::vector<network_link> links; ///< empty: only an echo request can find the address
    bool decisive;        ///< the address can be on that one link only: who does not answer there has it not
    std::string why_none; ///< for a person
};

/// Chooses by zone, route and this host's addresses, as they are at this moment:
/// - none for an address that this host carries, that is behind a gateway, or whose link has no hardware
///   addresses or no carrier;
/// - the link that zone or route name, which decides;
/// - every link that is up when the address may be on any: a link-local one without zone, one that no route,
///   or only the default route, leads to.
[[nodiscard]] link_choice choose_links(const probe_target &target);

/// Indexes of all interfaces that are up, of whatever kind; empty with errno set when they can't be listed,
/// or with ENETUNREACH when there is none.
[[nodiscard]] std::vector<unsigned> interfaces_up();

#endif
