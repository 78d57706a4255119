/// One run of probing: echo requests and questions to the link, against the clock.
#ifndef PROBE_H
#define PROBE_H

#include "host_address.h"

#include <chrono>

/// How a run ended. The values are the program's exit statuses.
enum probe_outcome {
    PROBE_ANSWERED = 0, ///< the address answered
    PROBE_SILENT = 1,   ///< it did not, or the network says that it can't be reached
    PROBE_FAILED = 2,   ///< not one request could be sent, for another reason: nothing is known
};

struct probe_options {
    unsigned rounds; ///< at least 1; one begins every second
    bool echo_only;  ///< links are not asked
    bool verbose;    ///< standard error tells which links are asked, or why none is, whenever that changes
};

/// Details of a run, for a person.
struct probe_report {
    std::chrono::microseconds elapsed; ///< PROBE_ANSWERED: from the start to the answer
    std::chrono::milliseconds waited;  ///< PROBE_SILENT: what passed without an answer, at least
    const char *step;                  ///< PROBE_FAILED: what failed
    int error; ///< PROBE_FAILED: errno of it; PROBE_SILENT: why no echo request went out, or 0
};

/// Asks for an address by echo requests, one a round, and on the links where it may be by three questions a
/// round; returns with the first answer. Each round has a second. But when the address can only be on one
/// link, all questions of the last round went out there, and nobody answered within 200 ms of the last of
/// them, then the run ends, 400 ms after that round began: an echo reply would have needed that answer first.
///
/// Errors of a single request do not end the run: a route or a source address may be there a second later. So
/// every round chooses the links anew. A link that could not be asked, or not three times, decides nothing.
[[nodiscard]] probe_outcome qorping_probe(const probe_target &target, const probe_options &options,
                                          probe_report *report);

#endif
