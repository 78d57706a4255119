#include "guarded_removal.h"

#include "../text.h"
#include "arp.h"
#include "trace_source.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <unordered_set>
#include <vector>

namespace
{

constexpr char self[] = "fip_guard";

/// One removal: the interface as it was before, and what the kernel said to have taken.
struct removal {
    const FIP_INFO *info = nullptr;
    nl_socket kernel;
    nl_list addresses;
    nl_list routes; ///< of the interface; empty when they need no guard
    nl_list dropped;
    const nlmsghdr *own = nullptr; ///< the address among `addresses`
    nl_address address = {};       ///< the same, read
    bool heads_subnet = false;     ///< others of the subnet would go with it
};

bool same_subnet(const nl_address &address, in_addr network, int masklen)
{
    const in_addr_t mask = masklen == 0 ? 0 : htonl(~0U << (32 - masklen));
    return address.masklen == masklen && ((address.addr.s_addr ^ network.s_addr) & mask) == 0;
}

bool same_address(const nl_address &left, const nl_address &right)
{
    return left.ifindex == right.ifindex && left.addr.s_addr == right.addr.s_addr &&
           strcmp(left.label, right.label) == 0;
}

/// Calls `take` for each address of the list that stands on the interface.
template <class F>
void each_address(const nl_list &list, int ifindex, F take)
{
    for (const nlmsghdr *it = nl_first(list); it != nullptr; it = nl_next(list, it)) {
        nl_address address = {};
        if (nl_read_address(it, &address) && (ifindex == 0 || address.ifindex == ifindex)) {
            take(it, address);
        }
    }
}

/// The same for the interface's routes to other hosts; those to the addresses themselves are the kernel's.
template <class F>
void each_route(const nl_list &list, int ifindex, F take)
{
    for (const nlmsghdr *it = nl_first(list); it != nullptr; it = nl_next(list, it)) {
        nl_route route = {};
        if (nl_read_route(it, &route) && route.family == AF_INET && route.type == RTN_UNICAST &&
            route.ifindex == ifindex) {
            take(it, route);
        }
    }
}

int list_addresses(nl_socket *kernel, nl_list *list)
{
    ifaddrmsg all = {};
    all.ifa_family = AF_INET;
    nl_request request;
    nl_begin(&request, RTM_GETADDR, 0, all);
    return nl_dump(kernel, &request, list);
}

int list_routes(nl_socket *kernel, int ifindex, nl_list *list)
{
    rtmsg all = {};
    all.rtm_family = AF_INET;
    nl_request request;
    nl_begin(&request, RTM_GETROUTE, 0, all);
    nl_add(&request, RTA_OIF, ifindex);
    return nl_dump(kernel, &request, list);
}

/// Finds the address, and what its removal puts at risk. 0, or an error number.
int look(removal *work, in_addr addr)
{
    int err = nic_open_netlink(&work->kernel, 0);
    if (err == 0) {
        err = list_addresses(&work->kernel, &work->addresses);
    }
    if (err != 0) {
        return err;
    }
    each_address(work->addresses, 0, [&](const nlmsghdr *message, const nl_address &address) {
        if (work->own == nullptr && address.addr.s_addr == addr.s_addr &&
            strcmp(address.label, work->info->ifname) == 0) {
            work->own = message;
            work->address = address;
        }
    });
    if (work->own == nullptr) {
        return EADDRNOTAVAIL;
    }
    const nl_address &own = work->address;
    each_address(work->addresses, own.ifindex, [&](const nlmsghdr *, const nl_address &other) {
        work->heads_subnet = work->heads_subnet ||
                             ((own.flags & IFA_F_SECONDARY) == 0 && (other.flags & IFA_F_SECONDARY) != 0 &&
                              same_subnet(other, own.addr, own.masklen));
    });
    if (work->heads_subnet || work->info->srcipuse == 1) {
        err = list_routes(&work->kernel, own.ifindex, &work->routes);
    }
    if (err != 0) {
        TRACE_AS(self, TRACE_WARNING, "The routes of %s cannot be guarded. (errno=%d)", own.label, err);
    }
    return 0;
}

/// Removes just this address: the kernel compares all that its own message says of it.
int remove_alone(removal *work)
{
    nl_request request;
    nl_repeat(&request, RTM_DELADDR, NLM_F_ECHO, work->own);
    // The kernel tells of all at once, before the first can be taken: some 1 KiB of its memory
    // for each message.
    const int room =
        static_cast<int>(std::min<std::size_t>(16 * work->addresses.bytes.size(), INT_MAX / 4)) + 65'536;
    setsockopt(work->kernel.sock.fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    // Room for what may go with it is taken before: afterwards the kernel does not know it any more.
    return nl_reserve(&work->dropped, work->addresses.bytes.size())
               ? nl_exchange(&work->kernel, &request, &work->dropped)
               : ENOMEM;
}

/// Tells the neighbours of an address that is back.
void announce(const nl_address &address, const FIP_INFO &info)
{
    vdevinfo dev = {};
    char name[IF_NAMESIZE] = "";
    if (info.arpnum == 0 || if_indextoname(static_cast<unsigned>(address.ifindex), name) == nullptr) {
        return;
    }
    copy_text(dev.ifname, name);
    inet_ntop(AF_INET, &address.addr, dev.sipel.addr, sizeof(dev.sipel.addr));
    dev.nipel.addr = address.addr;
    const int ret = fip_bound_memory([&] { return fip_send_arp(&dev, info.arpnum, info.arpopcode); });
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_WARNING, "fip_send_arp() failed. (ret=%d)", ret);
    }
}

