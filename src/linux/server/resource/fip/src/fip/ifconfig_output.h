/// The output of "ifconfig -a" in the older layout ("inet addr:ADDRESS"), read into an inventory.
#ifndef FIP_IFCONFIG_OUTPUT_H
#define FIP_IFCONFIG_OUTPUT_H

#include "../nicCommon.h"

/// The reader of the older layout: rows filled from one line after the other.
struct inventory_reader {
    inventory rows;
    bool hwaddr_next = false; ///< the next token is a hardware address
};

/// Bytes of the buffer that the command's output is read into. What a longer line has behind it is passed
/// over: cut at any place, it could be taken for another address.
enum { INVENTORY_LINE_SIZE = 1024 };

/// Reads one line, which is taken apart in place.
/// @return 0, FIP_ERR_MEMORY, FIP_ERR_MACADDR, or a result of fip_div_ipmask
[[nodiscard]] int fip_read_inventory_line(inventory_reader *reader, char *line);

/// Drops the last token of a line that did not fit the buffer whole: it may be cut.
void fip_drop_cut_token(char *line);

/// Converts a hardware address text of 6 or 20 groups.
/// @param mac  MAC_SIZE bytes; zeroed when the text is refused
/// @return 0 or FIP_ERR_MACADDR, with a result message
[[nodiscard]] int fip_crt_macaddr(const char *str, unsigned char *mac);

/// Reads up to `max` hexadecimal numbers joined by ':', up to the first mismatch, as a formatted scan with
/// "%x:%x:..." does.
/// @return how many were read
[[nodiscard]] int fip_scan_hex(const char *str, unsigned *values, int max);

#endif
