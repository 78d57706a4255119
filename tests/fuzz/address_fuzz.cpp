/// Any text as an address argument: whatever is accepted has pieces within their bounds.
#include "fip.h"
#include "fip/address_text.h"
#include "fuzz_input.h"

#include <cstring>

void fuzz(std::string_view input)
{
    const std::string text(input);
    FIP_INFO info = {};
    fip_ipck(text.c_str());
    const int ret = fip_div_ipmask(text.c_str(), info.addr, info.mask, &info.masklen, info.ifname);
    if (ret == FIP_SUCCESS) {
        require(info.masklen >= 0 && info.masklen <= (ipv6flag != 0 ? 128 : 32));
        require(strcspn(info.ifname, ":") < 16);
        in_addr mask = {};
        in6_addr mask6 = {};
        require(info.mask[0] == '\0' || fip_parse_addr(info.mask, &mask, &mask6));
    } else {
        require(ret == FIP_ERR_IPFORMAT || ret == FIP_ERR_IFNAME || ret == FIP_ERR_MASK);
    }
}
