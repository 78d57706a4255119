/// A file descriptor that its owner closes.
#ifndef UNIQUE_FD_H
#define UNIQUE_FD_H

#include "nocancel.h"

#include <unistd.h>
#include <utility>

struct unique_fd {
    unique_fd() = default;
    explicit unique_fd(int owned) : fd(owned) {}
    unique_fd(unique_fd &&other) noexcept : fd(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    /// Gives up what is owned.
    int release() { return std::exchange(fd, -1); }

    /// Closes what is owned, and takes `owned` instead. close(2) is a cancellation point, and a destructor
    /// must not be left by cancellation.
    void reset(int owned = -1)
    {
        if (fd >= 0) {
            const nocancel guard;
            close(fd);
        }
        fd = owned;
    }

    int fd = -1;
};

#endif
