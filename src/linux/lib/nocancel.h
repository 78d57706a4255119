/// Keeps a thread from being cancelled for the length of a scope.
///
/// A thread cancelled while it holds a lock (the trace log's, the result message's) would leave it held for
/// good; whoever takes such a lock does so inside one of these.
#ifndef NOCANCEL_H
#define NOCANCEL_H

#include <pthread.h>

struct nocancel {
    nocancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~nocancel() { pthread_setcancelstate(before, nullptr); }
    nocancel(const nocancel &) = delete;
    nocancel &operator=(const nocancel &) = delete;

    int before = 0;
};

#endif
