#include "command.h"
#include "nicCommon.h"
#include "text.h"
#include "tracersc.h"
#include "worker.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <memory>
#include <sys/socket.h>

int IsIfconfig = 1;
std::atomic<int> nic_actthend{0};

namespace
{

constexpr char trace_source[] = "src/nicCommon.c";

constexpr char which_command[] = "which ifconfig > /dev/null 2>&1";
constexpr char ifconfig_command[] = "ifconfig -a";

/// Sleeps of the wait for the detection: 100 of them make a second.
constexpr std::int64_t detection_poll_us = 10'000;
constexpr std::int64_t detection_polls_per_s = 100;

constexpr char separators[] = " \t\n";

/// Looks for ifconfig on the search path. 0, NIC_ERR_WHICH or NIC_ERR_ABSENT.
int find_ifconfig(const char *self)
{
    const command_result result = command_judge(command_run(which_command, COMMAND_NO_LIMIT));
    switch (result.end) {
    case command_result::ABNORMAL:
        TRACE_AS(self, TRACE_ERROR, "system(%s) failed. (ret=%d)", which_command, 0);
        return NIC_ERR_WHICH;
    case command_result::FAILED:
        TRACE_AS(self, TRACE_ERROR, "%s failed,ifconfig does not exist.(ret=%d)", which_command, result.code);
        return NIC_ERR_ABSENT;
    case command_result::SUCCEEDED:
        break;
    }
    TRACE_AS(self, TRACE_INFO, "%s succeeded.", which_command);
    return NIC_SUCCESS;
}

/// Reads the command's output until a line decides.
nic_layout read_layout(command *cmd)
{
    char line[1024];
    while (command_read_line(cmd, line, sizeof(line), nullptr) > 0) {
        fip_chop(line);
        const nic_layout layout = nic_scan_layout(line);
        if (layout != NIC_LAYOUT_OPEN) {
            return layout;
        }
    }
    return NIC_LAYOUT_OPEN;
}

int detect(const char *self)
{
    const int ret = find_ifconfig(self);
    if (ret != NIC_SUCCESS) {
        return ret;
    }
    command cmd;
    if (command_open(&cmd, ifconfig_command, COMMAND_NO_LIMIT) != 0) {
        TRACE_AS(self, TRACE_ERROR, "popen(%s, 'r') failed. (errno=%d)", ifconfig_command, errno);
        return NIC_ERR_OPEN;
    }
    TRACE_AS(self, TRACE_DEBUG, "popen(%s, 'r') succeeded.", ifconfig_command);
    const bool older = read_layout(&cmd) == NIC_LAYOUT_OLDER;
    if (older) {
        TRACE_AS(self, TRACE_INFO, "parsing succeed,the format of %s is the same as RHEL 6 or previous.",
                 ifconfig_command);
    } else {
        TRACE_AS(self, TRACE_INFO, "parsing failed,the format of %s is the same as RHEL 7.",
                 ifconfig_command);
    }
    // Enough of the output was read to decide, whatever became of the command.
    static_cast<void>(command_close_traced(&cmd, ifconfig_command, trace_source, self, TRACE_DEBUG));
    return older ? NIC_SUCCESS : NIC_ERR_LAYOUT;
}

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

void fill_rows(const ifaddrs *list, ipaddrinfo *rows)
{
    unsigned int index = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (!is_row(*entry)) {
            continue;
        }
        ipaddrinfo *row = &rows[index];
        copy_text(row->ifname, entry->ifa_name);
        row->index = index++;
        if (entry->ifa_addr->sa_family == AF_INET) {
            fill_ipv4(row, *entry);
        } else {
            fill_ipv6(row, *entry);
        }
    }
}

/// Gives the rows of one interface its hardware address; rows that have one keep it.
void set_mac(ipaddrinfo *rows, int num, const ifaddrs &entry)
{
    const auto *sll = reinterpret_cast<const sockaddr_ll *>(entry.ifa_addr);
    // An address longer than sll_addr runs on behind it, in room that getifaddrs(3) keeps for it.
    const auto *bytes = reinterpret_cast<const unsigned char *>(sll) + offsetof(sockaddr_ll, sll_addr);
    const std::size_t len = sll->sll_halen < MAC_SIZE ? sll->sll_halen : static_cast<std::size_t>(MAC_SIZE);
    char text[2 * MAC_SIZE + 1] = "";
    for (std::size_t i = 0; i < len; ++i) {
        snprintf(&text[2 * i], 3, "%02X", bytes[i]);
    }
    for (int i = 0; i < num; ++i) {
        ipaddrinfo *row = &rows[i];
        const std::size_t base = base_length(row->ifname);
        if (row->smac[0] == '\0' && strlen(entry.ifa_name) == base &&
            strncmp(row->ifname, entry.ifa_name, base) == 0) {
            copy_text(row->smac, text);
            memcpy(row->macaddr, bytes, len);
        }
    }
}

