/// Room that may be refused: for who tells of that in the trace, in place of the exception.
#ifndef HEAP_H
#define HEAP_H

#include <cstddef>
#include <new>
#include <vector>

/// Makes room for `count` elements. @return false when there is no memory; errno is then ENOMEM
template <class T>
[[nodiscard]] bool heap_reserve(std::vector<T> *rows, std::size_t count)
{
    try {
        rows->reserve(count);
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

/// Makes it `count` zeroed elements. @return as heap_reserve
template <class T>
[[nodiscard]] bool heap_assign(std::vector<T> *rows, std::size_t count)
{
    rows->clear();
    if (!heap_reserve(rows, count)) {
        return false;
    }
    rows->resize(count);
    return true;
}

#endif