/// Puts one dropped address back, with all that it had. One that is there again is somebody else's doing.
/// @return whether it was put back
bool put_back_address(removal *work, const nlmsghdr *message, const nl_address &address)
{
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address.addr, text, sizeof(text));
    nl_request request;
    nl_list answer;
    nl_repeat(&request, RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, message);
    const int err = nl_exchange(&work->kernel, &request, &answer);
    if (err == EEXIST) {
        return false;
    }
    if (err != 0) {
        TRACE_AS(self, TRACE_ERROR, "%s (%s) went with %s and is lost. (errno=%d)", text, address.label,
                 work->info->addr, err);
        fip_set_message("IP address %s was lost with %s.", text, work->info->addr);
        return false;
    }
    TRACE_AS(self, TRACE_WARNING, "%s (%s) had gone with %s and was put back.", text, address.label,
             work->info->addr);
    return true;
}

bool same_way(const nl_route &left, const nl_route &right)
{
    return left.table == right.table && left.tos == right.tos && left.masklen == right.masklen &&
           left.destination.s_addr == right.destination.s_addr;
}

/// Whether a route of the interface goes to the destination, however preferred and from whatever source.
bool leads_there(const nl_list &routes, const nl_route &wanted)
{
    bool found = false;
    each_route(routes, wanted.ifindex,
               [&](const nlmsghdr *, const nl_route &route) { found = found || same_way(route, wanted); });
    return found;
}

/// What a message says, whoever it was for.
std::string_view body_of(const nlmsghdr *message)
{
    return {static_cast<const char *>(NLMSG_DATA(message)), message->nlmsg_len - NLMSG_HDRLEN};
}

/// The interface as it is after the removal.
struct remainder {
    nl_list addresses;
    nl_list routes;
    std::unordered_set<std::string_view> messages; ///< of `routes`: an interface may have a million
};

/// Whether the kernel has put a route of its own where this one was: so it does for an address that
/// is put back.
bool is_supplanted(const nl_list &routes, const nl_route &wanted)
{
    bool found = false;
    each_route(routes, wanted.ifindex, [&](const nlmsghdr *, const nl_route &route) {
        found = found || (same_way(route, wanted) && route.protocol == RTPROT_KERNEL);
    });
    return found;
}

/// Makes a request of a route: as it was, or with another source, which makes it the kernel's own, or with
/// none. What the kernel tells beside a route's settings, such as a link that is down, it would refuse.
void repeat_route(nl_request *request, int flags, const nlmsghdr *message, const in_addr *source)
{
    rtmsg body = *static_cast<const rtmsg *>(NLMSG_DATA(message));
    body.rtm_flags &= RTNH_F_ONLINK;
    const bool sourced = source != nullptr && source->s_addr != INADDR_ANY;
    if (sourced) {
        body.rtm_protocol = RTPROT_KERNEL;
    }
    nl_begin(request, RTM_NEWROUTE, NLM_F_CREATE | flags, body);
    // A nexthop object stands for the whole way, which the kernel tells beside it.
    bool by_object = false;
    nl_each(message, sizeof(body),
            [&](const rtattr *attr) { by_object = by_object || attr->rta_type == RTA_NH_ID; });
    nl_each(message, sizeof(body), [&](const rtattr *attr) {
        const bool way =
            attr->rta_type == RTA_OIF || attr->rta_type == RTA_GATEWAY || attr->rta_type == RTA_VIA;
        if (attr->rta_type != RTA_CACHEINFO && !(by_object && way) &&
            (source == nullptr || attr->rta_type != RTA_PREFSRC)) {
            nl_add(request, attr->rta_type, RTA_DATA(attr), RTA_PAYLOAD(attr));
        }
    });
    if (sourced) {
        nl_add(request, RTA_PREFSRC, *source);
    }
}

void set_route(removal *work, nl_request *request, const nl_route &route)
{
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &route.destination, text, sizeof(text));
    nl_list answer;
    const int err = nl_exchange(&work->kernel, request, &answer);
    if (err == 0) {
        TRACE_AS(self, TRACE_INFO, "The route to %s/%d was set again.", text, route.masklen);
    } else if (err != EEXIST) {
        TRACE_AS(self, TRACE_ERROR, "The route to %s/%d had gone with %s and is lost. (errno=%d)", text,
                 route.masklen, work->info->addr, err);
        fip_set_message("Route to %s/%d was lost with %s.", text, route.masklen, work->info->addr);
    }
}

