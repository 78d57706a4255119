#include "ping.h"

#include "../command.h"
#include "../name_list.h"
#include "../text.h"
#include "heap.h"
#include "ifconfig_output.h"
#include "trace_source.h"

#include "qorxml.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace
{

/// What the ping tool may take beyond its own time-out before it is ended.
constexpr long tool_grace_ms = 10'000;
/// What the arp command, which looks into the kernel's table, may take.
constexpr long arp_limit_ms = 5'000;

constexpr int tool_answered = 0;
constexpr int tool_silent = 1;

/// The addresses that a resource has on all servers, ready to be probed.
struct address_list {
    name_list servers;
    std::vector<IP_INFO> pips; ///< the common address, then each server's
};

int probe_only(const FIP_INFO &info, int level)
{
    TRACE_AS("fip_ping", level, "ping ip=%s only.", info.addr);
    return -1;
}

/// Lists the servers of the resource. 0, or -1 when only the resource's own address is to be probed.
int list_servers(const FIP_INFO &info, address_list *list)
{
    static constexpr name_list_texts texts = {
        .pname = trace_source,
        .pfunc = "fip_ping",
        .count = "svnum",
        .slots = "servers",
        .tells_memory = true,
    };
    char path[FIP_PATH_SIZE];
    format_text(path, sizeof(path), "/root/resource/fip@%s/server", info.rscname);
    int ret = 0;
    switch (read_name_list(texts, path, &list->servers, &ret)) {
    case NAMES_READ:
        return 0;
    case NAMES_UNKNOWN:
        TRACE_AS("fip_ping", TRACE_DEBUG, "xmllib_enum_value(%s) failed. (ret=%d)", path, ret);
        return probe_only(info, TRACE_INFO);
    case NAMES_NONE:
    case NAMES_NO_MEMORY:
    case NAMES_UNREADABLE:
        break;
    }
    return probe_only(info, TRACE_WARNING);
}

/// Reads one address of the resource into its block. An address that is too long for one fails as a read.
int read_address(const char *path, FIP_INFO *info, PIP_INFO pip)
{
    char value[FIP_ADDRARG_SIZE] = "";
    int size = sizeof(value);
    int ret = xmllib_get_value(path, QOR_XMLTYPE_TEXT, value, &size);
    if (ret == QOR_XMLERR_SUCCESS && !copy_part(pip->addr, value, strcspn(value, "/%"))) {
        ret = QOR_XMLERR_INVALID_CONTENTS;
    }
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS("fip_ping", TRACE_ERROR, "xmllib_get_value(%s, %d) failed. (ret=%d)", path, QOR_XMLTYPE_TEXT,
                 ret);
    }
    pip->pinfo = info;
    return ret;
}

/// Collects every address of the resource. 0, or -1 when only its own address is to be probed.
int list_addresses(FIP_INFO *info, address_list *list)
{
    if (list_servers(*info, list) != 0) {
        return -1;
    }
    const int ipnum = list->servers.num + 1;
    TRACE_AS("fip_ping", TRACE_INFO, "ipnum=%d", ipnum);
    const auto bytes = static_cast<std::size_t>(ipnum) * sizeof(IP_INFO);
    if (!heap_assign(&list->pips, static_cast<std::size_t>(ipnum))) {
        TRACE_AS("fip_ping", TRACE_ERROR, "malloc(%zu) (*pips) failed. (errno=%d)", bytes, errno);
        return probe_only(*info, TRACE_WARNING);
    }
    TRACE_AS("fip_ping", TRACE_DEBUG, "malloc(%zu) (pips) success.", bytes);
    for (int i = 0; i < ipnum; ++i) {
        char path[FIP_PATH_SIZE];
        if (i == 0) {
            format_text(path, sizeof(path), "/root/resource/fip@%s/parameters/ip", info->rscname);
        } else {
            format_text(path, sizeof(path), "/root/resource/fip@%s/server@%s/parameters/ip", info->rscname,
                        list->servers[i - 1]);
        }
        if (read_address(path, info, &list->pips[static_cast<std::size_t>(i)]) != QOR_XMLERR_SUCCESS) {
            return probe_only(*info, TRACE_WARNING);
        }
    }
    return 0;
}

int probe(std::span<IP_INFO> pips, bool *asked)
{
    const int ret = fip_ping_mkth(pips, asked);
    if (ret != FIP_SUCCESS) {
        TRACE_AS("fip_ping", TRACE_ERROR, "fip_ping_mkth() failed. (ret=%d)", ret);
    }
    return ret;
}

/// Starts a worker per block. @return the number started; *last_error is the last failed start's
int start_workers(std::span<IP_INFO> pips, PFIP_THREAD_INFO pth, int *last_error)
{
    constexpr char self[] = "fip_ping_mkth";
    int started = 0;
    for (IP_INFO &ip : pips) {
        const int ret = pthread_create(&pth->pt, nullptr, fip_ping_retry, &ip);
        if (ret != 0) {
            TRACE_AS(self, TRACE_ERROR, "pthread_create(fip_ping_retry) failed. (ip=%s,errno=%d,ret=%d)",
                     ip.addr, errno, ret);
            pth->ret = FIP_ERR_THREAD;
            *last_error = ret;
        } else {
            TRACE_AS(self, TRACE_DEBUG, "pthread_create(fip_ping_retry) success. (ip=%s)", ip.addr);
            pth->ret = 0;
            ++started;
        }
        ++pth;
    }
    return started;
}

