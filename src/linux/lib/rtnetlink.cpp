#include "rtnetlink.h"

#include "heap.h"
#include "ifname.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <poll.h>
#include <sys/socket.h>

namespace
{

/// How often a list is asked for that something changed under.
constexpr int dump_attempts = 10;

const unsigned char *bytes_of(const nlmsghdr *message)
{
    return reinterpret_cast<const unsigned char *>(message);
}

/// The message's structure, or null when the message is shorter than that.
template <class T>
const T *body_of(const nlmsghdr *message)
{
    return message->nlmsg_len < NLMSG_LENGTH(sizeof(T)) ? nullptr
                                                        : static_cast<const T *>(NLMSG_DATA(message));
}

/// Copies the attribute's value. An attribute of another size is none of those that we know.
template <class T>
void take_value(const rtattr *attr, T *value)
{
    if (RTA_PAYLOAD(attr) == sizeof(*value)) {
        memcpy(value, RTA_DATA(attr), sizeof(*value));
    }
}

bool append(nl_list *list, const nlmsghdr *message)
{
    const std::size_t size = list->bytes.size() + NLMSG_ALIGN(message->nlmsg_len);
    if (size > list->bytes.capacity() && !nl_reserve(list, 2 * size)) {
        return false;
    }
    list->bytes.insert(list->bytes.end(), bytes_of(message), bytes_of(message) + message->nlmsg_len);
    list->bytes.resize(size);
    return true;
}

/// Receives one datagram of the kernel. *size is its length; 0 for one of another sender, which
/// does not count.
int receive(nl_socket *nl, int flags, std::size_t *size)
{
    sockaddr_nl from = {};
    iovec part = {nl->buffer, sizeof(nl->buffer)};
    msghdr head = {};
    head.msg_name = &from;
    head.msg_namelen = sizeof(from);
    head.msg_iov = &part;
    head.msg_iovlen = 1;
    ssize_t received = -1;
    do {
        received = recvmsg(nl->sock.fd, &head, flags);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return errno == EAGAIN ? ETIMEDOUT : errno;
    }
    if ((head.msg_flags & MSG_TRUNC) != 0) {
        return EMSGSIZE;
    }
    *size = from.nl_pid == 0 ? static_cast<std::size_t>(received) : 0;
    return 0;
}

/// NLMSG_OK, whose comparison of signs not every compiler takes.
bool is_whole(const nlmsghdr *message, int left)
{
    return left >= static_cast<int>(sizeof(nlmsghdr)) && message->nlmsg_len >= sizeof(nlmsghdr) &&
           message->nlmsg_len <= static_cast<unsigned>(left);
}

/// Calls `take` for each message of the buffer until that returns true. @return whether it did
template <class F>
bool each_message(const nl_socket &nl, std::size_t size, F take)
{
    const auto *message = reinterpret_cast<const nlmsghdr *>(nl.buffer);
    auto left = static_cast<int>(size);
    for (; is_whole(message, left); message = NLMSG_NEXT(message, left)) {
        if (take(message)) {
            return true;
        }
    }
    return false;
}

/// The error number that ends an answer: 0 for a good end. Both kinds of end begin with its negative.
int result_of(const nlmsghdr *message)
{
    const int *error = body_of<int>(message);
    return error == nullptr ? EBADMSG : -*error;
}

/// Takes the messages of one answer up to its end. *changed tells whether a list changed under the kernel.
int take_answer(nl_socket *nl, nl_list *answer, bool *changed)
{
    int ret = 0;
    bool ended = false;
    bool room = true;
    while (!ended) {
        std::size_t size = 0;
        const int err = receive(nl, 0, &size);
        if (err != 0) {
            return err;
        }
        ended = each_message(*nl, size, [&](const nlmsghdr *message) {
            if (message->nlmsg_seq != nl->sequence) {
                return false; // of an answer that was given up
            }
            *changed = *changed || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE) {
                ret = result_of(message);
                return true;
            }
            room = append(answer, message) && room;
            return false;
        });
    }
    return ret == 0 && !room ? ENOMEM : ret;
}

int exchange(nl_socket *nl, nl_request *request, nl_list *answer, bool *changed)
{
    if (!request->whole) {
        return EMSGSIZE;
    }
    answer->bytes.clear();
    request->header()->nlmsg_seq = ++nl->sequence;
    const sockaddr_nl kernel = {AF_NETLINK, 0, 0, 0};
    const ssize_t sent = sendto(nl->sock.fd, request->bytes, request->header()->nlmsg_len, 0,
                                reinterpret_cast<const sockaddr *>(&kernel), sizeof(kernel));
    return sent < 0 ? errno : take_answer(nl, answer, changed);
}

