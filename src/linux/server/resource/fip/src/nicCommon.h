/// The kernel's side of the network: interface records, and addresses added and removed
/// by ioctl (netdevice(7)).
#ifndef NICCOMMON_H
#define NICCOMMON_H

#include "rtnetlink.h"

#include <cstdint>
#include <functional>
#include <net/if.h>
#include <netinet/in.h>
#include <vector>

/// Numeric IPv4 address and netmask, network byte order.
struct nipel {
    in_addr addr;
    in_addr mask;
};

/// Numeric IPv6 address and netmask.
struct nipel6 {
    in6_addr addr;
    in6_addr mask;
};

/// An address as text, with its netmask and prefix length.
struct sipel {
    char addr[46];
    char mask[46];
    int masklen;
};

/// Bytes of the longest hardware address that is handled (InfiniBand's).
enum { MAC_SIZE = 20 };

/// One row of an inventory: an interface and one of its addresses. What a row does not have is zero or empty.
struct ipaddrinfo {
    char ifname[32];    ///< alias included
    unsigned int index; ///< position in the inventory, from 0
    struct nipel nipel;
    struct nipel6 nipel6;
    struct sipel sipel;
    char smac[64]; ///< hardware address as text, in the form of the inventory's source
    unsigned char macaddr[MAC_SIZE];
};

using inventory = std::vector<ipaddrinfo>;

/// The target: the device that carries, or is to carry, the floating address, and the address.
struct vdevinfo {
    char ifname[32];   ///< the configured interface as configured, else the chosen base name
    char vdevname[32]; ///< the name that the address is configured under; empty for IPv6 on a listed one
    struct nipel nipel;
    struct nipel6 nipel6;
    struct sipel sipel;
    char bcast[46]; ///< IPv4 broadcast address
    char smac[64];
    unsigned char macaddr[MAC_SIZE];
};

/// Status codes of the kernel's side, nicInventory and nicIfconfig included; the agent's own are in fip.h.
enum nic_code {
    NIC_SUCCESS = 0,
    NIC_ERR_MEMORY = 2,          ///< no memory
    NIC_ERR_NOADDR = 3,          ///< the kernel lists no usable address
    NIC_ERR_GETIFADDRS = 4,      ///< the kernel's list could not be read
    NIC_ERR_SOCKET = 9,          ///< no socket
    NIC_ERR_SIOCSIFADDR = 10,    ///< the address could not be set, or not be cleared
    NIC_ERR_SIOCSIFNETMASK = 11, ///< the netmask could not be set
    NIC_ERR_SIOCSIFBRDADDR = 12, ///< the broadcast address could not be set
    NIC_ERR_SIOCSIFFLAGS = 13,   ///< the flags could not be set
    NIC_ERR_SIOCGIFINDEX = 14,   ///< no such interface (IPv6)
    NIC_ERR_SIOCGIFFLAGS = 15,   ///< the flags, or the address while removing, could not be read
    NIC_ERR_SIOCDIFADDR = 16,    ///< the IPv6 address could not be removed
    NIC_ERR_OPEN = 17,           ///< detection: the output of ifconfig could not be opened
    NIC_ERR_WHICH = 18,          ///< detection: which could not be run
    NIC_ERR_THREAD = 19,         ///< detection: the worker could not be started
    NIC_ERR_ABSENT = 20,         ///< detection: ifconfig is not on the search path
    NIC_ERR_TIMEOUT = 21,        ///< detection: the worker did not end in time
    NIC_ERR_LAYOUT = 22,         ///< detection: the output has the newer layout, or none
    NIC_ERR_NAME = 23            ///< the name is none that an address can be changed under
};

/// A request of netdevice(7) to one interface. A name too long for the kernel is no interface's: cut, it
/// could be another's, so every request under it fails as under an unknown one.
struct nic_request {
    explicit nic_request(const char *ifname);

    /// @return the ioctl's result, or -1 with ENODEV
    int issue(int sock, unsigned long code);

    ifreq ifr = {};
    bool named = false;
};

/// Tells an address text's family: 1 for IPv6, 0 for IPv4. A ':' behind a '%' belongs to an alias.
[[nodiscard]] int nic_ipck(const char *paddr);

/// Opens a socket of rtnetlink, with a line in the trace when that fails. @return as nl_open
[[nodiscard]] int nic_open_netlink(nl_socket *nl, unsigned groups);

/// The name that the target's address stands under, or is to stand under.
[[nodiscard]] const char *nic_device_name(const vdevinfo &dev);

/// Judges the name that an address is to be put under, before anything is changed. A name too long for the
/// kernel would be cut to another one's by a command. An interface's alternative name (ip-link(8), property)
/// would be taken for the first request only; what undoes that would stop the interface.
/// @return 0 or NIC_ERR_NAME
[[nodiscard]] int nic_check_name(const char *name);

/// The broadcast address for the kernel: the target's, or 0.0.0.0 for none where the subnet has no room for
/// one (RFC 3021: both addresses of a /31 are hosts').
[[nodiscard]] in_addr nic_broadcast(const vdevinfo &dev);

/// Takes the target's address off its interface. On an alias this removes the alias; a physical
/// interface is stopped, and cleared when it carries the target's address.
/// @return 0, NIC_ERR_SOCKET, or the code of the request that failed
[[nodiscard]] int nic_deact_ipaddr_ioctl(const vdevinfo *pvdevinfo);

/// Puts the target's address on its interface, and brings that up. What was placed is taken off again
/// when a later step fails.
/// @param dad   IPv6: the kernel's duplicate address detection runs; without, the address is put
///              on by rtnetlink
/// @param undo  how it is taken off again; returns 0 or a code for the trace
/// @return 0, NIC_ERR_SOCKET, or the code of the request that failed
[[nodiscard]] int
nic_act_ipaddr_ioctl(const vdevinfo *pvdevinfo, bool dad = true,
                     const std::function<int(const vdevinfo *)> &undo = nic_deact_ipaddr_ioctl);

#endif
