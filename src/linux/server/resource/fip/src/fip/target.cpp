#include "target.h"

#include "../fip.h"
#include "../text.h"
#include "trace_source.h"

#include <arpa/inet.h>
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

namespace
{

constexpr char self[] = "fip_crt_vdevinfo";
constexpr std::size_t max_aliases = 10'000;
constexpr char default_mask[] = "255.255.255.0";
constexpr int default_masklen = 64;

/// Whether the row's subnet holds the floating address. Without a configured mask the row's own decides; with
/// one, both network parts must be equal, each under its own mask. Host addresses and rows without an address
/// have no subnet.
bool fits_ipv4(const ipaddrinfo &row, const vdevinfo &dev)
{
    const in_addr_t row_mask = row.nipel.mask.s_addr;
    if (row_mask == 0 || row_mask == INADDR_BROADCAST) {
        return false;
    }
    const in_addr_t own_mask = dev.nipel.mask.s_addr == 0 ? row_mask : dev.nipel.mask.s_addr;
    return (row.nipel.addr.s_addr & row_mask) == (dev.nipel.addr.s_addr & own_mask);
}

bool fits_ipv6(const ipaddrinfo &row, const vdevinfo &dev)
{
    const auto &row_mask = row.nipel6.mask.s6_addr;
    if (row_mask[0] == 0 || row_mask[sizeof(row_mask) - 1] == 0xff) {
        return false;
    }
    const bool own = dev.nipel6.mask.s6_addr[0] != 0;
    for (std::size_t i = 0; i < sizeof(row_mask); ++i) {
        const int own_mask = own ? dev.nipel6.mask.s6_addr[i] : row_mask[i];
        if ((row.nipel6.addr.s6_addr[i] & row_mask[i]) != (dev.nipel6.addr.s6_addr[i] & own_mask)) {
            return false;
        }
    }
    return true;
}

/// Whether the row is on the interface that the record names; an empty name takes the row's.
bool matches_name(const ipaddrinfo &row, const char *wanted, vdevinfo *dev)
{
    char base[sizeof(row.ifname)];
    copy_base(base, row.ifname);
    if (dev->ifname[0] == '\0') {
        copy_text(dev->ifname, base);
        return true;
    }
    if (strcmp(base, wanted) == 0) {
        return true;
    }
    if (ipv6flag == 0) {
        TRACE_AS(self, TRACE_DEBUG, "different ifname. fipdev:[%s] phydev[%s].", wanted, base);
    }
    return false;
}

/// Whether the row tells of an address of the other family, as the kernel's inventory does: it says nothing
/// of a netmask that would suit ours, and its empty one would claim the whole address space.
bool is_other_family(const ipaddrinfo &row)
{
    return ipv6flag != 0 ? row.nipel.addr.s_addr != INADDR_ANY : !IN6_IS_ADDR_UNSPECIFIED(&row.nipel6.addr);
}

/// The first row that fits, or null. Names the record's interface when none was configured. Where the row is
/// to give the netmask, too, one of the other family serves only when the interface has no other.
const ipaddrinfo *choose_row(const inventory &rows, const char *wanted, vdevinfo *dev)
{
    const bool configured = dev->ifname[0] != '\0';
    const bool masked = dev->sipel.mask[0] != '\0';
    const ipaddrinfo *maskless = nullptr;
    for (const ipaddrinfo &row : rows) {
        if (!configured && !(ipv6flag != 0 ? fits_ipv6(row, *dev) : fits_ipv4(row, *dev))) {
            continue;
        }
        if (!matches_name(row, wanted, dev)) {
            continue;
        }
        if (masked || !is_other_family(row)) {
            return &row;
        }
        if (maskless == nullptr) {
            maskless = &row;
        }
    }
    return maskless;
}

void set_broadcast(vdevinfo *dev)
{
    const in_addr bcast = {dev->nipel.addr.s_addr | ~dev->nipel.mask.s_addr};
    inet_ntop(AF_INET, &bcast, dev->bcast, sizeof(dev->bcast));
}

/// The netmask where neither the configuration nor a row has one.
void set_default_mask(vdevinfo *dev)
{
    if (ipv6flag != 0) {
        dev->sipel.masklen = default_masklen;
        return;
    }
    copy_text(dev->sipel.mask, default_mask);
    inet_pton(AF_INET, default_mask, &dev->nipel.mask);
}

void take_mask(const ipaddrinfo &row, vdevinfo *dev)
{
    if (is_other_family(row)) {
        set_default_mask(dev);
    } else if (ipv6flag != 0) {
        dev->sipel.masklen = row.sipel.masklen;
    } else {
        dev->nipel.mask = row.nipel.mask;
        inet_ntop(AF_INET, &dev->nipel.mask, dev->sipel.mask, sizeof(dev->sipel.mask));
    }
}

/// Completes the record from the row that will carry the address.
void take_row(const ipaddrinfo &row, vdevinfo *dev)
{
    memcpy(dev->smac, row.smac, sizeof(dev->smac));
    memcpy(dev->macaddr, row.macaddr, sizeof(dev->macaddr));
    if (dev->sipel.mask[0] == '\0') {
        take_mask(row, dev);
    }
    if (ipv6flag == 0) {
        set_broadcast(dev);
    }
}

/// The lowest alias number of `base` that no row has, or max_aliases. One pass over the rows, however many
/// aliases there are.
std::size_t lowest_free_alias(const inventory &rows, const char *base)
{
    const std::size_t base_len = strlen(base);
    std::bitset<max_aliases> used;
    for (const ipaddrinfo &row : rows) {
        const char *name = row.ifname;
        if (strncasecmp(name, base, base_len) != 0 || name[base_len] != ':') {
            continue;
        }
        const char *digits = name + base_len + 1;
        const std::size_t len = strspn(digits, "0123456789");
        // Only a number as we write it is the same name: eth0:01 does not take eth0:1.
        const bool ours = len > 0 && digits[len] == '\0' && (digits[0] != '0' || len == 1);
        const unsigned long alias = ours ? strtoul(digits, nullptr, 10) : max_aliases;
        if (alias < max_aliases) {
            used.set(alias);
        }
    }
    std::size_t free_alias = 0;
    while (free_alias < max_aliases && used.test(free_alias)) {
        ++free_alias;
    }
    return free_alias;
}

void trace_ipv4_target(const vdevinfo &dev)
{
    TRACE_AS(self, TRACE_INFO, "vdev : %s, addr : %s, mask : %s, bcast : %s", dev.vdevname, dev.sipel.addr,
             dev.sipel.mask, dev.bcast);
}

int use_configured_alias(const inventory &rows, vdevinfo *dev)
{
    if (fip_chk_ifname(rows, dev->ifname) != 0) {
        TRACE_AS(self, TRACE_ERROR, "fip interface already used. [IF: %s]", dev->ifname);
        return FIP_ERR_ALIAS;
    }
    copy_text(dev->vdevname, dev->ifname);
    trace_ipv4_target(*dev);
    return FIP_SUCCESS;
}

int no_interface(const vdevinfo &dev)
{
    TRACE_AS(self, TRACE_ERROR, "Not found fip interface. [IP: %s]", dev.sipel.addr);
    fip_set_message("Fip interface was not found.");
    return FIP_ERR_NODEV;
}

int use_free_alias(const inventory &rows, const ipaddrinfo &row, vdevinfo *dev)
{
    char base[sizeof(row.ifname)];
    copy_base(base, row.ifname);
    const std::size_t alias = lowest_free_alias(rows, base);
    if (alias == max_aliases) {
        return no_interface(*dev);
    }
    char name[sizeof(base) + sizeof(":9999")];
    snprintf(name, sizeof(name), "%s:%zu", base, alias);
    copy_text(dev->vdevname, name);
    if (strlen(name) >= IFNAMSIZ) {
        TRACE_AS(self, TRACE_ERROR, "Interface name is too long.");
        return FIP_ERR_IFNAME;
    }
    trace_ipv4_target(*dev);
    return FIP_SUCCESS;
}

/// The configured interface has no row: it may still exist, without an address. It is used as it is named.
int use_unlisted(vdevinfo *dev)
{
    TRACE_AS(self, TRACE_WARNING, "Not found fip interface. [IF: %s]", dev->ifname);
    copy_text(dev->vdevname, dev->ifname);
    if (dev->sipel.mask[0] == '\0') {
        set_default_mask(dev);
    }
    TRACE_AS(self, TRACE_INFO, "vdev : %s, addr : %s", dev->vdevname, dev->sipel.addr);
    if (ipv6flag != 0) {
        TRACE_AS(self, TRACE_INFO, "mask  : %d", dev->sipel.masklen);
        return FIP_SUCCESS;
    }
    TRACE_AS(self, TRACE_INFO, "mask  : %s", dev->sipel.mask);
    set_broadcast(dev);
    TRACE_AS(self, TRACE_INFO, "bcast : %s", dev->bcast);
    return FIP_SUCCESS;
}

} // namespace

