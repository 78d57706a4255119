/// The inventory as the kernel tells it.
#ifndef NICINVENTORY_H
#define NICINVENTORY_H

#include "nicCommon.h"

/// Takes the inventory from the kernel (getifaddrs(3)): a row per IPv4 and IPv6 address in the kernel's
/// order, without those of "lo".
///
/// @param ipaddrlist  receives the rows on success
/// @return 0, NIC_ERR_MEMORY, NIC_ERR_NOADDR, NIC_ERR_GETIFADDRS
[[nodiscard]] int nic_get_all_info(inventory *ipaddrlist);

#endif