void join_workers(std::span<IP_INFO> pips, PFIP_THREAD_INFO pth)
{
    constexpr char self[] = "fip_ping_mkth";
    for (std::size_t i = 0; i < pips.size(); ++i) {
        if (pth[i].ret != 0) {
            continue;
        }
        const int ret = pthread_join(pth[i].pt, &pth[i].thret);
        if (ret != 0) {
            TRACE_AS(self, TRACE_WARNING, "pthread_join(fip_ping_retry) failed. (ip=%s,errno=%d,ret=%d)",
                     pips[i].addr, errno, ret);
        } else {
            TRACE_AS(self, TRACE_DEBUG, "pthread_join(fip_ping_retry) success. (ip=%s)", pips[i].addr);
        }
    }
}

/// The last worker's result that is not 0; a worker that did not start counts only when there is none.
int combine(std::span<IP_INFO> pips, const FIP_THREAD_INFO *pth)
{
    int result = FIP_SUCCESS;
    for (const IP_INFO &ip : pips) {
        if (ip.ret != FIP_SUCCESS) {
            result = ip.ret;
        }
        if (pth->ret != 0 && result == FIP_SUCCESS) {
            result = pth->ret;
        }
        ++pth;
    }
    return result;
}

/// A host answered: tells which, as far as the neighbour table knows.
void trace_owner(const IP_INFO &ip)
{
    constexpr char self[] = "fip_chk_ip_response";
    int ret = 1; // no lookup is made for IPv6
    if (ipv6flag == 0) {
        char macaddr[MACTEXT_SIZE] = "";
        ret = fip_get_macaddr_v4(ip.pinfo->arpcmd, ip.addr, macaddr);
        if (ret == FIP_SUCCESS) {
            TRACE_AS(self, TRACE_ERROR, "%s is already exist.(macaddr : %s)", ip.addr, macaddr);
            return;
        }
    }
    TRACE_AS(self, TRACE_ERROR, "%s is already exist. (ret=%d)", ip.addr, ret);
}

} // namespace

bool fip_find_macaddr(char *line, char *macaddr, std::size_t size)
{
    fip_chop(line);
    char *save = nullptr;
    for (char *word = strtok_r(line, " \t\n", &save); word != nullptr;
         word = strtok_r(nullptr, " \t\n", &save)) {
        unsigned values[MAC_SIZE];
        const int count = fip_scan_hex(word, values, MAC_SIZE);
        if ((count == 6 || count == MAC_SIZE) && copy_text(macaddr, size, word)) {
            return true;
        }
    }
    return false;
}

int fip_get_macaddr_v4(const char *cmdpath, const char *ipaddr, char *macaddr)
{
    TRACE(TRACE_DEBUG, "fip_get_macaddrlist()  ENTRY...");
    char line[FIP_PATH_SIZE];
    if (!format_text(line, sizeof(line), "\"%s\" -n %s", shell_in_quotes(cmdpath).c_str(),
                     shell_word(ipaddr).c_str())) {
        TRACE(TRACE_ERROR, "popen() failed. (errno=%d)", ENAMETOOLONG);
        return fip_internal_error(FIP_ERR_POPEN);
    }
    TRACE(TRACE_INFO, "popen(%s)...", line);
    command cmd;
    if (command_open(&cmd, line, arp_limit_ms) != 0) {
        TRACE(TRACE_ERROR, "popen() failed. (errno=%d)", errno);
        return fip_internal_error(FIP_ERR_POPEN);
    }
    TRACE(TRACE_DEBUG, "popen() succeeded.");

    bool found = false;
    char text[1024];
    while (!found && command_read_line(&cmd, text, sizeof(text), nullptr) > 0) {
        found = fip_find_macaddr(text, macaddr, MACTEXT_SIZE);
    }
    const int ret = fip_close_command(__func__, &cmd, line);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    return found ? FIP_SUCCESS : FIP_ERR_NOMAC;
}

