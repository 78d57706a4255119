/// A file descriptor that its owner closes.
#ifndef DESCRIPTOR_H
#define DESCRIPTOR_H

#include <unistd.h>
#include <utility>

struct descriptor {
    int fd = -1;

    descriptor() = default;
    explicit descriptor(int opened) : fd(opened) {}
    descriptor(descriptor &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    descriptor &operator=(descriptor &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~descriptor() { reset(); }
    void reset()
    {
        if (fd >= 0) {
            close(std::exchange(fd, -1));
        }
    }
};

#endif
