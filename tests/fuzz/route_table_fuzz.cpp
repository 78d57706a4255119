/// Any route table: a gateway that is found is an address.
#include "fip/srcip.h"
#include "fuzz_input.h"

#include <arpa/inet.h>

void fuzz(std::string_view input)
{
    each_line(input, [](char *line) {
        char gateway[INET_ADDRSTRLEN] = "";
        in_addr addr = {};
        if (fip_read_default_route(line, "eth0", gateway, sizeof(gateway)))
            require(inet_pton(AF_INET, gateway, &addr) == 1);
    });
}
