/// The address of one host, and which host a run is to ask for.
#ifndef HOST_ADDRESS_H
#define HOST_ADDRESS_H

#include <netinet/in.h>

/// An IPv4 or IPv6 address in the shape that socket calls take; any.sa_family tells which.
union host_address {
    sockaddr_in6 v6; // first, so that {} clears the whole
    sockaddr_in v4;
    sockaddr any;
};

struct probe_target {
    host_address address; ///< a link-local one with the zone's index in sin6_scope_id
    unsigned interface;   ///< index of the zone's interface; 0 without zone
};

/// Whether both are the same address; zones are not compared.
[[nodiscard]] bool same_address(const host_address &a, const host_address &b);

/// Whether the address means a host only together with a link (RFC 4291, 2.5.6).
[[nodiscard]] bool is_link_local(const host_address &address);

#endif
