/// Source-address routing: traffic that leaves through the address's interface leaves from the address.
#ifndef FIP_SRCIP_H
#define FIP_SRCIP_H

#include "../nicCommon.h"

#include <cstddef>

/// Makes sure that no other floating-IP resource that uses this feature has its address on the target's
/// physical interface: only one address can be the source of an interface's routes.
/// @return 0; FIP_ERR_INUSE; FIP_ERR_NORSC when no resource is configured; FIP_ERR_MEMORY; FIP_ERR_POLICY;
///         FIP_ERR_ADDRESS when a value cannot be read; FIP_ERR_HOSTNAME; FIP_ERR_INTERNAL when the resources
///         cannot be listed
[[nodiscard]] int fip_srcip_check(const inventory &ipaddrlist, const vdevinfo *pvdevinfo,
                                  const char *rscname);

/// Makes the address the source of the interface's subnet route and, when the interface has it, of the
/// default route.
/// @return 0; FIP_ERR_POPEN, FIP_ERR_ABNORMAL or FIP_ERR_INTERNAL for a command that could not be started,
///         was ended by a signal (or because it hung), or failed; FIP_ERR_INTERNAL when the route table
///         cannot be read. A failure of the second route leaves the first one changed; the kernel drops that
///         one when the caller then removes the address.
[[nodiscard]] int fip_srcip_set(const vdevinfo *pvdevinfo);

/// Looks at one line of /proc/net/route, which is taken apart in place: is it the interface's default route?
/// @param ifname   compared whole
/// @param gateway  receives the gateway in dotted form
/// @param size     capacity of gateway in bytes
/// @return true when it is; a line with missing fields is none
[[nodiscard]] bool fip_read_default_route(char *line, const char *ifname, char *gateway, std::size_t size);

#endif
