/// Any output of the arp command: a hardware address that is found is a word of the line, whole.
#include "fip/ping.h"
#include "fuzz_input.h"

#include <cstring>

void fuzz(std::string_view input)
{
    each_line(input, [](char *line) {
        const std::string before = line;
        char macaddr[MACTEXT_SIZE];
        if (fip_find_macaddr(line, macaddr, sizeof(macaddr)))
            require(strlen(macaddr) >= strlen("0:0:0:0:0:0") && before.find(macaddr) != std::string::npos);
    });
}
