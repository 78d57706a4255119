/// Which interface and alias will carry the address.
#ifndef FIP_TARGET_H
#define FIP_TARGET_H

#include "../nicCommon.h"

/// Chooses the interface and completes the record: IPv4 goes on an alias of the configured interface, or of
/// the one whose subnet holds the address, under the lowest free number; IPv6 goes on the interface itself.
///
/// @param pvdevinfo  in: zero but for the configured interface (or empty), address, and mask (or empty); out:
///                   the interface's names, mask, broadcast and hardware address
/// @return 0; FIP_ERR_NODEV when no interface fits, with a result message; FIP_ERR_ALIAS when the configured
///         alias is taken; FIP_ERR_IFNAME when the chosen alias name is too long for the kernel
[[nodiscard]] int fip_crt_vdevinfo(const inventory &ipaddrlist, vdevinfo *pvdevinfo);

/// Whether a row has this name, case ignored. @return 1 or 0
[[nodiscard]] int fip_chk_ifname(const inventory &ipaddrlist, const char *ifname);

#endif
