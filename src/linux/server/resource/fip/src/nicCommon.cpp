#include "nicCommon.h"

#include "text.h"
#include "tracersc.h"
#include "unique_fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/ipv6.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

constexpr char trace_source[] = "src/nicCommon.c";

/// The requests of one operation: they share a socket and an interface name.
struct request : nic_request {
    explicit request(const vdevinfo &dev) : nic_request(nic_device_name(dev)) {}

    int issue(unsigned long code) { return nic_request::issue(sock.fd, code); }

    /// Puts an IPv4 address into the request, whose fields for address, netmask and broadcast are one union.
    void set_addr(in_addr addr)
    {
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr = addr;
        memcpy(&ifr.ifr_addr, &sin, sizeof(sin));
    }

    unique_fd sock;
};

bool open_socket(request *req, int family)
{
    req->sock.reset(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return req->sock.fd >= 0;
}

/// A request for an IPv6 address of the interface that `req` names. 0, or -1 with errno.
int issue_in6(const request &req, unsigned long code, const vdevinfo &dev, int ifindex)
{
    in6_ifreq ifr6 = {};
    ifr6.ifr6_addr = dev.nipel6.addr;
    ifr6.ifr6_prefixlen = static_cast<unsigned>(dev.sipel.masklen);
    ifr6.ifr6_ifindex = ifindex;
    return ioctl(req.sock.fd, code, &ifr6);
}

constexpr char act_name[] = "nic_act_ipaddr_ioctl";
constexpr char deact_name[] = "nic_deact_ipaddr_ioctl";

int bring_up(request *req)
{
    if (req->issue(SIOCGIFFLAGS) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCGIFFLAGS failed.(errno=%d)", errno);
        return NIC_ERR_SIOCGIFFLAGS;
    }
    req->ifr.ifr_flags = static_cast<short>(req->ifr.ifr_flags | IFF_UP | IFF_RUNNING);
    if (req->issue(SIOCSIFFLAGS) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCSIFFLAGS failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFFLAGS;
    }
    return NIC_SUCCESS;
}

/// Adds the IPv6 address without duplicate address detection, which SIOCSIFADDR cannot leave out. 0, or an
/// error number.
int place_unasked(const vdevinfo &dev, int ifindex)
{
    ifaddrmsg body = {};
    body.ifa_family = AF_INET6;
    body.ifa_prefixlen = static_cast<unsigned char>(dev.sipel.masklen);
    body.ifa_flags = IFA_F_NODAD;
    body.ifa_index = static_cast<unsigned>(ifindex);
    nl_socket kernel;
    nl_list answer;
    nl_request message;
    nl_begin(&message, RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, body);
    nl_add(&message, IFA_LOCAL, dev.nipel6.addr);
    const int err = nic_open_netlink(&kernel, 0);
    return err != 0 ? err : nl_exchange(&kernel, &message, &answer);
}

/// Adds the IPv6 address. *placed tells whether it stands on the interface, whatever happened afterwards.
int add_ipv6(request *req, const vdevinfo &dev, bool dad, bool *placed)
{
    if (!open_socket(req, AF_INET6)) {
        TRACE_AS(act_name, TRACE_ERROR, "scoket failed.(errno=%d)", errno);
        return NIC_ERR_SOCKET;
    }
    if (req->issue(SIOCGIFINDEX) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCGIFINDEX failed.(errno=%d)", errno);
        return NIC_ERR_SIOCGIFINDEX;
    }
    if (!dad) {
        const int err = place_unasked(dev, req->ifr.ifr_ifindex);
        if (err != 0) {
            *placed = err == ETIMEDOUT; // it may stand there, who knows
            TRACE_AS(act_name, TRACE_ERROR, "RTM_NEWADDR failed.(errno=%d)", err);
            return NIC_ERR_SIOCSIFADDR;
        }
    } else if (issue_in6(*req, SIOCSIFADDR, dev, req->ifr.ifr_ifindex) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCSIFADDR failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFADDR;
    }
    *placed = true;
    return bring_up(req);
}

/// Adds the IPv4 address; on an alias name SIOCSIFADDR creates the alias.
int add_ipv4(request *req, const vdevinfo &dev, bool *placed)
{
    if (!open_socket(req, AF_INET)) {
        TRACE_AS(act_name, TRACE_ERROR, "scoket failed.(errno=%d)", errno);
        return NIC_ERR_SOCKET;
    }
    req->set_addr(dev.nipel.addr);
    if (req->issue(SIOCSIFADDR) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCSIFADDR failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFADDR;
    }
    *placed = true;
    req->set_addr(dev.nipel.mask);
    if (req->issue(SIOCSIFNETMASK) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCSIFNETMASK failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFNETMASK;
    }
    req->set_addr(nic_broadcast(dev));
    if (req->issue(SIOCSIFBRDADDR) < 0) {
        TRACE_AS(act_name, TRACE_ERROR, "SIOCSIFBRDADDR failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFBRDADDR;
    }
    return bring_up(req);
}

int remove_ipv6(request *req, const vdevinfo &dev)
{
    if (!open_socket(req, AF_INET6)) {
        TRACE_AS(deact_name, TRACE_ERROR, "socket failed.(errno=%d)", errno);
        return NIC_ERR_SOCKET;
    }
    if (req->issue(SIOCGIFINDEX) < 0) {
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCGIFINDEX failed.(errno=%d)", errno);
        return NIC_ERR_SIOCGIFINDEX;
    }
    if (issue_in6(*req, SIOCDIFADDR, dev, req->ifr.ifr_ifindex) < 0) {
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCDIFADDR failed.(errno=%d)", errno);
        return NIC_ERR_SIOCDIFADDR;
    }
    TRACE_AS(deact_name, TRACE_INFO, "Delete IP successfully.");
    return NIC_SUCCESS;
}

/// Takes the name down, which removes an alias with its address. A physical interface still carries its
/// address then: it is cleared when it is ours.
int remove_ipv4(request *req, const vdevinfo &dev)
{
    if (!open_socket(req, AF_INET)) {
        TRACE_AS(deact_name, TRACE_ERROR, "socket failed.(errno=%d)", errno);
        return NIC_ERR_SOCKET;
    }
    if (req->issue(SIOCGIFFLAGS) < 0) {
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCGIFFLAGS failed.(errno=%d)", errno);
        return NIC_ERR_SIOCGIFFLAGS;
    }
    req->ifr.ifr_flags = static_cast<short>(req->ifr.ifr_flags & ~IFF_UP);
    if (req->issue(SIOCSIFFLAGS) < 0) {
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCSIFFLAGS failed.(errno=%d)", errno);
        return NIC_ERR_SIOCSIFFLAGS;
    }
    if (req->issue(SIOCGIFADDR) < 0) {
        if (errno == EADDRNOTAVAIL) {
            TRACE_AS(deact_name, TRACE_INFO, "Delete IP successfully.");
            return NIC_SUCCESS;
        }
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCGIFADDR failed.(errno=%d)", errno);
        return NIC_ERR_SIOCGIFFLAGS;
    }
    sockaddr_in left = {};
    memcpy(&left, &req->ifr.ifr_addr, sizeof(left));
    if (left.sin_family != AF_INET || left.sin_addr.s_addr != dev.nipel.addr.s_addr) {
        return NIC_SUCCESS;
    }
    req->set_addr({INADDR_ANY});
    if (req->issue(SIOCSIFADDR) < 0) {
        TRACE_AS(deact_name, TRACE_ERROR, "SIOCSIFADDR [0.0.0.0] failed.");
        return NIC_ERR_SIOCSIFADDR;
    }
    TRACE_AS(deact_name, TRACE_INFO, "Delete IP successfully.");
    return NIC_SUCCESS;
}

} // namespace

int nic_ipck(const char *paddr)
{
    TRACE(TRACE_DEBUG, "nic_ipck()  ENTRY...");
    const bool is_ipv6 = paddr[strcspn(paddr, ":%")] == ':';
    TRACE(TRACE_DEBUG, is_ipv6 ? "IPv6 address." : "IPv4 address.");
    return is_ipv6 ? 1 : 0;
}

nic_request::nic_request(const char *ifname)
{
    named = copy_text(ifr.ifr_name, ifname);
}

int nic_request::issue(int sock, unsigned long code)
{
    if (!named) {
        errno = ENODEV;
        return -1;
    }
    return ioctl(sock, code, &ifr);
}

int nic_open_netlink(nl_socket *nl, unsigned groups)
{
    const int err = nl_open(nl, groups);
    if (err != 0) {
        TRACE_AS("nl_open", TRACE_ERROR, "netlink socket failed.(errno=%d)", err);
    }
    return err;
}

const char *nic_device_name(const vdevinfo &dev)
{
    return dev.vdevname[0] != '\0' ? dev.vdevname : dev.ifname;
}

int nic_check_name(const char *name)
{
    constexpr char self[] = "nic_check_name";
    if (strlen(name) >= IFNAMSIZ) {
        TRACE_AS(self, TRACE_ERROR, "Interface name is too long.");
        return NIC_ERR_NAME;
    }
    if (has_white_space(name)) {
        TRACE_AS(self, TRACE_ERROR, "Interface name is invalid.");
        return NIC_ERR_NAME;
    }
    char base[IFNAMSIZ];
    char real[IFNAMSIZ];
    copy_base(base, name);
    const unsigned index = if_nametoindex(base);
    // An interface that is not there, or goes away in between, is for the request itself to tell.
    if (index != 0 && if_indextoname(index, real) != nullptr && strcmp(base, real) != 0) {
        TRACE_AS(self, TRACE_ERROR, "Interface name is an alternative one of %s. [IF: %s]", real, name);
        return NIC_ERR_NAME;
    }
    return NIC_SUCCESS;
}

in_addr nic_broadcast(const vdevinfo &dev)
{
    constexpr in_addr_t slash_31 = 0xfffffffe;
    in_addr bcast = {INADDR_ANY};
    if (ntohl(dev.nipel.mask.s_addr) < slash_31) {
        inet_pton(AF_INET, dev.bcast, &bcast);
    }
    return bcast;
}

int nic_act_ipaddr_ioctl(const vdevinfo *pvdevinfo, bool dad,
                         const std::function<int(const vdevinfo *)> &undo)
{
    TRACE(TRACE_DEBUG, "nic_act_ipaddr_ioctl(%s)  ENTRY...", pvdevinfo->sipel.addr);
    request req(*pvdevinfo);
    bool deactAfterAct = false;
    const int ret = nic_ipck(pvdevinfo->sipel.addr) != 0 ? add_ipv6(&req, *pvdevinfo, dad, &deactAfterAct)
                                                         : add_ipv4(&req, *pvdevinfo, &deactAfterAct);
    if (ret != NIC_SUCCESS && deactAfterAct) {
        const int undone = undo(pvdevinfo);
        if (undone != NIC_SUCCESS) {
            TRACE(TRACE_ERROR, "nic_deact_ipaddr_ioctl(%s) failed.(ret=%d)", pvdevinfo->sipel.addr, undone);
        } else {
            TRACE(TRACE_DEBUG, "nic_deact_ipaddr_ioctl() succeeded.");
        }
    }
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}

int nic_deact_ipaddr_ioctl(const vdevinfo *pvdevinfo)
{
    TRACE(TRACE_DEBUG, "nic_deact_ipaddr_ioctl(%s)  ENTRY...", pvdevinfo->sipel.addr);
    request req(*pvdevinfo);
    const int ret =
        nic_ipck(pvdevinfo->sipel.addr) != 0 ? remove_ipv6(&req, *pvdevinfo) : remove_ipv4(&req, *pvdevinfo);
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}
