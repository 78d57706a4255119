/// Memory of C's allocator, owned by a scope.
#ifndef HEAP_H
#define HEAP_H

#include <cstddef>
#include <cstdlib>
#include <memory>

/// Frees what C's allocator gave.
struct heap_deleter {
    void operator()(void *memory) const { free(memory); }
};

template <class T>
using heap_array = std::unique_ptr<T[], heap_deleter>;

/// Allocates `bytes` zeroed bytes for an array of plain records; null when there is no memory.
template <class T>
heap_array<T> heap_zeroed(std::size_t bytes)
{
    return heap_array<T>(static_cast<T *>(calloc(1, bytes)));
}

#endif
