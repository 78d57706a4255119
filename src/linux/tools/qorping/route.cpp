#include "route.h"

#include "rtnetlink.h"

#include <linux/neighbour.h>
#include <sys/socket.h>

namespace
{

/// A route that refuses its packets comes as an error, as if there were none.
route_match judge(const nl_route &route)
{
    if (route.type != RTN_UNICAST) {
        return {ROUTE_HERE, 0};
    }
    if (route.masklen == 0) {
        return {ROUTE_OPEN, 0};
    }
    if (route.gateway) {
        return {ROUTE_GATEWAY, 0};
    }
    // A route whose hops are told otherwise (several of them, or an object of their own) says
    // nothing for sure.
    return route.ifindex == 0 ? route_match{ROUTE_OPEN, 0}
                              : route_match{ROUTE_LINK, static_cast<unsigned>(route.ifindex)};
}

} // namespace

route_match find_route(const host_address &address)
{
    const bool v4 = address.any.sa_family == AF_INET;
    rtmsg body = {};
    body.rtm_family = static_cast<unsigned char>(address.any.sa_family);
    body.rtm_dst_len = v4 ? 32 : 128;
    body.rtm_flags = RTM_F_FIB_MATCH; // the route itself, whose prefix tells a default route from others
    nl_socket kernel;
    nl_request request;
    nl_list answer;
    nl_begin(&request, RTM_GETROUTE, 0, body);
    if (v4) {
        nl_add(&request, RTA_DST, address.v4.sin_addr);
    } else {
        nl_add(&request, RTA_DST, address.v6.sin6_addr);
    }
    nl_route route = {};
    const bool found = nl_open(&kernel, 0) == 0 && nl_exchange(&kernel, &request, &answer) == 0 &&
                       nl_first(answer) != nullptr && nl_read_route(nl_first(answer), &route);
    return found ? judge(route) : route_match{ROUTE_OPEN, 0};
}

void note_neighbour(const network_link &link, const in_addr &address, const hardware_address &owner)
{
    ndmsg body = {};
    body.ndm_family = AF_INET;
    body.ndm_ifindex = static_cast<int>(link.index);
    body.ndm_state = NUD_STALE;
    nl_socket kernel;
    nl_request request;
    nl_list answer;
    nl_begin(&request, RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_EXCL, body);
    nl_add(&request, NDA_DST, address);
    nl_add(&request, NDA_LLADDR, owner.bytes.data(), owner.length);
    if (nl_open(&kernel, 0) == 0) {
        static_cast<void>(nl_exchange(&kernel, &request, &answer));
    }
}
