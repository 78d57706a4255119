/// Paths of the configuration, and lines.
#ifndef TEXT_H
#define TEXT_H

#include "bounded_text.h"
#include "ifname.h"

#include <cstddef>
#include <initializer_list>

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
