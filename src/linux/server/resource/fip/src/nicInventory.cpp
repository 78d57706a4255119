#include "nicInventory.h"
#include "heap.h"
#include "text.h"
#include "tracersc.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <memory>
#include <sys/socket.h>

namespace
{

constexpr char trace_source[] = "src/nicCommon.c";

/// Whether an entry of the kernel's list becomes a row.
bool is_row(const ifaddrs &entry)
{
    return entry.ifa_addr != nullptr && strcmp(entry.ifa_name, "lo") != 0 &&
           (entry.ifa_addr->sa_family == AF_INET || entry.ifa_addr->sa_family == AF_INET6);
}

void fill_ipv4(ipaddrinfo *row, const ifaddrs &entry)
{
    row->nipel.addr = reinterpret_cast<const sockaddr_in *>(entry.ifa_addr)->sin_addr;
    inet_ntop(AF_INET, &row->nipel.addr, row->sipel.addr, sizeof(row->sipel.addr));
    if (entry.ifa_netmask != nullptr) {
        row->nipel.mask = reinterpret_cast<const sockaddr_in *>(entry.ifa_netmask)->sin_addr;
    }
    inet_ntop(AF_INET, &row->nipel.mask, row->sipel.mask, sizeof(row->sipel.mask));
}

void fill_ipv6(ipaddrinfo *row, const ifaddrs &entry)
{
    row->nipel6.addr = reinterpret_cast<const sockaddr_in6 *>(entry.ifa_addr)->sin6_addr;
    inet_ntop(AF_INET6, &row->nipel6.addr, row->sipel.addr, sizeof(row->sipel.addr));
    if (entry.ifa_netmask != nullptr) {
        row->nipel6.mask = reinterpret_cast<const sockaddr_in6 *>(entry.ifa_netmask)->sin6_addr;
    }
    for (const unsigned byte : row->nipel6.mask.s6_addr) {
        row->sipel.masklen += __builtin_popcount(byte);
    }
}

void fill_rows(const ifaddrs *list, inventory *rows)
{
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (!is_row(*entry)) {
            continue;
        }
        const auto index = static_cast<unsigned>(rows->size());
        ipaddrinfo *row = &rows->emplace_back();
        copy_text(row->ifname, entry->ifa_name);
        row->index = index;
        if (entry->ifa_addr->sa_family == AF_INET) {
            fill_ipv4(row, *entry);
        } else {
            fill_ipv6(row, *entry);
        }
    }
}

/// Gives the rows of one interface its hardware address; rows that have one keep it.
void set_mac(inventory *rows, const ifaddrs &entry)
{
    const auto *sll = reinterpret_cast<const sockaddr_ll *>(entry.ifa_addr);
    // An address longer than sll_addr runs on behind it, in room that getifaddrs(3) keeps for it.
    const auto *bytes = reinterpret_cast<const unsigned char *>(sll) + offsetof(sockaddr_ll, sll_addr);
    const std::size_t len = sll->sll_halen < MAC_SIZE ? sll->sll_halen : static_cast<std::size_t>(MAC_SIZE);
    char text[2 * MAC_SIZE + 1] = "";
    for (std::size_t i = 0; i < len; ++i) {
        snprintf(&text[2 * i], 3, "%02X", bytes[i]);
    }
    for (ipaddrinfo &row : *rows) {
        const std::size_t base = base_length(row.ifname);
        if (row.smac[0] == '\0' && strlen(entry.ifa_name) == base &&
            strncmp(row.ifname, entry.ifa_name, base) == 0) {
            copy_text(row.smac, text);
            memcpy(row.macaddr, bytes, len);
        }
    }
}

void fill_macs(const ifaddrs *list, inventory *rows)
{
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET &&
            strcmp(entry->ifa_name, "lo") != 0) {
            set_mac(rows, *entry);
        }
    }
}

int build_rows(const char *self, const ifaddrs *list, inventory *ipaddrlist)
{
    std::size_t count = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        count += is_row(*entry) ? 1 : 0;
    }
    if (count == 0) {
        TRACE_AS(self, TRACE_ERROR, "no ip address found.");
        return NIC_ERR_NOADDR;
    }
    const auto bytes = static_cast<int>(count * sizeof(ipaddrinfo));
    ipaddrlist->clear();
    if (!heap_reserve(ipaddrlist, count)) {
        TRACE_AS(self, TRACE_ERROR, "malloc(%d) failed. (errno=%d)", bytes, errno);
        return NIC_ERR_MEMORY;
    }
    TRACE_AS(self, TRACE_DEBUG, "malloc(%d) succeeded.", bytes);
    fill_rows(list, ipaddrlist);
    fill_macs(list, ipaddrlist);
    return NIC_SUCCESS;
}

} // namespace

int nic_get_all_info(inventory *ipaddrlist)
{
    TRACE(TRACE_DEBUG, "nic_get_all_info()  ENTRY...");
    ifaddrs *head = nullptr;
    int ret = NIC_ERR_GETIFADDRS;
    if (getifaddrs(&head) != 0) {
        TRACE(TRACE_ERROR, "getifaddrs() failed.(errno=%d)", errno);
    } else {
        TRACE(TRACE_DEBUG, "getifaddrs() succeeded.");
        const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(head, freeifaddrs);
        ret = build_rows(__func__, list.get(), ipaddrlist);
    }
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}
