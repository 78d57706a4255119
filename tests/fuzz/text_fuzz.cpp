/// Any text in the place of the address argument, and of the output of ifconfig, in both families, of the arp
/// command, and of the route table.
#include "fip.h"
#include "fip/address.h"
#include "fip/inventory.h"
#include "fip/ping.h"
#include "fip/srcip.h"
#include "fuzz_input.h"

#include <arpa/inet.h>
#include <cstring>
#include <sstream>

/// Whatever is accepted has pieces within their bounds.
void read_address(const std::string &text)
{
    FIP_INFO info = {};
    fip_ipck(text.c_str());
    const int ret = fip_div_ipmask(text.c_str(), info.addr, info.mask, &info.masklen, info.ifname);
    in_addr mask = {};
    in6_addr mask6 = {};
    require(ret == FIP_SUCCESS ? info.masklen >= 0 && info.masklen <= (ipv6flag != 0 ? 128 : 32) &&
                                     strcspn(info.ifname, ":") < 16 &&
                                     (info.mask[0] == '\0' || fip_parse_addr(info.mask, &mask, &mask6))
                               : ret == FIP_ERR_IPFORMAT || ret == FIP_ERR_IFNAME || ret == FIP_ERR_MASK);
}

/// A hardware address that is found is a word of the line, whole; a gateway that is found is an address.
void read_line(const std::string &line)
{
    std::string arp = line, route = line,
                layout = line; // in memory of its exact size that the reader may change
    char macaddr[MACTEXT_SIZE] = "", gateway[INET_ADDRSTRLEN] = "";
    if (fip_find_macaddr(arp.data(), macaddr, sizeof(macaddr))) {
        require(strlen(macaddr) >= strlen("0:0:0:0:0:0") && line.find(macaddr) != std::string::npos);
    }
    in_addr addr = {};
    require(!fip_read_default_route(route.data(), "eth0", gateway, sizeof(gateway)) ||
            inet_pton(AF_INET, gateway, &addr) == 1);
    require(nic_scan_layout(layout.data()) == NIC_LAYOUT_OPEN || (!line.empty() && line[0] != '\0'));
}

/// Every row is whole.
void read_inventory(std::vector<std::string> lines)
{
    inventory_reader reader;
    int ret = FIP_SUCCESS;
    for (auto line = lines.begin(); line != lines.end() && ret == FIP_SUCCESS; ++line) {
        ret = fip_read_inventory_line(&reader, line->data());
    }
    for (int i = 0; i < reader.num; ++i) {
        const ipaddrinfo &row = reader.rows[static_cast<std::size_t>(i)];
        require(row.index == static_cast<unsigned>(i) && row.ifname[0] != '\0');
        require(ret != FIP_SUCCESS || (row.sipel.masklen >= 0 && row.sipel.masklen <= 128));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    read_address(text);
    std::istringstream input(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
        read_line(line);
    }
    for (ipv6flag = 0; ipv6flag <= 1; ++ipv6flag) {
        read_inventory(lines);
    }
    return 0;
}
