/// One run of probing: the sockets and the clock.
#ifndef PROBE_H
#define PROBE_H

#include <chrono>

#include "icmp_echo.h"

/// How a run ended. The values are the program's exit statuses.
enum probe_outcome {
    PROBE_ANSWERED = 0, ///< the address answered
    PROBE_SILENT = 1,   ///< it did not, or the network says that it can't be reached
    PROBE_FAILED = 2,   ///< not one request could be sent, for another reason: nothing is known
};

struct probe_target {
    host_address address; ///< of one host; a link-local one with the zone's index in sin6_scope_id
    unsigned interface;   ///< index of the zone's interface; 0 without zone
};

/// Details of a run, for a person.
struct probe_report {
    std::chrono::microseconds elapsed; ///< PROBE_ANSWERED: from the start to the reply
    const char *step;                  ///< PROBE_FAILED: what failed
    int error; ///< PROBE_FAILED: errno of it; PROBE_SILENT: why nothing went out, or 0
};

/// Sends an echo request now and then once a second, and returns with the first reply, or when the time is
/// over. A link-local target without zone is probed through every interface that is up.
///
/// Errors of a single request do not end the run: a route or a source address may be there a second later.
///
/// @param seconds  how long to wait altogether, at least 1
[[nodiscard]] probe_outcome qorping_probe(const probe_target &target, unsigned seconds, probe_report *report);

#endif