int fip_chk_ifname(const inventory &ipaddrlist, const char *ifname)
{
    for (const ipaddrinfo &row : ipaddrlist) {
        if (strcasecmp(row.ifname, ifname) == 0) {
            return 1;
        }
    }
    return 0;
}

int fip_crt_vdevinfo(const inventory &ipaddrlist, vdevinfo *pvdevinfo)
{
    TRACE(TRACE_DEBUG, "fip_crt_vdevinfo()  ENTRY...");
    const bool configured = pvdevinfo->ifname[0] != '\0';
    char wanted[sizeof(pvdevinfo->ifname)]; // the configured interface, without its alias for IPv4
    copy_part(wanted, pvdevinfo->ifname, ipv6flag != 0 ? sizeof(wanted) : base_length(pvdevinfo->ifname));
    const bool alias_configured = strcmp(wanted, pvdevinfo->ifname) != 0;

    const ipaddrinfo *row = choose_row(ipaddrlist, wanted, pvdevinfo);
    if (row == nullptr) {
        return configured ? use_unlisted(pvdevinfo) : no_interface(*pvdevinfo);
    }
    take_row(*row, pvdevinfo);
    if (ipv6flag != 0) {
        TRACE(TRACE_INFO, "if : %s, addr : %s, mask : %d", pvdevinfo->ifname, pvdevinfo->sipel.addr,
              pvdevinfo->sipel.masklen);
        return FIP_SUCCESS;
    }
    return alias_configured ? use_configured_alias(ipaddrlist, pvdevinfo)
                            : use_free_alias(ipaddrlist, *row, pvdevinfo);
}
