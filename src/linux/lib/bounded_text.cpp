#include "bounded_text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

bool copy_part(char *dst, std::size_t size, const char *src, std::size_t len)
{
    const std::size_t have = strnlen(src, len);
    const std::size_t take = have < size ? have : size - 1;
    memcpy(dst, src, take);
    memset(dst + take, 0, size - take);
    return take == have;
}

bool copy_text(char *dst, std::size_t size, const char *src)
{
    return copy_part(dst, size, src, strlen(src));
}

bool format_text(char *dst, std::size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int len = vsnprintf(dst, size, fmt, args);
    va_end(args);
    return len >= 0 && static_cast<std::size_t>(len) < size;
}
