/// One job in a thread of its own, under a time-out.
///
/// The caller polls the worker's end flag and cancels a worker that is late. Cancellation is deferred: the
/// job stops at its next cancellation point, normally while it waits for an outside command, and C++ unwinds
/// its frames. So a job must not pass through noexcept or catch (...), and no destructor in it may wait. A
/// job that runs out of memory (std::bad_alloc) ends like one that is done, and its results are not read.
#ifndef WORKER_H
#define WORKER_H

#include <atomic>
#include <cstdint>
#include <memory>

/// How the trace tells of a worker.
struct worker_texts {
    const char *pname;         ///< source of the lines
    const char *pfunc;         ///< function of the lines
    const char *worker;        ///< the worker's name
    const char *create_failed; ///< its name in the line of a failed start
    const char *timeout;       ///< the line of a time-out
    int timeout_code;          ///< status named when a late worker was cancelled
    bool always_returned;      ///< tell of the cancelled worker's return whatever its join gave
};

/// How long to wait: `polls` sleeps of at most `period_us` microseconds. The end flag is looked at before
/// each sleep; a worker that ends during the last one is late. A sleep ends early with the worker.
struct worker_limits {
    std::int64_t period_us;
    std::int64_t polls;
};

enum worker_result {
    WORKER_IN_TIME = 0,
    WORKER_NOT_STARTED = 1,
    WORKER_LATE = 2,     ///< cancelled, or left behind when even that failed; its results must not be read
    WORKER_NO_MEMORY = 3 ///< it ran out of memory; its results must not be read
};

/// A worker's entry. It sets its end flag as its last action.
using worker_entry = void *(*)(void *arg);

/// Runs `entry` with arg.get() in a thread and waits for it within the limits, then for the thread's end, 5 s
/// at the most. The command that a worker which cannot be stopped waits for is ended all the same.
///
/// @param arg       the argument block. The worker keeps a share of it, so that a worker that cannot be
///                  stopped never writes into memory that is gone.
/// @param endflag   cleared here, set by the worker; must outlive it, so it is a global
/// @param join_ret  receives the result of joining a worker that ended in time (ETIMEDOUT: it was
///                  left behind); may be null
[[nodiscard]] worker_result worker_run(const worker_texts &texts, const worker_limits &limits,
                                       worker_entry entry, const std::shared_ptr<void> &arg,
                                       std::atomic<int> *endflag, int *join_ret);

/// Whether a worker was given up that could not be stopped. It may still use whatever the process has: the
/// trace log must stay open, and the process must end without its exit handlers.
[[nodiscard]] bool worker_left_behind();

#endif
