/// Where this kernel has an address, asked by rtnetlink(7): unlike getifaddrs(3) it tells an address that
/// duplicate address detection holds back.
#ifndef KERNEL_ADDRESS_H
#define KERNEL_ADDRESS_H

#include <net/if.h>
#include <netinet/in.h>
#include <vector>

/// A host's address, and the length of its prefix where that is known.
struct host_address {
    int family = AF_UNSPEC; ///< AF_INET, AF_INET6; AF_UNSPEC: none
    unsigned char bytes[sizeof(in6_addr)] = {};
    int prefix = -1;
};

/// Whether both are the same address, whatever their prefixes are.
[[nodiscard]] bool is_same(const host_address &one, const host_address &other);

enum class detection {
    passed,  ///< or there is none to pass
    pending, ///< a tentative address: no packet is sent or taken with it yet
    failed   ///< another host has it; the kernel keeps it without using it
};

/// A place where the kernel has an address.
struct address_place {
    char interface[IF_NAMESIZE];
    char label[IF_NAMESIZE]; ///< the name it stands under; empty for IPv6, which knows none
    int prefix;
    detection dad;
};

/// Finds all places of an address. @return 0, or the errno of the failing call
[[nodiscard]] int find_places(const host_address &address, std::vector<address_place> *places);

#endif