void fill_macs(const ifaddrs *list, ipaddrinfo *rows, int num)
{
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET &&
            strcmp(entry->ifa_name, "lo") != 0) {
            set_mac(rows, num, *entry);
        }
    }
}

int build_rows(const char *self, const ifaddrs *list, ipaddrinfo **ipaddrlist, int *num)
{
    int count = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        count += is_row(*entry) ? 1 : 0;
    }
    if (count == 0) {
        TRACE_AS(self, TRACE_ERROR, "no ip address found.");
        return NIC_ERR_NOADDR;
    }
    *num = count;
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(ipaddrinfo);
    auto *rows = static_cast<ipaddrinfo *>(calloc(1, bytes));
    if (rows == nullptr) {
        TRACE_AS(self, TRACE_ERROR, "malloc(%d) failed. (errno=%d)", static_cast<int>(bytes), errno);
        return NIC_ERR_MEMORY;
    }
    TRACE_AS(self, TRACE_DEBUG, "malloc(%d) succeeded.", static_cast<int>(bytes));
    fill_rows(list, rows);
    fill_macs(list, rows, count);
    *ipaddrlist = rows;
    return NIC_SUCCESS;
}

} // namespace

nic_layout nic_scan_layout(char *line)
{
    const bool header = *line != '\0' && isspace(static_cast<unsigned char>(*line)) == 0;
    const char *token = strsep(&line, separators);
    if (header) {
        if (token[strlen(token) - 1] == ':') {
            return NIC_LAYOUT_NEWER;
        }
        token = strsep(&line, separators);
    }
    for (; token != nullptr; token = strsep(&line, separators)) {
        if (strcasecmp(token, "inet") != 0 && strcasecmp(token, "inet6") != 0) {
            continue;
        }
        token = strsep(&line, separators);
        if (token == nullptr) {
            break;
        }
        if (strncasecmp(token, "addr:", strlen("addr:")) == 0) {
            return NIC_LAYOUT_OLDER;
        }
    }
    return NIC_LAYOUT_OPEN;
}

void *nic_cmd_chk(void *parg)
{
    *static_cast<int *>(parg) = detect(__func__);
    nic_actthend = 1;
    return nullptr;
}

int nic_chk_isifconfig(int *pIsIfconfig, int ifconfuse, int ifconfout)
{
    TRACE(TRACE_DEBUG, "nic_chk_isifconfig()  ENTRY...");
    *pIsIfconfig = 0;
    if (ifconfuse != 0) {
        return NIC_SUCCESS;
    }
    static constexpr worker_texts texts = {trace_source,  "nic_chk_isifconfig",          "nic_cmd_chk",
                                           "nic_cmd_chk", "thread timeout nic_cmd_chk.", NIC_ERR_TIMEOUT,
                                           false};
    const worker_limits limits = {detection_poll_us, ifconfout * detection_polls_per_s};
    const auto chkret = std::make_shared<int>(NIC_ERR_LAYOUT);
    int join_ret = 0;
    switch (worker_run(texts, limits, nic_cmd_chk, chkret, &nic_actthend, &join_ret)) {
    case WORKER_NOT_STARTED:
        return NIC_ERR_THREAD;
    case WORKER_LATE:
        return NIC_ERR_TIMEOUT;
    case WORKER_NO_MEMORY:
        return NIC_ERR_MEMORY;
    case WORKER_IN_TIME:
        break;
    }
    if (*chkret == NIC_SUCCESS) {
        *pIsIfconfig = 1;
        return NIC_SUCCESS;
    }
    return join_ret;
}

int nic_get_all_info(ipaddrinfo **ipaddrlist, int *num)
{
    TRACE(TRACE_DEBUG, "nic_get_all_info()  ENTRY...");
    ifaddrs *head = nullptr;
    int ret = NIC_ERR_GETIFADDRS;
    if (getifaddrs(&head) != 0) {
        TRACE(TRACE_ERROR, "getifaddrs() failed.(errno=%d)", errno);
    } else {
        TRACE(TRACE_DEBUG, "getifaddrs() succeeded.");
        const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(head, freeifaddrs);
        ret = build_rows(__func__, list.get(), ipaddrlist, num);
    }
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}
