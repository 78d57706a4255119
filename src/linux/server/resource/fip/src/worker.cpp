#include "worker.h"

#include "command.h"
#include "nocancel.h"
#include "tracersc.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <new>
#include <pthread.h>
#include <unistd.h>

namespace
{

/// How long the end of a worker's thread is waited for. A cancelled one stops at once at a cancellation
/// point; a system call that the kernel does not let go of (a dead file server, say) must not hang the run.
constexpr useconds_t join_limit_us = 5'000'000;

constexpr std::int64_t ns_per_s = 1'000'000'000;

/// Whether a worker may still run although its caller gave it up. Only the main thread looks.
bool left_behind = false;

/// Tells the waiting caller that the worker has ended.
struct end_signal {
    end_signal()
    {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~end_signal()
    {
        pthread_cond_destroy(&cond);
        pthread_mutex_destroy(&mutex);
    }
    end_signal(const end_signal &) = delete;
    end_signal &operator=(const end_signal &) = delete;

    void raise()
    {
        const nocancel guard;
        pthread_mutex_lock(&mutex);
        ended = true;
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    }

    /// Sleeps until the worker ends, `us` microseconds at the most.
    void wait(std::int64_t us)
    {
        timespec until = {};
        clock_gettime(CLOCK_MONOTONIC, &until);
        const std::int64_t ns = until.tv_nsec + us % 1'000'000 * 1000;
        until.tv_sec += us / 1'000'000 + ns / ns_per_s;
        until.tv_nsec = ns % ns_per_s;
        pthread_mutex_lock(&mutex);
        while (!ended && pthread_cond_timedwait(&cond, &mutex, &until) != ETIMEDOUT) {
        }
        pthread_mutex_unlock(&mutex);
    }

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = {};
    bool ended = false;
};

/// What the worker's thread shares with its caller, whichever of them goes first.
struct worker_link {
    end_signal signal;
    running_command command;
    std::atomic<bool> no_memory = false;
};

/// What the worker's thread owns.
struct worker_share {
    worker_entry entry;
    std::shared_ptr<void> arg;
    std::atomic<int> *endflag;
    std::shared_ptr<worker_link> link;
};

void *thread_entry(void *parg)
{
    const std::unique_ptr<worker_share> share(static_cast<worker_share *>(parg));
    const command_observer observer(&share->link->command);
    try {
        share->entry(share->arg.get());
    } catch (const std::bad_alloc &) { // no other: cancellation unwinds like an exception
        share->link->no_memory = true;
        *share->endflag = 1;
    }
    share->link->signal.raise();
    return nullptr;
}

/// Naps between looks, which start short: pthread_clockjoin_np would do it in one call, but ThreadSanitizer
/// does not know it for a join.
int join_bounded(pthread_t thread)
{
    useconds_t nap = 50;
    int ret = pthread_tryjoin_np(thread, nullptr);
    for (useconds_t waited = 0; ret == EBUSY && waited < join_limit_us; waited += nap) {
        nap = std::min<useconds_t>(2 * nap, 10'000);
        usleep(nap);
        ret = pthread_tryjoin_np(thread, nullptr);
    }
    return ret == EBUSY ? ETIMEDOUT : ret;
}

/// The trace lines of one worker.
struct worker_trace {
    const worker_texts &texts;

    void succeeded(const char *call) const
    {
        trace(TRACE_DEBUG, texts.pname, __LINE__, texts.pfunc, "%s(%s) success.", call, texts.worker);
    }
    void failed(int level, const char *call, const char *worker, int ret) const
    {
        trace(level, texts.pname, __LINE__, texts.pfunc, "%s(%s) failed. (errno=%d,ret=%d)", call, worker,
              errno, ret);
    }
};

/// A started worker.
struct worker_thread {
    pthread_t thread = {};
    std::shared_ptr<worker_link> link;
};

/// Gives up a worker that cannot be stopped.
void leave_behind(const worker_thread &worker)
{
    left_behind = true;
    worker.link->command.end();
    pthread_detach(worker.thread);
}

int join_worker(const worker_trace &lines, const worker_thread &worker)
{
    const int ret = join_bounded(worker.thread);
    if (ret == ETIMEDOUT) {
        leave_behind(worker);
    }
    if (ret != 0) {
        lines.failed(TRACE_WARNING, "pthread_join", lines.texts.worker, ret);
    } else {
        lines.succeeded("pthread_join");
    }
    return ret;
}

void cancel_worker(const worker_trace &lines, const worker_thread &worker)
{
    const worker_texts &texts = lines.texts;
    trace(TRACE_ERROR, texts.pname, __LINE__, texts.pfunc, "%s", texts.timeout);
    const int ret = pthread_cancel(worker.thread);
    if (ret != 0) {
        lines.failed(TRACE_ERROR, "pthread_cancel", texts.worker, ret);
        leave_behind(worker);
        return;
    }
    const int join_ret = join_worker(lines, worker);
    if (texts.always_returned) {
        trace(TRACE_DEBUG, texts.pname, __LINE__, texts.pfunc, "pthread_join(%s) successed.", texts.worker);
    }
    if (texts.always_returned || join_ret == 0) {
        trace(TRACE_INFO, texts.pname, __LINE__, texts.pfunc, "return(%s) = %d", texts.worker,
              texts.timeout_code);
    }
}

} // namespace

bool worker_left_behind()
{
    return left_behind;
}

worker_result worker_run(const worker_texts &texts, const worker_limits &limits, worker_entry entry,
                         const std::shared_ptr<void> &arg, std::atomic<int> *endflag, int *join_ret)
{
    const worker_trace lines{texts};
    worker_thread worker{{}, std::make_shared<worker_link>()};
    auto share = std::make_unique<worker_share>(worker_share{entry, arg, endflag, worker.link});
    *endflag = 0;

    const int ret = pthread_create(&worker.thread, nullptr, thread_entry, share.get());
    if (ret != 0) {
        lines.failed(TRACE_ERROR, "pthread_create", texts.create_failed, ret);
        return WORKER_NOT_STARTED;
    }
    static_cast<void>(share.release()); // the thread's now
    lines.succeeded("pthread_create");

    std::int64_t poll = 0;
    for (; poll < limits.polls && *endflag == 0; ++poll) {
        worker.link->signal.wait(limits.period_us);
    }
    if (poll >= limits.polls) {
        cancel_worker(lines, worker);
        return WORKER_LATE;
    }
    const int joined = join_worker(lines, worker);
    if (join_ret != nullptr) {
        *join_ret = joined;
    }
    return worker.link->no_memory ? WORKER_NO_MEMORY : WORKER_IN_TIME;
}
