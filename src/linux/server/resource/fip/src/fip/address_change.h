/// Puts the floating address on its interface and takes it off: by the ifconfig command, or by ioctl.
#ifndef FIP_ADDRESS_CHANGE_H
#define FIP_ADDRESS_CHANGE_H

#include "../fip.h"

/// Adds the address of the target. By ioctl when IsIfconfig is 0, else by command within the
/// resource's time-out.
/// @param dad  IPv6: the kernel's duplicate address detection (DAD) runs. By command it always does.
/// @return 0; FIP_ERR_IFNAME for a name that no address can be put under; FIP_ERR_ADD; FIP_ERR_STATUS or
///         FIP_ERR_ABNORMAL for the command's end (the latter also when the command line is too long to be
///         run whole); FIP_ERR_THREAD; FIP_ERR_TIMEOUT; FIP_ERR_MEMORY. Each leaves a result message.
[[nodiscard]] int fip_act_ipaddr(const vdevinfo *pvdevinfo, const FIP_INFO *pfipinfo, bool dad = true);

/// Removes it. By command the resource record's ifname, addr and masklen say what is removed. With
/// guard/interface an IPv4 address goes through fip_guard, which takes care of what would go with it.
/// @return as fip_act_ipaddr, with FIP_ERR_DELETE for FIP_ERR_ADD and FIP_ERR_IFNAME
[[nodiscard]] int fip_deact_ipaddr(const vdevinfo *pvdevinfo, const FIP_INFO *pfipinfo);

/// Whether a removal takes only its own address, so that it may have to put others' back: with
/// guard/interface, for IPv4. One of IPv6 always goes alone.
[[nodiscard]] bool fip_is_guarded();

/// The command worker: parg is an IP_CMD_INFO. Sets actthend as its last action.
void *fip_cmd_system(void *parg);

#endif
