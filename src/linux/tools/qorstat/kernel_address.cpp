#include "kernel_address.h"

#include "descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace
{

/// What the kernel fills at most in one go.
constexpr std::size_t reply_size = 32768;

struct dump_request {
    nlmsghdr header;
    ifaddrmsg body;
};

std::size_t address_size(int family)
{
    return family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
}

int ask(int sock, int family)
{
    dump_request request = {};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.ifa_family = static_cast<unsigned char>(family);
    return send(sock, &request, sizeof(request), 0) == static_cast<ssize_t>(sizeof(request)) ? 0 : errno;
}

/// What is of interest in one message's attributes.
struct attributes {
    const rtattr *address = nullptr;
    const rtattr *label = nullptr;
    unsigned flags = 0;
};

attributes read_attributes(const nlmsghdr *message, const ifaddrmsg *body)
{
    attributes found;
    found.flags = body->ifa_flags;
    auto left = static_cast<unsigned>(IFA_PAYLOAD(message));
    for (const rtattr *at = IFA_RTA(body); RTA_OK(at, left); at = RTA_NEXT(at, left)) {
        switch (at->rta_type) {
        case IFA_ADDRESS: // the peer's, when there is a local one as well
            found.address = found.address == nullptr ? at : found.address;
            break;
        case IFA_LOCAL:
            found.address = at;
            break;
        case IFA_LABEL:
            found.label = at;
            break;
        case IFA_FLAGS:
            memcpy(&found.flags, RTA_DATA(at), std::min(sizeof(found.flags), RTA_PAYLOAD(at)));
            break;
        default:
            break;
        }
    }
    return found;
}

detection judge_detection(unsigned flags)
{
    if ((flags & IFA_F_DADFAILED) != 0) {
        return detection::failed;
    }
    // An optimistic address (RFC 4429) is used before its detection is over.
    const bool tentative = (flags & (IFA_F_TENTATIVE | IFA_F_OPTIMISTIC)) == IFA_F_TENTATIVE;
    return tentative ? detection::pending : detection::passed;
}

void take_message(const nlmsghdr *message, const host_address &address, std::vector<address_place> *places)
{
    const auto *body = static_cast<const ifaddrmsg *>(NLMSG_DATA(message));
    if (message->nlmsg_type != RTM_NEWADDR || body->ifa_family != address.family) {
        return;
    }
    const attributes found = read_attributes(message, body);
    const std::size_t size = address_size(address.family);
    if (found.address == nullptr || RTA_PAYLOAD(found.address) != size ||
        memcmp(RTA_DATA(found.address), address.bytes, size) != 0) {
        return;
    }
    address_place place = {};
    place.prefix = body->ifa_prefixlen;
    place.dad = judge_detection(found.flags);
    if (if_indextoname(body->ifa_index, place.interface) == nullptr) {
        return; // gone in the meantime, and the address with it
    }
    if (found.label != nullptr) {
        snprintf(place.label, sizeof(place.label), "%.*s", static_cast<int>(RTA_PAYLOAD(found.label)),
                 static_cast<const char *>(RTA_DATA(found.label)));
    }
    places->push_back(place);
}

/// Reads one dump to its end. @return 0; EINTR when the list changed while it was read; another errno
int read_dump(int sock, const host_address &address, std::vector<address_place> *places)
{
    alignas(nlmsghdr) char reply[reply_size];
    bool interrupted = false;
    for (;;) {
        const ssize_t got = recv(sock, reply, sizeof(reply), 0);
        if (got <= 0) {
            return got < 0 ? errno : EPROTO;
        }
        auto left = static_cast<unsigned>(got);
        for (const auto *at = reinterpret_cast<const nlmsghdr *>(reply); NLMSG_OK(at, left);
             at = NLMSG_NEXT(at, left)) {
            interrupted = interrupted || (at->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (at->nlmsg_type == NLMSG_DONE) {
                return interrupted ? EINTR : 0;
            }
            if (at->nlmsg_type == NLMSG_ERROR) {
                return -static_cast<const nlmsgerr *>(NLMSG_DATA(at))->error;
            }
            take_message(at, address, places);
        }
    }
}

} // namespace

bool is_same(const host_address &one, const host_address &other)
{
    return one.family == other.family && memcmp(one.bytes, other.bytes, sizeof(one.bytes)) == 0;
}

int find_places(const host_address &address, std::vector<address_place> *places)
{
    // Each try changes nothing. What a list that changes as often as this has shown is there; what it has not
    // may have been passed over.
    constexpr int tries = 10;
    const descriptor sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (sock.fd < 0) {
        return errno;
    }
    int ret = EINTR;
    for (int i = 0; ret == EINTR && i < tries; ++i) {
        places->clear();
        ret = ask(sock.fd, address.family);
        if (ret == 0) {
            ret = read_dump(sock.fd, address, places);
        }
    }
    if (ret == EINTR) {
        return places->empty() ? EAGAIN : 0;
    }
    return ret;
}
