/// Any output of ifconfig, through both of its readers, in both families.
#include "fip/inventory.h"
#include "fuzz_input.h"
#include "nicLayout.h"

namespace
{

void read_inventory(const std::uint8_t *data, std::size_t size)
{
    inventory_reader reader;
    int ret = FIP_SUCCESS;
    each_line(data, size, [&](char *line) {
        if (ret == FIP_SUCCESS)
            ret = fip_read_inventory_line(&reader, line);
    });
    for (const ipaddrinfo &row : reader.rows) {
        require(&row == &reader.rows[row.index] && row.ifname[0] != '\0');
        require(ret != FIP_SUCCESS || (row.sipel.masklen >= 0 && row.sipel.masklen <= 128));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    for (const int family : {0, 1}) {
        ipv6flag = family;
        read_inventory(data, size);
    }

    each_line(data, size, [&](char *line) {
        const bool empty = *line == '\0';
        const nic_layout layout = nic_scan_layout(line);
        require(!empty || layout == NIC_LAYOUT_OPEN);
    });
    return 0;
}
