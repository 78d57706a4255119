#include "host_address.h"

bool same_address(const host_address &a, const host_address &b)
{
    if (a.any.sa_family != b.any.sa_family) {
        return false;
    }
    return a.any.sa_family == AF_INET ? a.v4.sin_addr.s_addr == b.v4.sin_addr.s_addr
                                      : IN6_ARE_ADDR_EQUAL(&a.v6.sin6_addr, &b.v6.sin6_addr);
}

bool is_link_local(const host_address &address)
{
    return address.any.sa_family == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&address.v6.sin6_addr);
}
