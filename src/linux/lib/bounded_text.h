/// Bounded text: the one way in which a fixed-size character field is filled. `size` is always the field's,
/// in bytes, terminator included; the text is cut to size - 1 characters and always terminated.
#ifndef BOUNDED_TEXT_H
#define BOUNDED_TEXT_H

#include <cstddef>

/// Tells the compiler which argument is the field and which its size: within, its writes are checked then.
#if defined(__GNUC__) && !defined(__clang__)
#define BOUNDED_FIELD __attribute__((access(write_only, 1, 2)))
#else
#define BOUNDED_FIELD
#endif

/// Copies a text, and zeroes what is left of the field.
/// @return true when the whole text fitted
BOUNDED_FIELD bool copy_text(char *dst, std::size_t size, const char *src);

/// Copies at most `len` characters of `src`, which may lack a terminator behind them, otherwise as copy_text.
BOUNDED_FIELD bool copy_part(char *dst, std::size_t size, const char *src, std::size_t len);

/// Formats a text. @return true when the whole text fitted
BOUNDED_FIELD bool format_text(char *dst, std::size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The same for a field whose size the compiler knows, so that the bound cannot be mistyped.

template <std::size_t N>
bool copy_text(char (&dst)[N], const char *src)
{
    return copy_text(dst, N, src);
}

template <std::size_t N>
bool copy_part(char (&dst)[N], const char *src, std::size_t len)
{
    return copy_part(dst, N, src, len);
}

#endif
