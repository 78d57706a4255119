/// The duplicate-address check: does any host answer on the address?
#ifndef FIP_PING_H
#define FIP_PING_H

#include "../fip.h"

#include <cstddef>
#include <span>

/// Probes the resource's address, or on activation with pingallip every address that the resource has on any
/// server, all at once.
/// @param asked  set to whether it was found out if anybody has the addresses, be that overridden or not; may
///               be null
/// @return 0 when nobody answers, or when a failure was overridden by pingforce; else as fip_ping_mkth, with
///         a result message
[[nodiscard]] int fip_ping(FIP_INFO *pinfo, bool *asked = nullptr);

/// Runs one worker per block, of which there is one at least, at once, joins them all, and combines their
/// results: the last one that is not 0.
/// @return 0; FIP_ERR_INUSE; FIP_ERR_TOOL; FIP_ERR_ABNORMAL; FIP_ERR_NOTOOL; FIP_ERR_MEMORY; FIP_ERR_THREAD
///         when a worker could not be started; when none could, the error number of the last start
[[nodiscard]] int fip_ping_mkth(std::span<IP_INFO> pips, bool *asked = nullptr);

/// One worker: parg is an IP_INFO. Checks its address, and again after each failure up to pingretry times.
void *fip_ping_retry(void *parg);

/// Runs the ping tool on one address.
/// @return 0 when nobody answers; FIP_ERR_INUSE; FIP_ERR_TOOL; FIP_ERR_ABNORMAL when the tool
///         could not be run, was ended by a signal, or had to be ended because it outlived its
///         own time-out; FIP_ERR_NOTOOL
[[nodiscard]] int fip_chk_ip_response(PIP_INFO pip);

/// Bytes of a hardware address's text.
enum { MACTEXT_SIZE = 64 };

/// Asks the arp command which hardware address answers for an IPv4 address.
/// @param macaddr  MACTEXT_SIZE bytes: the address as the command printed it
/// @return 0; FIP_ERR_NOMAC; FIP_ERR_STATUS, FIP_ERR_ABNORMAL, FIP_ERR_POPEN with a result message
[[nodiscard]] int fip_get_macaddr_v4(const char *cmdpath, const char *ipaddr, char *macaddr);

/// Looks for a hardware address among the words of one line of the arp command's output, which is taken apart
/// in place: the first word of exactly 6 or 20 hexadecimal groups that fits the buffer.
/// @return true when there is one
[[nodiscard]] bool fip_find_macaddr(char *line, char *macaddr, std::size_t size);

#endif
