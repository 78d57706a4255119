/// Pieces of text that several jobs look at: interface names, lines, paths of the configuration.
#ifndef TEXT_H
#define TEXT_H

#include "bounded_text.h"

#include <cstddef>
#include <initializer_list>

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

/// Forms a path from a pattern of a table: each "%s" in it stands for the next of the names, and for nothing
/// behind the last. The path is cut to its size.
void fill_path(char *path, std::size_t size, const char *pattern, std::initializer_list<const char *> names);

template <std::size_t N>
void fill_path(char (&path)[N], const char *pattern, std::initializer_list<const char *> names)
{
    fill_path(path, N, pattern, names);
}

/// Cuts the text at its last newline; a text without one stays as it is.
void fip_chop(char *str);

#endif
