/// The inventory of interfaces and addresses, from ifconfig's output or from the kernel.
#ifndef FIP_INVENTORY_H
#define FIP_INVENTORY_H

#include "../fip.h"

/// Takes an inventory: from the kernel when IsIfconfig is 0, else from the configured command, bounded by the
/// resource's time-out.
///
/// @param ipaddrlist  receives the rows on success
/// @return 0; FIP_ERR_INVENTORY; FIP_ERR_THREAD; FIP_ERR_TIMEOUT; a result of fip_get_ipaddrlist. Each leaves
///         a result message, but for those of fip_div_ipmask.
[[nodiscard]] int fip_ifconfig_mkth(inventory *ipaddrlist, const FIP_INFO *pfipinfo);

/// The first row that carries the address (the one of the two that ipv6flag selects), or null.
[[nodiscard]] const ipaddrinfo *fip_find_row(const inventory &rows, const in_addr &addr,
                                             const in6_addr &addr6);

/// The inventory worker: parg is an IPADDR_INFO. Sets ifconfthend as its last action.
void *fip_cmd_popen(void *parg);

/// Runs the command and reads its output in the older layout.
/// @param cmdpath  FIP_PATH_SIZE bytes: the command text, which " -a" is appended to
/// @return 0; FIP_ERR_POPEN; FIP_ERR_MEMORY; FIP_ERR_MACADDR; FIP_ERR_IPFORMAT, FIP_ERR_IFNAME or
///         FIP_ERR_MASK for an IPv6 address; FIP_ERR_STATUS when the command fails; FIP_ERR_ABNORMAL
///         when a signal ends it, or when the command text is too long to run whole. The rows are
///         written on success only.
[[nodiscard]] int fip_get_ipaddrlist(inventory *ipaddrlist, char *cmdpath);

#endif
