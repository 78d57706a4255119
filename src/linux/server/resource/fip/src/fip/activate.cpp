#include "activate.h"

#include "../text.h"
#include "../unique_fd.h"
#include "address_change.h"
#include "address_record.h"
#include "address_text.h"
#include "arp.h"
#include "inventory.h"
#include "link_check.h"
#include "nd.h"
#include "ping.h"
#include "srcip.h"
#include "suite_state.h"
#include "target.h"
#include "trace_source.h"

#include "qoripc.h"

#include <sys/socket.h>

namespace
{

/// Every line of the sequence carries its name, whichever step writes it.
constexpr char self[] = "fip_start_act";

/// The state of one activation, handed from step to step.
struct activation {
    FIP_INFO *info = nullptr;
    inventory rows;
    vdevinfo target = {};
    unique_fd link_socket; ///< what the link is asked through
    bool asked = false;    ///< the duplicate-address check found out whether anybody has the address
    dad_look dad = {DAD_UNKNOWN, 0};
};

/// Source routing applies: configured, and an IPv4 address.
bool uses_source_routing(const FIP_INFO &info)
{
    return info.srcipuse == 1 && ipv6flag == 0;
}

/// Makes sure that no other host answers on the address, unless the node's npsimu flag says to skip that.
/// *asked tells whether it was found out, be the answer overridden or not.
int check_duplicate(FIP_INFO *info, bool *asked)
{
    if (info->pingtout == 0) {
        return FIP_SUCCESS;
    }
    if (fip_skips_ping(info->pingnpsimu)) {
        TRACE_AS(self, TRACE_INFO, "ping was not executed because npsimu is enabled.");
        return FIP_SUCCESS;
    }
    const int ret = fip_ping(info, asked);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_ping() failed. (ret=%d)", ret);
    } else {
        TRACE_AS(self, TRACE_DEBUG, "fip_ping() succeeded.");
    }
    return ret;
}

/// Whether the run does without the critical section: an address that names interface and alias needs no
/// choice that another run could upset. Source routing changes routes that all runs share, and a guarded
/// removal puts others' addresses back.
bool is_trusted(const FIP_INFO &info)
{
    const bool trusted = fullnotation != 0 && !uses_source_routing(info) && !fip_is_guarded();
    if (trusted) {
        TRACE_AS(self, TRACE_DEBUG, "trusted mode");
    }
    return trusted;
}

int take_inventory(activation *act)
{
    const int ret = fip_ifconfig_mkth(&act->rows, act->info);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_ifconfig_mkth() failed. (ret=%d)", ret);
        return ret;
    }
    TRACE_AS(self, TRACE_DEBUG, "fip_ifconfig_mkth() succeeded.");
    if (act->rows.empty()) {
        TRACE_AS(self, TRACE_ERROR, "No IP address");
        fip_set_message("IP address did not exist.");
        return FIP_ERR_NOADDR;
    }
    return FIP_SUCCESS;
}

/// Fills the target from the record. A text that is no host's address must never go up.
int fill_target(activation *act)
{
    const FIP_INFO &info = *act->info;
    vdevinfo *target = &act->target;
    copy_text(target->sipel.addr, info.addr);
    copy_text(target->sipel.mask, info.mask);
    target->sipel.masklen = info.masklen;
    copy_text(target->ifname, info.ifname);
    const bool masked = info.mask[0] != '\0';
    if (!fip_parse_host(info.addr, &target->nipel.addr, &target->nipel6.addr) ||
        (masked && !fip_parse_addr(info.mask, &target->nipel.mask, &target->nipel6.mask))) {
        TRACE_AS(self, TRACE_ERROR, "FIP address is invalid");
        return fip_internal_error(FIP_ERR_IPFORMAT);
    }
    return FIP_SUCCESS;
}

