// Loaded before the C library into a run of qorfip: what the kernel and the C library cannot be made to do
// there. FAULT names it: "malloc K" the K-th allocation fails, "socket K" the K-th datagram socket; "cancel"
// no thread can be cancelled. Exit handlers tell that they ran, and of the number of allocations, by the file
// "exited".

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
}

namespace
{

// Whether this is the call of its kind that the fault is for. The commands that qorfip starts have no fault.
bool fails(const char *kind, std::atomic<long> *calls)
{
    const char *fault = getenv("FAULT");
    const std::size_t len = strlen(kind);
    return fault != nullptr && strcmp(program_invocation_short_name, "qorfip") == 0 &&
           strncmp(fault, kind, len) == 0 && (calls == nullptr || ++*calls == atol(fault + len));
}

std::atomic<long> allocations, sockets;

bool no_memory()
{
    const bool none = fails("malloc ", &allocations);
    errno = none ? ENOMEM : errno;
    return none;
}

__attribute__((destructor)) void tell_exit()
{
    if (fails("", nullptr)) {
        dprintf(open("exited", O_WRONLY | O_CREAT | O_TRUNC, 0644), "%ld", allocations.load());
    }
}

} // namespace

extern "C" {
void *malloc(size_t size) noexcept
{
    return no_memory() ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    return no_memory() ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size) noexcept
{
    return no_memory() ? nullptr : __libc_realloc(memory, size);
}

int pthread_cancel(pthread_t /*thread*/)
{
    return ESRCH; // no run without this fault needs it
}

int socket(int family, int type, int protocol) noexcept
{
    if ((type & SOCK_DGRAM) != 0 && family == AF_INET && fails("socket ", &sockets)) {
        errno = ENOBUFS;
        return -1;
    }
    return static_cast<int>(syscall(SYS_socket, family, type, protocol));
}
}
