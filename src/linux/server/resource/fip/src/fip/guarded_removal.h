/// The guarded removal of an IPv4 address: what the kernel would take with it stays, or is put back.
///
/// Taking a bare interface name down stops the interface; so the address alone is removed, by rtnetlink. The
/// kernel drops a subnet's other addresses with its first one where promote_secondaries is 0, all routes of
/// the interface with its last address, and the routes whose source an address was with that address.
#ifndef FIP_GUARDED_REMOVAL_H
#define FIP_GUARDED_REMOVAL_H

#include "../fip.h"

/// Removes an address in the ordinary way.
using plain_removal = int (*)(const vdevinfo *, const FIP_INFO *);

/// Removes the target's address from under the resource record's ifname.
///
/// It is removed by rtnetlink. Where that cannot be asked, an alias is removed by `plainly`. Addresses that
/// went with it are put back in their order, and announced as arp/retry and arp/opcode say. So are the
/// interface's routes when addresses were dropped; and with srcip/use those whose source the address was, now
/// with the source that the kernel chooses. What cannot be put back is told of, by the trace and the result
/// message, and does not fail the removal.
///
/// @return 0, or what `plainly` gave; FIP_ERR_DELETE, with a result message, when rtnetlink does not
///         remove the address
[[nodiscard]] int fip_guard(const vdevinfo *dev, const FIP_INFO *info, plain_removal plainly);

#endif