int refuse_present(activation *act)
{
    const vdevinfo &target = act->target;
    if (fip_find_row(act->rows, target.nipel.addr, target.nipel6.addr) != nullptr) {
        TRACE_AS(self, TRACE_ERROR, "Already used %s.", act->info->addr);
        fip_set_message("This ip address was already used.  IP=%s", act->info->addr);
        return FIP_ERR_INUSE;
    }
    return FIP_SUCCESS;
}

int choose_device(activation *act)
{
    const int ret = fip_crt_vdevinfo(act->rows, &act->target);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_crt_vdevinfo() failed. (ret=%d)", ret);
        return ret;
    }
    TRACE_AS(self, TRACE_DEBUG, "fip_crt_vdevinfo() succeeded.");
    return FIP_SUCCESS;
}

int check_source(activation *act)
{
    if (!uses_source_routing(*act->info)) {
        return FIP_SUCCESS;
    }
    const int ret = fip_srcip_check(act->rows, &act->target, act->info->rscname);
    if (ret == FIP_ERR_INUSE) {
        TRACE_AS(self, TRACE_ERROR, "A source IP address was already attached %s.", act->target.ifname);
        fip_set_message("The device has another IP address specified as the transmission source.  Device=%s",
                        act->target.ifname);
        return FIP_ERR_INUSE;
    }
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_srcip_check() failed. (ret=%d)", ret);
        return fip_internal_error(FIP_ERR_INTERNAL);
    }
    return FIP_SUCCESS;
}

/// Whether the kernel is to make sure, too, that nobody has the IPv6 address.
bool wants_dad(const activation &act)
{
    return practice.nddad != NDDAD_NEVER_RUN && !(practice.nddad == NDDAD_UNLESS_ASKED && act.asked);
}

int add_address(activation *act)
{
    const int ret = fip_act_ipaddr(&act->target, act->info, wants_dad(*act));
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_act_ipaddr() failed. (ret=%d)", ret);
        return ret;
    }
    TRACE_AS(self, TRACE_DEBUG, "fip_act_ipaddr() succeeded.");
    return FIP_SUCCESS;
}

/// Tells what the link check found, and turns it into an exit code.
int judge_link(int result)
{
    switch (result) {
    case MIIW_RET_SUCCESS:
        TRACE_AS(self, TRACE_INFO, "check NIC link success.");
        return FIP_SUCCESS;
    case MIIW_RET_FAIL_PARAM:
        TRACE_AS(self, TRACE_ERROR, "Failed to get NIC status.");
        fip_set_message("Failed to get NIC status.");
        return FIP_ERR_NICSTATUS;
    case MIIW_RET_FAIL_NICDOWN:
        TRACE_AS(self, TRACE_ERROR, "NIC link status was down.");
        fip_set_message("Detected NIC Link Down.");
        return FIP_ERR_LINKDOWN;
    default:
        TRACE_AS(self, TRACE_ERROR, "ioctl internal error.");
        return fip_internal_error(FIP_ERR_INTERNAL);
    }
}

