#include "inventory.h"

#include "../command.h"
#include "../heap.h"
#include "../nicInventory.h"
#include "../nicLayout.h"
#include "../text.h"
#include "address_text.h"
#include "trace_source.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace
{

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

void trace_rows(const inventory &rows)
{
    for (const ipaddrinfo &row : rows) {
        if (ipv6flag != 0) {
            TRACE_AS(self, TRACE_DEBUG, "[%u] if:%-8s masklen:%3d addr:%s mask:%s, mac:%s", row.index,
                     row.ifname, row.sipel.masklen, row.sipel.addr, row.sipel.mask, row.smac);
        } else {
            TRACE_AS(self, TRACE_DEBUG, "[%u] if:%-8s addr:%s mask:%s, mac:%s", row.index, row.ifname,
                     row.sipel.addr, row.sipel.mask, row.smac);
        }
    }
}

int read_output(command *cmd, inventory_reader *reader)
{
    char line[INVENTORY_LINE_SIZE];
    bool cut = false;
    while (command_read_line(cmd, line, sizeof(line), &cut) > 0) {
        if (cut) {
            fip_drop_cut_token(line);
        }
        fip_chop(line);
        const int ret = fip_read_inventory_line(reader, line);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
        reader->hwaddr_next = reader->hwaddr_next && !cut; // what was cut off is not in the next line
    }
    return FIP_SUCCESS;
}

/// The command's text is too long to be run whole: that counts as a command that did not end normally.
int refuse_command(const char *cmdpath)
{
    TRACE_AS(self, TRACE_ERROR, "pclose(%s) error. (ret=%d,errno=%d)", cmdpath, 0, ENAMETOOLONG);
    return fip_command_abnormal(cmdpath, ENAMETOOLONG);
}

/// Runs the bounded worker and takes its results.
int inventory_by_command(inventory *ipaddrlist, const FIP_INFO *pfipinfo)
{
    static constexpr worker_texts texts = {
        .pname = trace_source,
        .pfunc = "fip_ifconfig_mkth",
        .worker = "fip_cmd_popen",
        .create_failed = "fip_cmd_popen",
        .timeout = "thread timeout. command :ifconfig",
        .timeout_code = FIP_ERR_TIMEOUT,
        .always_returned = true,
    };
    const auto block = std::make_shared<IPADDR_INFO>();
    if (!copy_text(block->cmdpath, shell_word(pfipinfo->ifconfcmd).c_str())) {
        return refuse_command(block->cmdpath);
    }
    const int ret = fip_run_bounded(texts, *pfipinfo, fip_cmd_popen, block, &ifconfthend);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    *ipaddrlist = std::move(block->list);
    return block->ret;
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

int fip_get_ipaddrlist(inventory *ipaddrlist, char *cmdpath)
{
    TRACE(TRACE_DEBUG, "fip_get_ipaddrlist()  ENTRY...");
    static constexpr char option[] = " -a";
    const std::size_t len = strlen(cmdpath);
    if (len + sizeof(option) > FIP_PATH_SIZE) {
        return refuse_command(cmdpath);
    }
    copy_text(cmdpath + len, FIP_PATH_SIZE - len, option);

    command cmd;
    if (command_open(&cmd, cmdpath, COMMAND_NO_LIMIT) != 0) {
        TRACE(TRACE_ERROR, "popen() failed. (errno=%d)", errno);
        return fip_internal_error(FIP_ERR_POPEN);
    }
    TRACE(TRACE_DEBUG, "popen() succeeded.");
    inventory_reader reader;
    int ret = read_output(&cmd, &reader);
    if (ret == FIP_SUCCESS) {
        ret = fip_close_command(__func__, &cmd, cmdpath);
    }
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    trace_rows(reader.rows);
    *ipaddrlist = std::move(reader.rows);
    return FIP_SUCCESS;
}

void *fip_cmd_popen(void *parg)
{
    auto *block = static_cast<IPADDR_INFO *>(parg);
    block->ret = fip_get_ipaddrlist(&block->list, block->cmdpath);
    if (block->ret != FIP_SUCCESS) {
        TRACE(TRACE_ERROR, "fip_get_ipaddrlist() failed. (ret=%d)", block->ret);
    } else {
        TRACE(TRACE_DEBUG, "fip_get_ipaddrlist() succeeded.");
    }
    ifconfthend = 1;
    return nullptr;
}

int fip_ifconfig_mkth(inventory *ipaddrlist, const FIP_INFO *pfipinfo)
{
    TRACE(TRACE_DEBUG, "fip_ifconfig_mkth()  ENTRY...");
    if (IsIfconfig != 0) {
        return inventory_by_command(ipaddrlist, pfipinfo);
    }
    const int ret = nic_get_all_info(ipaddrlist);
    if (ret != NIC_SUCCESS) {
        TRACE(TRACE_ERROR, "nic_get_all_info() failed. (ret(in nicCommon)=%d)", ret);
        fip_set_message("Get nic info failed.");
        return FIP_ERR_INVENTORY;
    }
    TRACE(TRACE_DEBUG, "nic_get_all_info() succeeded.");
    return FIP_SUCCESS;
}

const ipaddrinfo *fip_find_row(const inventory &rows, const in_addr &addr, const in6_addr &addr6)
{
    for (const ipaddrinfo &row : rows) {
        const bool same = ipv6flag != 0 ? memcmp(&row.nipel6.addr, &addr6, sizeof(addr6)) == 0
                                        : row.nipel.addr.s_addr == addr.s_addr;
        if (same) {
            return &row;
        }
    }
    return nullptr;
}
