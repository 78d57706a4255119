#include "kernel_address.h"

#include "bounded_text.h"
#include "rtnetlink.h"

#include <cerrno>
#include <cstring>

namespace
{

detection judge_detection(unsigned flags)
{
    if ((flags & IFA_F_DADFAILED) != 0) {
        return detection::failed;
    }
    // An optimistic address (RFC 4429) is used before its detection is over.
    const bool tentative = (flags & (IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)) == IFA_F_TENTATIVE;
    return tentative ? detection::pending : detection::passed;
}

/// Whether the message tells of this address, and where it is.
bool read_place(const nlmsghdr *message, const host_address &address, address_place *place)
{
    nl_address found = {};
    if (!nl_read_address(message, &found) || found.family != address.family) {
        return false;
    }
    const bool same = address.family == AF_INET
                          ? memcmp(&found.addr, address.bytes, sizeof(found.addr)) == 0
                          : memcmp(&found.addr6, address.bytes, sizeof(found.addr6)) == 0;
    *place = {};
    place->prefix = found.masklen;
    place->dad = judge_detection(found.flags);
    copy_text(place->label, found.label);
    // An interface may be gone in the meantime, and the address with it.
    return same && if_indextoname(static_cast<unsigned>(found.ifindex), place->interface) != nullptr;
}

} // namespace

bool is_same(const host_address &one, const host_address &other)
{
    return one.family == other.family && memcmp(one.bytes, other.bytes, sizeof(one.bytes)) == 0;
}

int find_places(const host_address &address, std::vector<address_place> *places)
{
    nl_socket kernel;
    if (const int ret = nl_open(&kernel, 0); ret != 0) {
        return ret;
    }
    ifaddrmsg all = {};
    all.ifa_family = static_cast<unsigned char>(address.family);
    nl_request request;
    nl_list answer;
    nl_begin(&request, RTM_GETADDR, 0, all);
    // Of a list that never stays still while it is read (EAGAIN), a place that it shows is one all the same;
    // where it shows none, one may have been passed over.
    const int ret = nl_dump(&kernel, &request, &answer);
    if (ret != 0 && ret != EAGAIN) {
        return ret;
    }
    for (const nlmsghdr *it = nl_first(answer); it != nullptr; it = nl_next(answer, it)) {
        address_place place = {};
        if (read_place(it, address, &place)) {
            places->push_back(place);
        }
    }
    return places->empty() ? ret : 0;
}
