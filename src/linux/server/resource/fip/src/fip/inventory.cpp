#include "inventory.h"

#include "../command.h"
#include "../nicIfconfig.h"
#include "../nicInventory.h"
#include "../text.h"
#include "ifconfig_output.h"
#include "trace_source.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace
{

constexpr char self[] = "fip_get_ipaddrlist";

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