/// The attribute `type` among those within `nest`, or null.
const rtattr *find_within(const rtattr *nest, int type)
{
    if (nest == nullptr) {
        return nullptr;
    }
    auto left = static_cast<int>(RTA_PAYLOAD(nest));
    for (const auto *attr = static_cast<const rtattr *>(RTA_DATA(nest)); RTA_OK(attr, left);
         attr = RTA_NEXT(attr, left)) {
        if ((attr->rta_type & NLA_TYPE_MASK) == type) {
            return attr;
        }
    }
    return nullptr;
}

/// Whether the link's IPv6 side routes: the first value of its settings.
bool forwards(const rtattr *af_spec)
{
    const rtattr *settings = find_within(find_within(af_spec, AF_INET6), IFLA_INET6_CONF);
    std::int32_t value = 0;
    if (settings != nullptr && RTA_PAYLOAD(settings) >= sizeof(value)) {
        memcpy(&value, RTA_DATA(settings), sizeof(value));
    }
    return value != 0;
}

void read_link(const nlmsghdr *message, const ifinfomsg &info, nl_link *link)
{
    *link = {};
    link->ifindex = info.ifi_index;
    link->type = info.ifi_type;
    link->carrier = (info.ifi_flags & IFF_RUNNING) != 0;
    nl_each(message, sizeof(info), [&](const rtattr *attr) {
        switch (attr->rta_type & NLA_TYPE_MASK) {
        case IFLA_ADDRESS:
            link->maclen = std::min<std::size_t>(RTA_PAYLOAD(attr), sizeof(link->mac));
            memcpy(link->mac, RTA_DATA(attr), link->maclen);
            break;
        case IFLA_AF_SPEC:
            link->forwards6 = forwards(attr);
            break;
        default:
            break;
        }
    });
}

} // namespace

