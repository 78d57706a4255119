/// Preloaded, makes allocations of the agent fail; the commands that it starts are left alone.
///
///   NOMEM_AT      the allocation that fails, from 1
///   NOMEM_ON      with any value: all later ones, too
///   NOMEM_COUNT   a file that gets the number of allocations in the end

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/auxv.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace
{

std::atomic<long> count;
pid_t owner; // a child that has not turned into a command yet must not report

long first_failing()
{
    const auto *path = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
    const char *name = path == nullptr ? nullptr : strrchr(path, '/');
    const char *at = getenv("NOMEM_AT"); // NOLINT(concurrency-mt-unsafe): nothing changes it
    owner = getpid();
    return name == nullptr || strcmp(name, "/qorfip") != 0 ? -1 : at == nullptr ? 0 : strtol(at, nullptr, 10);
}

/// Whether this allocation is to fail.
bool fails()
{
    static const long first = first_failing();
    if (first < 0) {
        return false;
    }
    static const bool on = getenv("NOMEM_ON") != nullptr; // NOLINT(concurrency-mt-unsafe)
    const long turn = ++count;
    if (first == 0 || (on ? turn < first : turn != first)) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

__attribute__((destructor)) void report()
{
    const char *path = getenv("NOMEM_COUNT"); // NOLINT(concurrency-mt-unsafe)
    if (path == nullptr || count == 0 || getpid() != owner) {
        return;
    }
    FILE *file = fopen(path, "we");
    if (file != nullptr) {
        fprintf(file, "%ld\n", count.load());
        fclose(file);
    }
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return fails() ? nullptr : __libc_malloc(size);
}

void *calloc(size_t number, size_t size)
{
    return fails() ? nullptr : __libc_calloc(number, size);
}

void *realloc(void *old, size_t size)
{
    return fails() ? nullptr : __libc_realloc(old, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return fails() ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void **into, size_t alignment, size_t size)
{
    *into = fails() ? nullptr : __libc_memalign(alignment, size);
    return *into == nullptr ? ENOMEM : 0;
}
}
