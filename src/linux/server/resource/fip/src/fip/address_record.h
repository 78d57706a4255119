/// What the agent itself records of a resource: its address, and the name that the last activation put it
/// under. The suite's table of states has room for the name only; with this record qorstat(8) knows a
/// resource whose configuration has gone or changed since.
///
/// A resource's record is the file run/fip/NAME below the suite home, where a byte of the name that is
/// neither an ASCII letter nor a digit nor '_' nor '-' is written as '%' and two hexadecimal digits. It is
/// replaced whole by rename(2): a process killed at any instant leaves the old or the new one.
#ifndef FIP_ADDRESS_RECORD_H
#define FIP_ADDRESS_RECORD_H

#include "../nicCommon.h"

/// A record, and what its file holds.
struct fip_record {
    char magic[8];
    char rscname[32];
    char address[52]; ///< address, '/' and prefix length; without the latter two when that was never known
    char device[32];  ///< the name that it was put under; empty: it was taken down
};

/// Reads a resource's record. The file must be a regular one, owned by root and writable by nobody else.
/// @return 0; EINVAL for no resource's name, or a file that is damaged or another resource's; EPERM for one
///         that is not safe; or the errno of the failing call, ENOENT when nothing is recorded
[[nodiscard]] int fip_record_read(const char *rscname, fip_record *record);

/// Records that the address of `target` was put under the name `device`. When that fails, what was recorded
/// before is dropped, since it is not true any more, and the trace tells of it. Without a resource's name
/// nothing is recorded.
/// @return 0, or an errno, which must fail no activation: the address is up
int fip_record_up(const char *rscname, const vdevinfo &target, const char *device);

/// Records that the address was taken down; a record of another address stays, since that may be up.
/// Otherwise as fip_record_up.
int fip_record_down(const char *rscname, const char *addr);

#endif
