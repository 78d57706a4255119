#include "ifconfig_output.h"

#include "../fip.h"
#include "../text.h"
#include "address_text.h"
#include "heap.h"
#include "trace_source.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

/// Every line of the reader carries the name of its only caller.
constexpr char self[] = "fip_get_ipaddrlist";
constexpr char separators[] = " \t\n";
constexpr std::size_t row_step = 16;
/// More rows than any node has: a command that prints headers without end must not eat the memory.
constexpr std::size_t max_rows = 65'536;

/// Makes room for one more row. The trace tells of rows in steps; in memory the room doubles, so that rows
/// without end are not copied again and again.
int make_room(inventory *rows)
{
    if (rows->size() % row_step != 0) {
        return FIP_SUCCESS;
    }
    constexpr auto step_bytes = static_cast<int>(row_step * sizeof(ipaddrinfo));
    const char *call = rows->empty() ? "malloc" : "realloc";
    const std::size_t wanted = rows->size() + row_step;
    errno = ENOMEM;
    if (rows->size() >= max_rows ||
        (wanted > rows->capacity() && !heap_reserve(rows, std::max(wanted, 2 * rows->capacity())))) {
        TRACE_AS(self, TRACE_ERROR, "%s(%d) failed. (errno=%d)", call, step_bytes, errno);
        return fip_internal_error(FIP_ERR_MEMORY);
    }
    TRACE_AS(self, TRACE_DEBUG, "%s(%d) succeeded.", call, step_bytes);
    return FIP_SUCCESS;
}

ipaddrinfo *add_row(inventory *rows)
{
    const auto index = static_cast<unsigned>(rows->size());
    ipaddrinfo *row = &rows->emplace_back();
    row->index = index;
    return row;
}

/// The text behind a prefix that is compared without regard to case, or null.
const char *behind(const char *token, const char *prefix)
{
    const std::size_t len = strlen(prefix);
    return strncasecmp(token, prefix, len) == 0 ? token + len : nullptr;
}

int take_hwaddr(inventory_reader *reader, const char *token)
{
    ipaddrinfo *row = &reader->rows.back();
    copy_text(row->smac, token);
    const int ret = fip_crt_macaddr(token, row->macaddr);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_crt_macaddr() failed. (ret=%d)", ret);
        return ret;
    }
    reader->hwaddr_next = false;
    return FIP_SUCCESS;
}

/// Takes the address and prefix length of an "inet6 addr:" pair, in a row of its own when the interface has
/// one already.
int take_ipv6(inventory_reader *reader, const char *token)
{
    if (reader->rows.back().sipel.addr[0] != '\0') {
        const int ret = make_room(&reader->rows);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
        ipaddrinfo *row = add_row(&reader->rows);
        const ipaddrinfo &before = reader->rows[reader->rows.size() - 2];
        copy_text(row->ifname, before.ifname);
        copy_text(row->smac, before.smac);
        memcpy(row->macaddr, before.macaddr, sizeof(row->macaddr));
    }
    ipaddrinfo *row = &reader->rows.back();
    bool aliased = false;
    const int ret =
        fip_split_address(token, row->sipel.addr, row->sipel.mask, &row->sipel.masklen, nullptr, &aliased);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_div_ipmask failed. (ret=%d)", ret);
        return ret;
    }
    inet_pton(AF_INET6, row->sipel.addr, &row->nipel6.addr);
    inet_pton(AF_INET6, row->sipel.mask, &row->nipel6.mask);
    return FIP_SUCCESS;
}

/// Looks at one token in IPv4 mode.
void take_ipv4_token(inventory_reader *reader, const char *token, char **rest)
{
    ipaddrinfo *row = &reader->rows.back();
    if (strcasecmp(token, "inet") == 0) {
        token = strsep(rest, separators);
        if (token == nullptr) {
            return;
        }
        if (const char *addr = behind(token, "addr:")) {
            copy_text(row->sipel.addr, addr);
            inet_pton(AF_INET, row->sipel.addr, &row->nipel.addr);
            return;
        }
    }
    if (const char *mask = behind(token, "mask:")) {
        copy_text(row->sipel.mask, mask);
        inet_pton(AF_INET, row->sipel.mask, &row->nipel.mask);
    } else if (strcasecmp(token, "HWaddr") == 0) {
        reader->hwaddr_next = true;
    }
}

/// Looks at one token in IPv6 mode.
int take_ipv6_token(inventory_reader *reader, const char *token, char **rest)
{
    if (strcasecmp(token, "inet6") == 0) {
        token = strsep(rest, separators);
        if (token == nullptr) {
            return FIP_SUCCESS;
        }
        if (behind(token, "addr:") != nullptr) {
            token = strsep(rest, separators);
            return token != nullptr && *token != '\0' ? take_ipv6(reader, token) : FIP_SUCCESS;
        }
    }
    if (strcasecmp(token, "HWaddr") == 0) {
        reader->hwaddr_next = true;
    }
    return FIP_SUCCESS;
}

} // namespace

int fip_scan_hex(const char *str, unsigned *values, int max)
{
    int count = 0;
    while (count < max) {
        char *end = nullptr;
        const unsigned long value = strtoul(str, &end, 16);
        if (end == str) {
            break;
        }
        values[count++] = static_cast<unsigned>(value);
        if (*end != ':') {
            break;
        }
        str = end + 1;
    }
    return count;
}

int fip_crt_macaddr(const char *str, unsigned char *mac)
{
    TRACE(TRACE_DEBUG, "fip_crt_macaddr()  ENTRY...");
    if (str == nullptr || mac == nullptr) {
        TRACE(TRACE_ERROR, "mac address is null.");
        return fip_internal_error(FIP_ERR_MACADDR);
    }
    unsigned values[MAC_SIZE];
    const int count = fip_scan_hex(str, values, MAC_SIZE);
    if (count != 6 && count != MAC_SIZE) {
        memset(mac, 0, MAC_SIZE);
        TRACE(TRACE_ERROR, "mac adderss is invalid.");
        return fip_internal_error(FIP_ERR_MACADDR);
    }
    for (int i = 0; i < count; ++i) {
        mac[i] = static_cast<unsigned char>(values[i] & 0xff);
    }
    return FIP_SUCCESS;
}

void fip_drop_cut_token(char *line)
{
    std::size_t len = strlen(line);
    while (len > 0 && strchr(separators, line[len - 1]) == nullptr) {
        --len;
    }
    if (len > 0) { // else it is a header's name, and what follows belongs to no other interface
        line[len] = '\0';
    }
}

int fip_read_inventory_line(inventory_reader *reader, char *line)
{
    const bool header = *line != '\0' && isspace(static_cast<unsigned char>(*line)) == 0;
    char *rest = line;
    if (header) {
        const int ret = make_room(&reader->rows);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
        copy_text(add_row(&reader->rows)->ifname, strsep(&rest, separators));
    }
    if (reader->rows.empty()) {
        return FIP_SUCCESS; // no row to fill yet
    }
    for (const char *token = strsep(&rest, separators); token != nullptr; token = strsep(&rest, separators)) {
        if (*token == '\0') {
            continue;
        }
        int ret = FIP_SUCCESS;
        if (reader->hwaddr_next) {
            ret = take_hwaddr(reader, token);
        }
        if (ret == FIP_SUCCESS && ipv6flag != 0) {
            ret = take_ipv6_token(reader, token, &rest);
        } else if (ret == FIP_SUCCESS) {
            take_ipv4_token(reader, token, &rest);
        }
        if (ret != FIP_SUCCESS) {
            return ret;
        }
    }
    return FIP_SUCCESS;
}
