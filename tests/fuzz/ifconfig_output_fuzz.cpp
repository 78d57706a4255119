/// Any output of ifconfig, through both of its readers, in both families.
#include "fip.h"
#include "fip/ifconfig_output.h"
#include "fuzz_input.h"
#include "nicIfconfig.h"

static void read_inventory(std::string_view input)
{
    inventory_reader reader;
    int ret = FIP_SUCCESS;
    each_line(input, [&](char *line) {
        if (ret == FIP_SUCCESS)
            ret = fip_read_inventory_line(&reader, line);
    });
    for (const ipaddrinfo &row : reader.rows) {
        require(&row == &reader.rows[row.index] && row.ifname[0] != '\0');
        require(ret != FIP_SUCCESS || (row.sipel.masklen >= 0 && row.sipel.masklen <= 128));
    }
}

void fuzz(std::string_view input)
{
    for (const int family : {0, 1}) {
        ipv6flag = family;
        read_inventory(input);
    }

    each_line(input, [&](char *line) {
        const bool empty = *line == '\0';
        require(nic_scan_layout(line) == NIC_LAYOUT_OPEN || !empty);
    });
}
