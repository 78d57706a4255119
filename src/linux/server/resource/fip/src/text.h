/// Bounded text: the one way in which a fixed-size character field is filled.
#ifndef TEXT_H
#define TEXT_H

#include <cstddef>

/// Copies `src` into the `size` bytes at `dst`, cut to size - 1 characters, always terminated, and zeroes
/// what is left of the field.
/// @return true when the whole text fitted
bool copy_text(char *dst, std::size_t size, const char *src);

/// The same for a field whose size the compiler knows, so that the bound cannot be mistyped.
template <std::size_t N>
bool copy_text(char (&dst)[N], const char *src)
{
    return copy_text(dst, N, src);
}

/// Copies at most `len` characters of `src`, otherwise as copy_text.
bool copy_part(char *dst, std::size_t size, const char *src, std::size_t len);

template <std::size_t N>
bool copy_part(char (&dst)[N], const char *src, std::size_t len)
{
    return copy_part(dst, N, src, len);
}

/// Formats a text into a field, cut to its size.
/// @return true when the whole text fitted
bool format_text(char *dst, std::size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/// Forms a configuration path from a format of a table, which holds "%s" once or twice.
template <std::size_t N>
void format_path(char (&path)[N], const char *fmt, const char *first, const char *second)
{
    format_text(path, N, fmt, first, second);
}

/// Length of an interface name's base: the name before its first ':' (eth0:1 is an alias of eth0).
[[nodiscard]] std::size_t base_length(const char *ifname);

/// Copies the base of an interface name.
template <std::size_t N>
bool copy_base(char (&dst)[N], const char *ifname)
{
    return copy_part(dst, N, ifname, base_length(ifname));
}

/// Whether the text holds white space. The kernel refuses it in an interface's name but takes it in an alias:
/// one that nobody could take down any more, and that forges a line of ifconfig's output.
[[nodiscard]] bool has_white_space(const char *text);

/// Cuts the text at its last newline; a text without one stays as it is.
void fip_chop(char *str);

#endif
