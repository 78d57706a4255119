#include "address_change.h"

#include "../command.h"
#include "../nicIfconfig.h"
#include "../text.h"
#include "guarded_removal.h"
#include "trace_source.h"

#include <arpa/inet.h>
#include <memory>
#include <string>

namespace
{

/// Builds the command line that adds the address. @return false when it does not fit
bool add_command(const vdevinfo &dev, const FIP_INFO &info, IP_CMD_INFO *block)
{
    const std::string tool = shell_in_quotes(info.ifconfcmd);
    const std::string addr = shell_word(dev.sipel.addr);
    char bcast[INET_ADDRSTRLEN];
    const in_addr numeric = nic_broadcast(dev);
    inet_ntop(AF_INET, &numeric, bcast, sizeof(bcast));
    if (ipv6flag != 0) {
        return format_text(block->cmdpath, sizeof(block->cmdpath), "\"%s\" %s add %s/%d > /dev/null 2>&1",
                           tool.c_str(), shell_word(dev.ifname).c_str(), addr.c_str(), dev.sipel.masklen);
    }
    return format_text(block->cmdpath, sizeof(block->cmdpath),
                       "\"%s\" %s %s netmask %s broadcast %s up > /dev/null 2>&1", tool.c_str(),
                       shell_word(dev.vdevname).c_str(), addr.c_str(), shell_word(dev.sipel.mask).c_str(),
                       bcast);
}

/// Builds the command line that removes the address. @return false when it does not fit
bool remove_command(const FIP_INFO &info, IP_CMD_INFO *block)
{
    const std::string tool = shell_in_quotes(info.ifconfcmd);
    const std::string ifname = shell_word(info.ifname);
    if (ipv6flag != 0) {
        return format_text(block->cmdpath, sizeof(block->cmdpath), "\"%s\" %s del %s/%d > /dev/null 2>&1",
                           tool.c_str(), ifname.c_str(), shell_word(info.addr).c_str(), info.masklen);
    }
    return format_text(block->cmdpath, sizeof(block->cmdpath), "\"%s\" %s down > /dev/null 2>&1",
                       tool.c_str(), ifname.c_str());
}

/// Runs the block's command line in the bounded worker, on behalf of the function `self`.
int change_by_command(const char *self, const std::shared_ptr<IP_CMD_INFO> &block, bool whole,
                      const FIP_INFO &info)
{
    if (!whole) {
        // Cut, it could name another interface: it counts as a command that could not be run.
        TRACE_AS(self, TRACE_ERROR, "system(%s) failed. (ret=%d)", block->cmdpath, 0);
        return fip_internal_error(FIP_ERR_ABNORMAL);
    }
    TRACE_AS(self, TRACE_DEBUG, "system(%s)...", block->cmdpath);
    const worker_texts texts = {
        .pname = trace_source,
        .pfunc = self,
        .worker = "fip_cmd_system",
        .create_failed = "ffip_cmd_system", // the trace's own word
        .timeout = "thread timeout. command :ifconfig",
        .timeout_code = FIP_ERR_TIMEOUT,
        .always_returned = true,
    };
    const int ret = fip_run_bounded(texts, info, fip_cmd_system, block, &actthend);
    return ret != FIP_SUCCESS ? ret : block->ret;
}

/// Removes the address in the one way or the other, with whatever that takes with it.
int remove_plainly(const vdevinfo *pvdevinfo, const FIP_INFO *pfipinfo)
{
    constexpr char self[] = "fip_deact_ipaddr";
    if (IsIfconfig != 0) {
        const auto block = std::make_shared<IP_CMD_INFO>();
        const bool whole = remove_command(*pfipinfo, block.get());
        return change_by_command(self, block, whole, *pfipinfo);
    }
    const int ret = nic_deact_ipaddr_ioctl(pvdevinfo);
    if (ret != NIC_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "nic_deact_ipaddr_ioctl(%s -> %s) failed.(ret(in nicCommon)=%d)",
                 pvdevinfo->sipel.addr, pvdevinfo->ifname, ret);
        fip_set_message("Delete ip(%s) failed.", pvdevinfo->sipel.addr);
        return FIP_ERR_DELETE;
    }
    TRACE_AS(self, TRACE_DEBUG, "nic_deact_ipaddr_ioctl() succeeded.");
    return FIP_SUCCESS;
}

/// Takes off what an addition that failed half-way has placed, and nothing else.
int remove_placed(const vdevinfo *pvdevinfo, const FIP_INFO &info)
{
    FIP_INFO placed = info;
    copy_text(placed.ifname, nic_device_name(*pvdevinfo));
    return fip_guard(pvdevinfo, &placed, remove_plainly);
}

} // namespace

void *fip_cmd_system(void *parg)
{
    auto *block = static_cast<IP_CMD_INFO *>(parg);
    const command_result result = command_judge(command_run(block->cmdpath, COMMAND_NO_LIMIT));
    switch (result.end) {
    case command_result::ABNORMAL:
        TRACE(TRACE_ERROR, "system(%s) failed. (ret=%d)", block->cmdpath, 0);
        block->ret = fip_internal_error(FIP_ERR_ABNORMAL);
        break;
    case command_result::FAILED:
        TRACE(TRACE_ERROR, "%s failed. (ret=%d)", block->cmdpath, result.code);
        block->ret = fip_internal_error(FIP_ERR_STATUS);
        break;
    case command_result::SUCCEEDED:
        TRACE(TRACE_INFO, "%s succeeded.", block->cmdpath);
        block->ret = FIP_SUCCESS;
        break;
    }
    actthend = 1;
    return nullptr;
}

int fip_act_ipaddr(const vdevinfo *pvdevinfo, const FIP_INFO *pfipinfo, bool dad)
{
    TRACE(TRACE_DEBUG, "fip_act_ipaddr()  ENTRY...");
    if (nic_check_name(nic_device_name(*pvdevinfo)) != NIC_SUCCESS) {
        return fip_internal_error(FIP_ERR_IFNAME);
    }
    if (IsIfconfig != 0) {
        const auto block = std::make_shared<IP_CMD_INFO>();
        const bool whole = add_command(*pvdevinfo, *pfipinfo, block.get());
        return change_by_command(__func__, block, whole, *pfipinfo);
    }
    const auto undo = [pfipinfo](const vdevinfo *placed) {
        return fip_is_guarded() ? remove_placed(placed, *pfipinfo) : nic_deact_ipaddr_ioctl(placed);
    };
    const int ret = nic_act_ipaddr_ioctl(pvdevinfo, dad, undo);
    if (ret != NIC_SUCCESS) {
        TRACE(TRACE_ERROR, "nic_act_ipaddr_ioctl(%s -> %s(%s)) failed. (ret(in nicCommon)=%d)",
              pvdevinfo->sipel.addr, pvdevinfo->ifname, pvdevinfo->vdevname, ret);
        fip_set_message("Add ip(%s) failed.", pvdevinfo->sipel.addr);
        return FIP_ERR_ADD;
    }
    TRACE(TRACE_DEBUG, "nic_act_ipaddr_ioctl() succeeded.");
    return FIP_SUCCESS;
}

bool fip_is_guarded()
{
    return practice.guardif != 0 && ipv6flag == 0;
}

int fip_deact_ipaddr(const vdevinfo *pvdevinfo, const FIP_INFO *pfipinfo)
{
    TRACE(TRACE_DEBUG, "fip_deact_ipaddr()  ENTRY...");
    return fip_is_guarded() ? fip_guard(pvdevinfo, pfipinfo, remove_plainly)
                            : remove_plainly(pvdevinfo, pfipinfo);
}