int open_link_socket(activation *act)
{
    if (act->info->isMiiw == 0) {
        return FIP_SUCCESS;
    }
    act->link_socket.reset(socket(ipv6flag != 0 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (act->link_socket.fd < 0) {
        TRACE_AS(self, TRACE_ERROR, "create socket for NIC link check failed.");
        return fip_internal_error(FIP_ERR_SOCKET);
    }
    return FIP_SUCCESS;
}

int check_link(activation *act)
{
    if (act->info->isMiiw == 0) {
        return FIP_SUCCESS;
    }
    return judge_link(
        fip_miiw_ioctl(&act->link_socket.fd, nic_device_name(act->target), act->info->miiw_method));
}

/// Tells of a DAD that has proved nothing.
void tell_open_dad(const activation &act)
{
    const char *addr = act.info->addr;
    if (act.dad.state == DAD_RUNNING) {
        TRACE_AS(self, TRACE_WARNING, "DAD of %s is not over after %d s.", addr, practice.ndtimeout);
    } else if (act.dad.state == DAD_SUSPENDED) {
        TRACE_AS(self, TRACE_WARNING, "DAD of %s waits for the link of %s.", addr,
                 nic_device_name(act.target));
    }
}

/// Lets the duplicate address detection (DAD) of an address that is to be announced come to its end. Other
/// runs have their turn meanwhile: this one chooses nothing any more. But one of them may have taken the
/// address off, and perhaps put it on again as its own.
int await_dad(activation *act)
{
    if (ipv6flag == 0 || practice.ndretry <= 0) {
        return FIP_SUCCESS;
    }
    dad_look *dad = &act->dad;
    *dad = fip_look_dad(act->target);
    const std::uint32_t created = dad->created;
    if (dad->state == DAD_RUNNING) {
        {
            const ifconfig_pause others_turn;
            fip_await_dad(act->target, practice.ndtimeout);
        }
        *dad = fip_look_dad(act->target);
    }
    if (dad->state == DAD_GONE || (dad->state != DAD_UNKNOWN && dad->created != created)) {
        TRACE_AS(self, TRACE_ERROR, "%s is not there any more.", act->info->addr);
        fip_set_message("Add ip(%s) failed.", act->info->addr);
        return FIP_ERR_ADD;
    }
    tell_open_dad(*act);
    return FIP_SUCCESS;
}

int refuse_duplicate(activation *act)
{
    if (act->dad.state != DAD_FAILED) {
        return FIP_SUCCESS;
    }
    TRACE_AS(self, TRACE_ERROR, "DAD of %s failed.", act->info->addr);
    tracemess(TRACE_EVENT, FIP_EVENT_INUSE, trace_source, __LINE__, self, nullptr, act->info->addr);
    fip_set_message("IP address was already used.");
    return FIP_ERR_INUSE;
}

int set_source(activation *act)
{
    if (!uses_source_routing(*act->info)) {
        return FIP_SUCCESS;
    }
    const int ret = fip_srcip_set(&act->target);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_srcip_set() failed. (ret=%d)", ret);
        return FIP_ERR_INTERNAL;
    }
    return FIP_SUCCESS;
}

/// Records the address and its device for qorstat(8). Without that the address is up all the same.
int record_address(activation *act)
{
    fip_record_up(act->info->rscname, act->target, nic_device_name(act->target));
    return FIP_SUCCESS;
}

/// Files the device's name in the resource state.
int file_device(activation *act)
{
    char device[SHMRM_FREE_SIZE];
    copy_text(device, nic_device_name(act->target));
    if (device[0] == '\0') {
        TRACE_AS(self, TRACE_ERROR, "write ifname to shmbuf failed, ifname is null.");
        return FIP_ERR_NODEV;
    }
    const int ret = shmrm_setrscfree(nullptr, "fip", act->info->rscname, device, sizeof(device));
    if (ret != 0) {
        TRACE_AS(self, TRACE_ERROR, "shmrm_setrscfree() failed. (ret=%d)", ret);
        return FIP_ERR_INTERNAL;
    }
    TRACE_AS(self, TRACE_DEBUG, "write %s to shmbuf success.", device);
    return FIP_SUCCESS;
}

void announce_ipv6(const vdevinfo &target)
{
    if (practice.ndretry <= 0) {
        return;
    }
    const int ret = fip_send_na(target, practice.ndretry);
    if (ret == FIP_SUCCESS) {
        TRACE_AS(self, TRACE_INFO, "fip_send_na() OK.");
    } else {
        TRACE_AS(self, TRACE_WARNING, "fip_send_na() failed. (ret=%d)", ret);
    }
}

/// Tells the neighbours. The address is up whatever comes of it, so this never fails the activation.
int announce(activation *act)
{
    if (ipv6flag != 0) {
        announce_ipv6(act->target);
        return FIP_SUCCESS;
    }
    if (act->info->arpnum == 0) {
        return FIP_SUCCESS;
    }
    const FIP_INFO &info = *act->info;
    const int ret =
        fip_bound_memory([act, &info] { return fip_send_arp(&act->target, info.arpnum, info.arpopcode); });
    if (ret == FIP_SUCCESS) {
        TRACE_AS(self, TRACE_INFO, "fip_send_arp() OK.");
    } else {
        TRACE_AS(self, TRACE_WARNING, "fip_send_arp() failed. (ret=%d)", ret);
    }
    if (ret != FIP_ERR_IFLIST && ret != FIP_ERR_NODEV) { // the hardware address was found
        TRACE_AS(self, TRACE_INFO, "mac : %s", act->target.smac);
    }
    return FIP_SUCCESS;
}

/// Takes the address off again. When it cannot be removed, the result message tells of that in place of the
/// first failure, since the operator has to act on it.
void undo_address(activation *act)
{
    FIP_INFO *info = act->info;
    copy_text(info->ifname, nic_device_name(act->target));
    if (ipv6flag != 0 && info->masklen == 0) {
        info->masklen = act->target.sipel.masklen;
    }
    const int ret = fip_bound_memory([act, info] { return fip_deact_ipaddr(&act->target, info); });
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_DEBUG,
                 "NIC link down or write shm failed, fip_deact_ipaddr(%s) failed. (ret=%d).", info->ifname,
                 ret);
        return; // it is up, and stays recorded so
    }
    TRACE_AS(self, TRACE_DEBUG, "NIC link down or write shm failed, fip_deact_ipaddr() succeeded.");
    fip_record_down(info->rscname, info->addr);
}

