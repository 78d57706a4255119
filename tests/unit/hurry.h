// Time that passes as soon as somebody waits for it: a limit of seconds is over at once, and what has none
// waits as long as ever.
#ifndef HURRY_H
#define HURRY_H

#include <ctime>
#include <poll.h>

inline long long hurry_ms = -1; // how far the clock went ahead; -1: it does not

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __real_poll(pollfd *fds, nfds_t count, int timeout);

[[gnu::used]] inline int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    const int ret = __real_clock_gettime(clock, now);
    now->tv_sec += hurry_ms > 0 ? hurry_ms / 1000 : 0;
    return ret;
}

[[gnu::used]] inline int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    if (hurry_ms < 0 || timeout < 0) {
        return __real_poll(fds, count, timeout);
    }
    hurry_ms += timeout + 1000;
    return 0;
}
}

#endif
