/// The choice between the kernel and the ifconfig command.
#ifndef NICIFCONFIG_H
#define NICIFCONFIG_H

#include "nicCommon.h"

#include <atomic>

/// 1: inventory and address changes go through the ifconfig command, 0: through the kernel. @writer fip/main,
/// by nic_chk_isifconfig
extern int IsIfconfig;

/// End flag of the detection worker. @writer nicIfconfig
extern std::atomic<int> nic_actthend;

/// Decides whether the ifconfig command is used: it is when it is on the search path and prints the older
/// layout ("inet addr:ADDRESS"), which is the one that can be parsed.
///
/// @param pIsIfconfig  set to 1 when the command is used, else to 0
/// @param ifconfuse  non-zero: don't look, the kernel interfaces are wanted
/// @param ifconfout  time-out, seconds
/// @return 0 when the detection ran to its end, whatever it found, or was not wanted; NIC_ERR_THREAD;
///         NIC_ERR_TIMEOUT; NIC_ERR_MEMORY; the error number of a failed join when the worker found no use
///         for the command
[[nodiscard]] int nic_chk_isifconfig(int *pIsIfconfig, int ifconfuse, int ifconfout);

/// The detection worker. Writes 0, NIC_ERR_OPEN, NIC_ERR_WHICH, NIC_ERR_ABSENT or NIC_ERR_LAYOUT into the int
/// at parg, then sets nic_actthend.
void *nic_cmd_chk(void *parg);

/// What one line of "ifconfig -a" tells about the layout.
enum nic_layout { NIC_LAYOUT_OPEN, NIC_LAYOUT_OLDER, NIC_LAYOUT_NEWER };

/// Looks at one line, cut at its last newline; the line is taken apart in place.
[[nodiscard]] nic_layout nic_scan_layout(char *line);

#endif
