/// Names of interfaces and of their aliases.
#ifndef IFNAME_H
#define IFNAME_H

#include "bounded_text.h"

#include <cstddef>
#include <cstring>

/// Length of an interface name's base: the name before its first ':' (eth0:1 is an alias of eth0).
inline std::size_t base_length(const char *ifname)
{
    return strcspn(ifname, ":");
}

/// Copies the base of an interface name. @return true when it fitted whole
template <std::size_t N>
bool copy_base(char (&dst)[N], const char *ifname)
{
    return copy_part(dst, N, ifname, base_length(ifname));
}

/// Whether the name has white space in it. The kernel refuses that in an interface's name but takes it in an
/// alias: one that nobody could take down any more, and that forges a line of ifconfig's output.
inline bool has_white_space(const char *ifname)
{
    return ifname[strcspn(ifname, " \t\n\v\f\r")] != '\0';
}

#endif
