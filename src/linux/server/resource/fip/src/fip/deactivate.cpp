#include "deactivate.h"

#include "../text.h"
#include "address_change.h"
#include "address_record.h"
#include "address_text.h"
#include "inventory.h"
#include "ping.h"
#include "suite_state.h"
#include "trace_source.h"

namespace
{

/// Every line of the sequence carries its name, whichever step writes it.
constexpr char self[] = "fip_start_deact";

/// The state of one deactivation.
struct deactivation {
    FIP_INFO *info = nullptr;
    ifconfig_section section;
    inventory rows = {}; ///< the latest
    in_addr addr = {};
    in6_addr addr6 = {};
    vdevinfo target = {};
    bool absent = false; ///< the address is not here: nothing is left to do
};

/// Replaces the inventory by a new one.
int take_inventory(deactivation *deact)
{
    deact->rows.clear();
    return fip_ifconfig_mkth(&deact->rows, deact->info);
}

const ipaddrinfo *find_address(const deactivation &deact)
{
    return fip_find_row(deact.rows, deact.addr, deact.addr6);
}

/// Fills the target, and the record's ifname, from the row that carries the address.
void take_row(deactivation *deact, const ipaddrinfo &row)
{
    FIP_INFO *info = deact->info;
    vdevinfo *target = &deact->target;
    copy_text(info->ifname, row.ifname);
    copy_text(target->ifname, row.ifname);
    copy_text(target->sipel.addr, row.sipel.addr);
    if (ipv6flag != 0) {
        info->masklen = row.sipel.masklen;
        target->sipel.masklen = row.sipel.masklen;
        target->nipel6 = row.nipel6;
    } else {
        target->nipel = row.nipel;
    }
}

/// Finds the address.
int locate(deactivation *deact)
{
    const int ret = take_inventory(deact);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_ifconfig_mkth() failed. (ret=%d)", ret);
        return ret;
    }
    TRACE_AS(self, TRACE_DEBUG, "fip_ifconfig_mkth() succeeded.");
    if (deact->rows.empty()) {
        TRACE_AS(self, TRACE_ERROR, "No IP address.");
        fip_set_message("IP address did not exist.");
        return FIP_ERR_NOADDR;
    }
    if (!fip_parse_host(deact->info->addr, &deact->addr, &deact->addr6)) {
        TRACE_AS(self, TRACE_ERROR, "FIP address is invalid");
        return fip_internal_error(FIP_ERR_IPFORMAT);
    }
    const ipaddrinfo *row = find_address(*deact);
    deact->absent = row == nullptr;
    if (deact->absent) {
        TRACE_AS(self, TRACE_WARNING, "%s not activated.", deact->info->addr);
        fip_record_down(deact->info->rscname, deact->info->addr);
        return FIP_SUCCESS;
    }
    take_row(deact, *row);
    return FIP_SUCCESS;
}

int remove_address(deactivation *deact)
{
    const int ret = fip_deact_ipaddr(&deact->target, deact->info);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_deact_ipaddr(%s) failed. (ret=%d).", deact->info->ifname, ret);
        return ret;
    }
    TRACE_AS(self, TRACE_DEBUG, "fip_deact_ipaddr() succeeded.");
    fip_record_down(deact->info->rscname, deact->info->addr);
    return FIP_SUCCESS;
}

/// One pass of the inventory check. *gone tells whether the address is not listed any more.
int look_again(deactivation *deact, bool *gone)
{
    const int ret = take_inventory(deact);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "deact check fip_ifconfig_mkth() failed. (ret=%d)", ret);
        return ret;
    }
    if (deact->rows.empty()) {
        TRACE_AS(self, TRACE_ERROR, "deact check No IP address.");
    }
    *gone = find_address(*deact) == nullptr;
    if (*gone) {
        TRACE_AS(self, TRACE_DEBUG, "deact check ifconfig OK.");
    }
    return FIP_SUCCESS;
}

/// Confirms by inventory that the address is gone.
int check_inventory(deactivation *deact)
{
    const FIP_INFO &info = *deact->info;
    if (info.checkifexec == 0) {
        return FIP_SUCCESS;
    }
    TRACE_AS(self, TRACE_DEBUG, "deact check ifconfig start.");
    bool gone = false;
    int ret = look_again(deact, &gone);
    for (int pass = 0; ret == FIP_SUCCESS && !gone && pass < info.checkifretry; ++pass) {
        fip_pause(info.checkifinterval);
        ret = look_again(deact, &gone);
    }
    if (ret != FIP_SUCCESS || gone) {
        return ret;
    }
    TRACE_AS(self, TRACE_ERROR, "deact check ifconfig retry count over. (ip=%s)", info.addr);
    return info.checkiferror != 0 ? fip_internal_error(FIP_ERR_CHECKIF) : FIP_SUCCESS;
}

/// One pass of the ping check: whether nobody answers.
bool is_silent(FIP_INFO *info)
{
    if (fip_ping(info) != FIP_SUCCESS) {
        return false;
    }
    TRACE_AS(self, TRACE_DEBUG, "deact check ping OK");
    return true;
}

/// Confirms by ping that nobody answers on the address. The message of an answer stays when the result is 0:
/// an operator is to see that it was not confirmed at once.
int check_ping(deactivation *deact)
{
    FIP_INFO *info = deact->info;
    if (info->checkpiexec == 0) {
        return FIP_SUCCESS;
    }
    if (fip_skips_ping(info->pingnpsimu)) {
        TRACE_AS(self, TRACE_INFO, "deact check ping skip, because npsimu is enabled.");
        return FIP_SUCCESS;
    }
    if (practice.pingparallel != 0) {
        deact->section.leave(); // nothing is looked up or changed any more
    }
    TRACE_AS(self, TRACE_DEBUG, "deact check ping start.");
    bool silent = is_silent(info);
    for (int pass = 0; !silent && pass < info->checkpiretry; ++pass) {
        fip_pause(info->checkpiinterval);
        silent = is_silent(info);
    }
    if (silent) {
        return FIP_SUCCESS;
    }
    TRACE_AS(self, TRACE_ERROR, "deact check ping retry count over. (ip=%s)", info->addr);
    return info->checkpierror != 0 ? fip_internal_error(FIP_ERR_CHECKPING) : FIP_SUCCESS;
}

/// Whether the run does without the critical section: the address names its interface and alias.
bool is_trusted()
{
    const bool trusted = fullnotation != 0 && !fip_is_guarded();
    if (trusted) {
        TRACE_AS(self, TRACE_INFO, "trusted mode");
    }
    return trusted;
}

/// The sequence. The first step that fails ends it.
constexpr int (*steps[])(deactivation *) = {
    locate,
    remove_address,
    check_inventory,
    check_ping,
};

int deactivate(FIP_INFO *info)
{
    deactivation deact{.info = info, .section = ifconfig_section(!is_trusted())};
    for (const auto step : steps) {
        const int ret = fip_bound_memory([step, &deact] { return step(&deact); });
        if (ret != FIP_SUCCESS || deact.absent) {
            return ret;
        }
    }
    return FIP_SUCCESS;
}

} // namespace

int fip_start_deact(FIP_INFO *pfipinfo)
{
    TRACE(TRACE_DEBUG, "fip_start_deact(%p)  ENTRY...", static_cast<void *>(pfipinfo));
    const int ret = deactivate(pfipinfo);
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}