int nl_open(nl_socket *nl, unsigned groups)
{
    nl->sock.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const timeval limit = {nl_limit_s, 0};
    const int strict = 1;
    sockaddr_nl self = {AF_NETLINK, 0, 0, groups};
    if (nl->sock.fd < 0 || setsockopt(nl->sock.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
        setsockopt(nl->sock.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        bind(nl->sock.fd, reinterpret_cast<const sockaddr *>(&self), sizeof(self)) != 0) {
        return errno;
    }
    // Lets a list be of one interface only; kernels before 5.0 send all of it.
    setsockopt(nl->sock.fd, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &strict, sizeof(strict));
    return 0;
}

void nl_begin(nl_request *request, int type, int flags, const void *body, std::size_t size)
{
    nlmsghdr *header = request->header();
    *header = {};
    header->nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(size));
    header->nlmsg_type = static_cast<std::uint16_t>(type);
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    memcpy(NLMSG_DATA(header), body, size);
    request->whole = true;
}

void nl_add(nl_request *request, int type, const void *data, std::size_t size)
{
    nlmsghdr *header = request->header();
    const std::size_t at = NLMSG_ALIGN(header->nlmsg_len);
    if (at + RTA_SPACE(size) > sizeof(request->bytes)) {
        request->whole = false;
        return;
    }
    auto *attr = reinterpret_cast<rtattr *>(&request->bytes[at]);
    attr->rta_type = static_cast<std::uint16_t>(type);
    attr->rta_len = static_cast<std::uint16_t>(RTA_LENGTH(size));
    memcpy(RTA_DATA(attr), data, size);
    header->nlmsg_len = static_cast<std::uint32_t>(at + RTA_LENGTH(size));
}

void nl_repeat(nl_request *request, int type, int flags, const nlmsghdr *message)
{
    request->whole = message->nlmsg_len <= sizeof(request->bytes);
    memcpy(request->bytes, message, request->whole ? message->nlmsg_len : sizeof(*message));
    nlmsghdr *header = request->header();
    header->nlmsg_type = static_cast<std::uint16_t>(type);
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header->nlmsg_pid = 0;
}

int nl_exchange(nl_socket *nl, nl_request *request, nl_list *answer)
{
    bool changed = false;
    return exchange(nl, request, answer, &changed);
}

int nl_dump(nl_socket *nl, nl_request *request, nl_list *answer)
{
    request->header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    for (int attempt = 0; attempt < dump_attempts; ++attempt) {
        bool changed = false;
        const int ret = exchange(nl, request, answer, &changed);
        if (ret != 0 || !changed) {
            return ret;
        }
    }
    return EAGAIN;
}

int nl_wait(nl_socket *nl, int timeout_ms, nl_list *notified)
{
    notified->bytes.clear();
    pollfd ready = {nl->sock.fd, POLLIN, 0};
    if (poll(&ready, 1, timeout_ms) == 0) {
        return ETIMEDOUT;
    }
    std::size_t size = 0;
    const int ret = receive(nl, MSG_DONTWAIT, &size);
    if (ret == 0 &&
        each_message(*nl, size, [&](const nlmsghdr *message) { return !append(notified, message); })) {
        return ENOMEM;
    }
    return ret;
}

bool nl_reserve(nl_list *list, std::size_t size)
{
    return heap_reserve(&list->bytes, size);
}

const nlmsghdr *nl_first(const nl_list &list)
{
    return list.bytes.empty() ? nullptr : reinterpret_cast<const nlmsghdr *>(list.bytes.data());
}

const nlmsghdr *nl_next(const nl_list &list, const nlmsghdr *message)
{
    const unsigned char *behind = bytes_of(message) + NLMSG_ALIGN(message->nlmsg_len);
    return behind == list.bytes.data() + list.bytes.size() ? nullptr
                                                           : reinterpret_cast<const nlmsghdr *>(behind);
}

bool nl_read_address(const nlmsghdr *message, nl_address *address)
{
    *address = {};
    const auto *info = body_of<ifaddrmsg>(message);
    if (info == nullptr || (message->nlmsg_type != RTM_NEWADDR && message->nlmsg_type != RTM_DELADDR)) {
        return false;
    }
    address->family = info->ifa_family;
    address->ifindex = static_cast<int>(info->ifa_index);
    address->masklen = info->ifa_prefixlen;
    address->flags = info->ifa_flags;
    // Of an IPv6 address with a peer, IFA_ADDRESS is the peer; without, there is no IFA_LOCAL.
    const bool ipv4 = info->ifa_family == AF_INET;
    bool local = false;
    nl_each(message, sizeof(*info), [&](const rtattr *attr) {
        ifa_cacheinfo times = {};
        switch (attr->rta_type) {
        case IFA_LOCAL:
            local = true;
            [[fallthrough]];
        case IFA_ADDRESS:
            if (ipv4 && attr->rta_type == IFA_LOCAL) {
                take_value(attr, &address->addr);
            } else if (!ipv4 && (attr->rta_type == IFA_LOCAL || !local)) {
                take_value(attr, &address->addr6);
            }
            break;
        case IFA_LABEL:
            copy_part(address->label, static_cast<const char *>(RTA_DATA(attr)), RTA_PAYLOAD(attr));
            break;
        case IFA_FLAGS:
            take_value(attr, &address->flags);
            break;
        case IFA_CACHEINFO:
            take_value(attr, &times);
            address->created = times.cstamp;
            break;
        default:
            break;
        }
    });
    return true;
}

bool nl_read_route(const nlmsghdr *message, nl_route *route)
{
    *route = {};
    const auto *info = body_of<rtmsg>(message);
    if (info == nullptr || message->nlmsg_type != RTM_NEWROUTE) {
        return false;
    }
    route->family = info->rtm_family;
    route->type = info->rtm_type;
    route->protocol = info->rtm_protocol;
    route->tos = info->rtm_tos;
    route->masklen = info->rtm_dst_len;
    route->table = info->rtm_table;
    nl_each(message, sizeof(*info), [&](const rtattr *attr) {
        switch (attr->rta_type) {
        case RTA_OIF:
            take_value(attr, &route->ifindex);
            break;
        case RTA_TABLE:
            take_value(attr, &route->table);
            break;
        case RTA_DST:
            take_value(attr, &route->destination);
            break;
        case RTA_PREFSRC:
            take_value(attr, &route->source);
            break;
        case RTA_GATEWAY:
        case RTA_VIA:
            route->gateway = true;
            break;
        default:
            break;
        }
    });
    return true;
}

int nl_get_link(nl_socket *nl, const char *ifname, nl_link *link)
{
    char base[IFNAMSIZ] = "";
    if (!copy_base(base, ifname)) {
        return ENODEV;
    }
    nl_request request;
    nl_begin(&request, RTM_GETLINK, 0, ifinfomsg{});
    nl_add(&request, IFLA_IFNAME, base, strlen(base) + 1);
    nl_list answer;
    const int ret = nl_exchange(nl, &request, &answer);
    if (ret != 0) {
        return ret;
    }
    const nlmsghdr *message = nl_first(answer);
    const ifinfomsg *info = message == nullptr ? nullptr : body_of<ifinfomsg>(message);
    if (info == nullptr || message->nlmsg_type != RTM_NEWLINK) {
        return EBADMSG;
    }
    read_link(message, *info, link);
    return 0;
}

int nl_get_address6(nl_socket *nl, const in6_addr &addr, int ifindex, nl_address *address)
{
    ifaddrmsg which = {};
    which.ifa_family = AF_INET6;
    which.ifa_index = static_cast<std::uint32_t>(ifindex);
    nl_request request;
    nl_begin(&request, RTM_GETADDR, 0, which);
    nl_add(&request, IFA_LOCAL, addr);
    nl_list answer;
    const int ret = nl_exchange(nl, &request, &answer);
    if (ret != 0) {
        return ret;
    }
    const nlmsghdr *message = nl_first(answer);
    return message != nullptr && nl_read_address(message, address) ? 0 : EBADMSG;
}