/// Sets a route again whose source the address was, unless the interface has another to the same destination.
/// One to the subnet of an address that remains is the kernel's own again; the subnet of no address is gone.
void free_route(removal *work, const nl_list &addresses, const nlmsghdr *message, const nl_route &route)
{
    in_addr source = {};
    each_address(addresses, route.ifindex, [&](const nlmsghdr *, const nl_address &address) {
        if (source.s_addr == INADDR_ANY && !route.gateway && (address.flags & IFA_F_SECONDARY) == 0 &&
            same_subnet(address, route.destination, route.masklen)) {
            source = address.addr;
        }
    });
    if (source.s_addr == INADDR_ANY && !route.gateway &&
        same_subnet(work->address, route.destination, route.masklen)) {
        return;
    }
    nl_request request;
    repeat_route(&request, NLM_F_EXCL, message, &source);
    set_route(work, &request, route);
}

/// Sets a route again that the removal took, if it did.
void put_back_route(removal *work, const remainder &left, const nlmsghdr *message, const nl_route &route)
{
    if (route.source.s_addr == work->address.addr.s_addr) {
        if (work->info->srcipuse == 1 && !leads_there(left.routes, route)) {
            free_route(work, left.addresses, message, route);
        }
        return;
    }
    if (work->heads_subnet && route.protocol != RTPROT_KERNEL && !left.messages.contains(body_of(message))) {
        // Beside another's route to the same place, but instead of the kernel's.
        const int flags = is_supplanted(left.routes, route) ? NLM_F_REPLACE : NLM_F_APPEND;
        nl_request request;
        repeat_route(&request, flags, message, nullptr);
        set_route(work, &request, route);
    }
}

/// Sets the interface's routes again; those that lead to gateways when the others are there.
void put_back_routes(removal *work)
{
    remainder left;
    const int ifindex = work->address.ifindex;
    int err = list_addresses(&work->kernel, &left.addresses);
    if (err == 0) {
        err = list_routes(&work->kernel, ifindex, &left.routes);
    }
    if (err != 0) {
        TRACE_AS(self, TRACE_ERROR, "The routes of %s cannot be put back. (errno=%d)", work->address.label,
                 err);
        return;
    }
    each_route(left.routes, ifindex,
               [&](const nlmsghdr *message, const nl_route &) { left.messages.insert(body_of(message)); });
    for (const bool gateway : {false, true}) {
        each_route(work->routes, ifindex, [&](const nlmsghdr *message, const nl_route &route) {
            if (route.gateway == gateway) {
                put_back_route(work, left, message, route);
            }
        });
    }
}

/// Puts back what went with the address: the kernel names each address that this removal dropped,
/// in its order.
void put_back(removal *work)
{
    std::vector<nl_address> back;
    each_address(work->dropped, work->address.ifindex,
                 [&](const nlmsghdr *message, const nl_address &address) {
                     if (message->nlmsg_type == RTM_DELADDR && !same_address(address, work->address) &&
                         put_back_address(work, message, address)) {
                         back.push_back(address);
                     }
                 });
    if (!work->routes.bytes.empty()) {
        put_back_routes(work);
    }
    // Last, for a packet may have to wait for its device, and so would all that is still missing.
    for (const nl_address &address : back) {
        announce(address, *work->info);
    }
}

int refuse(const vdevinfo &dev, const char *ifname, int err)
{
    TRACE_AS(self, TRACE_ERROR, "RTM_DELADDR(%s -> %s) failed. (errno=%d)", dev.sipel.addr, ifname, err);
    fip_set_message("Delete ip(%s) failed.", dev.sipel.addr);
    return FIP_ERR_DELETE;
}

} // namespace

int fip_guard(const vdevinfo *dev, const FIP_INFO *info, plain_removal plainly)
{
    TRACE(TRACE_DEBUG, "fip_guard()  ENTRY...");
    removal work;
    work.info = info;
    const bool bare = strchr(info->ifname, ':') == nullptr;
    const int unseen = look(&work, dev->nipel.addr);
    if (unseen != 0) {
        if (bare) {
            return refuse(*dev, info->ifname, unseen);
        }
        TRACE(TRACE_WARNING, "%s cannot be guarded. (errno=%d)", info->ifname, unseen);
        return plainly(dev, info);
    }
    const int err = remove_alone(&work);
    // Also behind an error: where only the answer was lost, the kernel has removed it, and what goes with it.
    const int ret = fip_bound_memory([&work] {
        put_back(&work);
        return FIP_SUCCESS;
    });
    if (ret != FIP_SUCCESS) {
        TRACE(TRACE_WARNING, "What went with %s may be lost. (ret=%d)", dev->sipel.addr, ret);
    }
    if (err != 0) {
        return refuse(*dev, info->ifname, err);
    }
    TRACE(TRACE_INFO, "Only %s was removed from %s.", dev->sipel.addr, info->ifname);
    return FIP_SUCCESS;
}