/// One step of the sequence.
struct step {
    int (*run)(activation *);
    void (*undo)(activation *) = nullptr; ///< takes back what the step did, when a later one fails
    enum { UNDO, KEEP } failed = UNDO; ///< what a failure of the step does with all that was done before it
};

/// The sequence behind the duplicate-address check. The first step that fails ends it.
constexpr step steps[] = {
    {take_inventory},
    {fill_target},
    {refuse_present},
    {choose_device},
    {check_source},
    {add_address, undo_address},
    {record_address},
    // Nothing is known about the link: no reason to take an address off.
    {open_link_socket, nullptr, step::KEEP},
    {check_link},
    // Fails when what was added is not there any more. The next step, and an announcement of IPv6, go by what
    // it has found.
    {await_dad, nullptr, step::KEEP},
    {refuse_duplicate},
    {set_source},
    {file_device},
    {announce},
};

/// Takes back what the steps before `failed` have done, the last one first.
void undo_steps(activation *act, const step *failed)
{
    for (const step *done = failed; done != steps; --done) {
        if (done[-1].undo != nullptr) {
            done[-1].undo(act);
        }
    }
}

/// Everything behind the duplicate-address check.
int activate(FIP_INFO *info, bool asked)
{
    const ifconfig_section section(!is_trusted(*info));
    activation act;
    act.info = info;
    act.asked = asked;
    for (const step &next : steps) {
        const int ret = fip_bound_memory([&next, &act] { return next.run(&act); });
        if (ret == FIP_SUCCESS) {
            continue;
        }
        if (next.failed == step::UNDO) {
            undo_steps(&act, &next);
        }
        return ret;
    }
    return FIP_SUCCESS;
}

} // namespace

int fip_start_act(FIP_INFO *pfipinfo)
{
    TRACE(TRACE_DEBUG, "fip_start_act(%p)  ENTRY...", static_cast<void *>(pfipinfo));
    bool asked = false;
    int ret = check_duplicate(pfipinfo, &asked);
    if (ret != FIP_SUCCESS) {
        TRACE(TRACE_INFO, "return(%d)", ret);
        return ret;
    }
    ret = activate(pfipinfo, asked);
    TRACE(TRACE_DEBUG, "return(%d)", ret);
    return ret;
}
