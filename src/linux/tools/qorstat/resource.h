/// What a floating IP resource is, as its configuration, its records and this kernel tell together.
#ifndef RESOURCE_H
#define RESOURCE_H

#include "qoripc.h"

#include <string>

/// The exit status tells it, too.
enum resource_status {
    RESOURCE_UP = 0,      ///< as recorded
    RESOURCE_DOWN = 3,    ///< this kernel has the address nowhere
    RESOURCE_CHANGED = 4, ///< an address of the resource is here, but not as recorded
    RESOURCE_UNKNOWN = 5  ///< nobody tells the address, or another group has the resource
};

struct resource_report {
    resource_status status = RESOURCE_UNKNOWN;
    std::string address;   ///< with the length of its prefix, where that is known
    std::string interface; ///< that carries it now
    std::string label;     ///< the name that it stands under now, for IPv4
    bool guarded = false;  ///< a removal leaves an interface up whose bare name the address stands under
    bool recorded = true;  ///< false: it is here, but not where it was recorded
    std::string note;      ///< what the status alone does not tell
};

/// The word of a status.
[[nodiscard]] const char *status_word(resource_status status);

/// Judges a resource. The recorded address, while it stands, comes before the configured one, and so does the
/// record before the row: what is here must be found by who is to take it down.
///
/// @param group  the group that it is to be of, or null
/// @param row    the suite's row of the resource, with empty texts where there is none
/// @return 0, or the errno of a failure to ask the kernel
[[nodiscard]] int judge_resource(const char *group, const shmrm_state &row, resource_report *report);

#endif
