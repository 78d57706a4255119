#include "address_text.h"

#include "../fip.h"
#include "../text.h"
#include "trace_source.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

namespace
{

constexpr std::size_t addr_size = sizeof(FIP_INFO::addr);
constexpr std::size_t ifname_size = sizeof(FIP_INFO::ifname);
constexpr std::size_t masktext_size = 16;
constexpr int max_alias = 9999;
constexpr int max_bits_ipv4 = 32;
constexpr int max_bits_ipv6 = 128;

constexpr char self[] = "fip_div_ipmask";

/// Reads a number as strtol(3) does in base 10, held within int.
/// @return true when nothing is left over behind it; an empty text leaves nothing over
bool read_number(const char *text, int *value)
{
    char *end = nullptr;
    errno = 0;
    const long number = strtol(text, &end, 10);
    *value = number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : static_cast<int>(number);
    return *end == '\0';
}

int refuse_ifname(const char *why)
{
    TRACE_AS(self, TRACE_ERROR, "%s", why);
    return FIP_ERR_IFNAME;
}

int check_alias(const char *alias)
{
    int number = 0;
    const bool whole = read_number(alias, &number);
    if (!whole || number < 0) {
        TRACE_AS(self, TRACE_ERROR, "IP alias is invalid.(alias=%s)", alias);
        return FIP_ERR_IFNAME;
    }
    if (*alias == '\0') {
        return refuse_ifname("IP alias is not set.");
    }
    if (number > max_alias) {
        TRACE_AS(self, TRACE_ERROR, "over max IP alias num.(alias=%d)", number);
        return FIP_ERR_IFNAME;
    }
    return FIP_SUCCESS;
}

/// Checks the interface piece and copies it, alias included. *aliased tells of a good alias.
int take_ifname(const char *piece, char *ifname, bool *aliased)
{
    if (strlen(piece) >= ifname_size) {
        return refuse_ifname("Interface name is too long.");
    }
    if (ifname != nullptr) {
        copy_text(ifname, ifname_size, piece);
    }
    const std::size_t base = base_length(piece);
    if (base >= IFNAMSIZ) {
        return refuse_ifname("Interface name is too long.");
    }
    if (has_white_space(piece)) {
        return refuse_ifname("Interface name is invalid.");
    }
    if (piece[base] != ':') {
        return FIP_SUCCESS;
    }
    const int ret = check_alias(piece + base + 1);
    *aliased = ret == FIP_SUCCESS;
    return ret;
}

void write_mask(int bits, char *mask, std::size_t size)
{
    if (ipv6flag != 0) {
        in6_addr mask6 = {};
        const int whole = bits / 8;
        memset(mask6.s6_addr, 0xff, static_cast<std::size_t>(whole));
        if (bits % 8 != 0) {
            mask6.s6_addr[whole] = static_cast<std::uint8_t>(0xff << (8 - bits % 8));
        }
        inet_ntop(AF_INET6, &mask6, mask, static_cast<socklen_t>(size));
        return;
    }
    const in_addr mask4 = {htonl(bits == 0 ? 0 : UINT32_MAX << (max_bits_ipv4 - bits))};
    inet_ntop(AF_INET, &mask4, mask, static_cast<socklen_t>(size));
}

int take_mask(const char *masktext, char *mask, int *masklen)
{
    const bool whole = read_number(masktext, masklen);
    if (!whole || *masklen < 0) {
        TRACE_AS(self, TRACE_ERROR, "Mask is invalid.(mask=%s)", masktext);
        return FIP_ERR_MASK;
    }
    if (*masktext == '\0') {
        TRACE_AS(self, TRACE_ERROR, "Mask is not set.");
        return FIP_ERR_MASK;
    }
    if (*masklen > (ipv6flag != 0 ? max_bits_ipv6 : max_bits_ipv4)) {
        TRACE_AS(self, TRACE_ERROR, "over max mask bit num.(mask bit=%d)", *masklen);
        return FIP_ERR_MASK;
    }
    write_mask(*masklen, mask, sizeof(FIP_INFO::mask));
    return FIP_SUCCESS;
}

int refuse_address()
{
    TRACE_AS(self, TRACE_ERROR, "FIP address is invalid");
    return FIP_ERR_IPFORMAT;
}

} // namespace

int fip_ipck(const char *paddr)
{
    TRACE(TRACE_DEBUG, "fip_ipck()  ENTRY...");
    ipv6flag = paddr[strcspn(paddr, ":%")] == ':' ? 1 : 0;
    TRACE(TRACE_DEBUG, ipv6flag != 0 ? "IPv6 address." : "IPv4 address.");
    return 0;
}

int fip_div_ipmask(const char *addrbuf, char *addr, char *mask, int *masklen, char *ifname)
{
    bool aliased = false;
    const int ret = fip_split_address(addrbuf, addr, mask, masklen, ifname, &aliased);
    if (aliased) {
        fullnotation = 1;
    }
    return ret;
}

int fip_split_address(const char *addrbuf, char *addr, char *mask, int *masklen, char *ifname, bool *aliased)
{
    const char *slash = strchr(addrbuf, '/');
    const char *separator = slash != nullptr ? slash : addrbuf + strcspn(addrbuf, "%");
    const auto addr_len = static_cast<std::size_t>(separator - addrbuf);
    if (addr_len >= addr_size) {
        return refuse_address();
    }
    copy_part(addr, addr_size, addrbuf, addr_len);
    if (*separator == '\0') {
        return FIP_SUCCESS;
    }
    if (strchr(addr, '%') != nullptr) {
        return refuse_address();
    }
    if (*separator == '%') {
        return take_ifname(separator + 1, ifname, aliased);
    }

    const char *piece = separator + 1;
    const std::size_t mask_len = strcspn(piece, "%");
    if (piece[mask_len] == '%') {
        // The interface piece is judged before the mask, so that a wrong one of both is told first.
        const int ret = take_ifname(piece + mask_len + 1, ifname, aliased);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
    }
    char masktext[masktext_size];
    if (!copy_part(masktext, piece, mask_len)) {
        TRACE_AS(self, TRACE_ERROR, "Mask is invalid.(mask=%.*s)", static_cast<int>(mask_len), piece);
        return FIP_ERR_MASK;
    }
    return take_mask(masktext, mask, masklen);
}

bool fip_parse_addr(const char *text, in_addr *addr, in6_addr *addr6)
{
    if (ipv6flag != 0) {
        return inet_pton(AF_INET6, text, addr6) == 1;
    }
    return inet_pton(AF_INET, text, addr) == 1;
}

bool fip_parse_host(const char *text, in_addr *addr, in6_addr *addr6)
{
    return fip_parse_addr(text, addr, addr6) &&
           (ipv6flag != 0 ? !IN6_IS_ADDR_UNSPECIFIED(addr6) : addr->s_addr != INADDR_ANY);
}