int fip_chk_ip_response(PIP_INFO pip)
{
    TRACE(TRACE_DEBUG, "fip_chk_ip_response(%p)  ENTRY...", static_cast<void *>(pip));
    const FIP_INFO &info = *pip->pinfo;
    char path[FIP_PATH_SIZE];
    struct stat st = {};
    if (!format_text(path, sizeof(path), "%s/%s", inspath, info.pingcmd) || stat(path, &st) != 0) {
        TRACE(TRACE_ERROR, "%s: Command not found.", path);
        return FIP_ERR_NOTOOL;
    }
    char line[FIP_PATH_SIZE];
    const bool whole =
        format_text(line, sizeof(line), "\"%s\" -c %d %s > /dev/null 2>&1", shell_in_quotes(path).c_str(),
                    info.pingtout, shell_word(pip->addr).c_str());
    TRACE(TRACE_INFO, "system(%s)...", line);
    const int status = whole ? command_run(line, std::max(info.pingtout, 0) * 1000L + tool_grace_ms) : -1;
    const command_result result = command_judge(status);
    if (result.end == command_result::ABNORMAL) {
        TRACE(TRACE_ERROR, "ping to %s failed (before system()).", pip->addr);
        return FIP_ERR_ABNORMAL;
    }
    switch (result.code) {
    case tool_silent:
        return FIP_SUCCESS;
    case tool_answered:
        trace_owner(*pip);
        return FIP_ERR_INUSE;
    default:
        TRACE(TRACE_ERROR, "ping to %s failed (after system()).", pip->addr);
        return FIP_ERR_TOOL;
    }
}

void *fip_ping_retry(void *parg)
{
    TRACE(TRACE_DEBUG, "fip_ping_retry(%p)  ENTRY...", parg);
    auto *pip = static_cast<PIP_INFO>(parg);
    const auto ask = [pip] { return fip_chk_ip_response(pip); };
    pip->ret = fip_bound_memory(ask);
    if (pip->ret == FIP_SUCCESS) {
        TRACE(TRACE_INFO, "fip_chk_ip_response(%s) OK.", pip->addr);
        return nullptr;
    }
    TRACE(TRACE_ERROR, "fip_chk_ip_response(%s) failed. (ret=%d)", pip->addr, pip->ret);
    for (int count = 1; count <= pip->pinfo->pingretry; ++count) {
        fip_pause(pip->pinfo->pinginterval);
        TRACE(TRACE_INFO, "ping(%s) retry start, count=%d.", pip->addr, count);
        pip->ret = fip_bound_memory(ask);
        if (pip->ret == FIP_SUCCESS) {
            TRACE(TRACE_INFO, "fip_chk_ip_response(%s) succeeded.", pip->addr);
            return nullptr;
        }
    }
    if (pip->ret == FIP_ERR_INUSE && actflag == 0) {
        tracemess(TRACE_EVENT, FIP_EVENT_INUSE, trace_source, __LINE__, __func__, nullptr, pip->addr);
    }
    if (pip->pinfo->pingretry != 0) {
        TRACE(TRACE_ERROR, "ping(%s) retry failed.", pip->addr);
    }
    return nullptr;
}

int fip_ping_mkth(std::span<IP_INFO> pips, bool *asked)
{
    TRACE(TRACE_DEBUG, "fip_ping_mkth(%p, %d)  ENTRY...", static_cast<void *>(pips.data()),
          static_cast<int>(pips.size()));
    const auto bytes = static_cast<int>(pips.size() * sizeof(FIP_THREAD_INFO));
    std::vector<FIP_THREAD_INFO> pth;
    if (!heap_assign(&pth, pips.size())) {
        TRACE(TRACE_ERROR, "malloc(%d) (pth) failed. (errno:%d)", bytes, errno);
        return fip_internal_error(FIP_ERR_MEMORY);
    }
    TRACE(TRACE_DEBUG, "malloc(%d) (pth) success.", bytes);

    int last_error = 0;
    const int started = start_workers(pips, pth.data(), &last_error);
    join_workers(pips, pth.data());
    int result = started == 0 ? last_error : combine(pips, pth.data());

    if (asked != nullptr) {
        *asked = result == FIP_SUCCESS || result == FIP_ERR_INUSE;
    }
    const FIP_INFO &info = *pips[0].pinfo;
    if (result != FIP_SUCCESS && info.pingforce != 0 && actflag == 0) {
        TRACE(TRACE_WARNING, "force act fip(%s)!", info.addr);
        tracemess(TRACE_EVENT, FIP_EVENT_FORCED, trace_source, __LINE__, __func__, nullptr, info.addr);
        result = FIP_SUCCESS;
    }
    pth = {};
    TRACE(TRACE_DEBUG, "free (pth) success.");
    if (result == FIP_ERR_INUSE) {
        fip_set_message("IP address was already used.");
    } else if (result != FIP_SUCCESS) {
        fip_internal_error(result);
    }
    return result;
}

int fip_ping(FIP_INFO *pinfo, bool *asked)
{
    TRACE(TRACE_DEBUG, "fip_ping(%p)  ENTRY...", static_cast<void *>(pinfo));
    if (actflag == 0 && pinfo->pingallip != 0) {
        address_list list;
        if (list_addresses(pinfo, &list) == 0) {
            const int ret = probe(list.pips, asked);
            list.servers.slots = {};
            TRACE(TRACE_DEBUG, "free(servers) success.");
            list.pips = {};
            TRACE(TRACE_DEBUG, "free(pips) success.");
            return ret;
        }
    }
    IP_INFO ip = {};
    copy_text(ip.addr, pinfo->addr);
    ip.pinfo = pinfo;
    return probe({&ip, 1}, asked);
}
