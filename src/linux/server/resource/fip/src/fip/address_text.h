/// The address argument: address[/bits][%interface[:alias]].
#ifndef FIP_ADDRESS_TEXT_H
#define FIP_ADDRESS_TEXT_H

#include "../fip.h"

/// Tells an address text's family and sets ipv6flag by it. @return 0, always
int fip_ipck(const char *paddr);

/// Takes an address text apart and checks its pieces; fip_ipck must have set ipv6flag for it. Pieces that the
/// text does not hold leave their outputs untouched; what was written before a failure stays. An alias number
/// sets fullnotation.
///
/// @param addr     46 bytes: the address, not checked beyond its length
/// @param mask     46 bytes: the netmask as text
/// @param masklen  the prefix length; set as written even when it is refused
/// @param ifname   32 bytes: interface, alias included; may be null when the text holds no '%'
/// @return 0; FIP_ERR_IPFORMAT, FIP_ERR_IFNAME, FIP_ERR_MASK for the piece that is wrong, too long for its
///         field, a negative number, or an interface or alias with white space in it
[[nodiscard]] int fip_div_ipmask(const char *addrbuf, char *addr, char *mask, int *masklen, char *ifname);

/// The same without an effect on the run's mode: for an address that is not the run's own.
/// @param aliased  set when the text names an alias
[[nodiscard]] int fip_split_address(const char *addrbuf, char *addr, char *mask, int *masklen, char *ifname,
                                    bool *aliased);

/// Converts an address text to numeric form by ipv6flag; only the matching one of the two is written.
/// @return true when the text is an address
[[nodiscard]] bool fip_parse_addr(const char *text, in_addr *addr, in6_addr *addr6);

/// The same for the address of a host. The unspecified address is none: it equals the empty field of every
/// inventory row that has no address of this family.
[[nodiscard]] bool fip_parse_host(const char *text, in_addr *addr, in6_addr *addr6);

/// Keeps the run's mode (ipv6flag, fullnotation) for the length of a scope, whatever addresses are taken
/// apart in it.
struct run_mode_scope {
    run_mode_scope() = default;
    ~run_mode_scope()
    {
        ipv6flag = family;
        fullnotation = notation;
    }
    run_mode_scope(const run_mode_scope &) = delete;
    run_mode_scope &operator=(const run_mode_scope &) = delete;

    const int family = ipv6flag;
    const int notation = fullnotation;
};

#endif
