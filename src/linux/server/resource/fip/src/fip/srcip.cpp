#include "srcip.h"

#include "../command.h"
#include "../config_value.h"
#include "../fip.h"
#include "../name_list.h"
#include "../text.h"
#include "address_text.h"
#include "config.h"
#include "inventory.h"
#include "trace_source.h"

#include "qorxml.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace
{

constexpr char check_name[] = "fip_srcip_check";
constexpr char set_name[] = "fip_srcip_set";
constexpr char resource_path[] = "/root/resource/fip";
constexpr char route_table[] = "/proc/net/route";

/// What an ip command may take before it is ended.
constexpr long ip_limit_ms = 10'000;

int list_resources(name_list *resources)
{
    static constexpr name_list_texts texts = {
        .pname = trace_source,
        .pfunc = check_name,
        .count = "rscnum",
        .slots = "resources",
        .tells_memory = true,
    };
    int ret = 0;
    switch (read_name_list(texts, resource_path, resources, &ret)) {
    case NAMES_READ:
        return FIP_SUCCESS;
    case NAMES_UNKNOWN:
        TRACE_AS(check_name, TRACE_ERROR, "xmllib_enum_value(%s) failed. (ret=%d)", resource_path, ret);
        return FIP_ERR_INTERNAL;
    case NAMES_NONE: // told apart from a list that cannot be read
        TRACE_AS(check_name, TRACE_ERROR, "fip does not exist.");
        return FIP_ERR_NORSC;
    case NAMES_NO_MEMORY:
        return FIP_ERR_MEMORY;
    case NAMES_UNREADABLE:
        break;
    }
    return FIP_ERR_INTERNAL;
}

/// Reads whether a resource uses source routing.
int read_use(const char *resource, int *use)
{
    char path[FIP_PATH_SIZE];
    format_text(path, sizeof(path), "/root/resource/fip@%s/parameters/srcip/use", resource);
    const int ret = read_config_int(path, use);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(check_name, TRACE_ERROR, "xmllib_get_value(%s, %d) failed. (ret=%d)", path, QOR_XMLTYPE_INT,
                 ret);
        return FIP_ERR_ADDRESS;
    }
    return FIP_SUCCESS;
}

/// Reads the bare address that a resource has on this server.
int read_address(const char *resource, char (&addr)[FIP_ADDRARG_SIZE])
{
    char value[FIP_ADDRARG_SIZE] = "";
    const int ret = fip_xml_read_address(check_name, resource, value);
    copy_part(addr, value, strcspn(value, "/%"));
    return ret;
}

bool same_base(const char *left, const char *right)
{
    const std::size_t len = base_length(left);
    return len == base_length(right) && strncmp(left, right, len) == 0;
}

/// Judges one other resource.
int check_resource(const inventory &rows, const char *ifname, const char *resource)
{
    int use = 0;
    int ret = read_use(resource, &use);
    if (ret != FIP_SUCCESS || use == 0) {
        return ret;
    }
    char addr[FIP_ADDRARG_SIZE];
    ret = read_address(resource, addr);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    TRACE_AS(check_name, TRACE_INFO, "fip rsc enum %s ip=%s", resource, addr);
    in_addr numeric = {};
    in6_addr unused = {};
    const bool known = fip_parse_host(addr, &numeric, &unused);
    const ipaddrinfo *row = known ? fip_find_row(rows, numeric, unused) : nullptr;
    if (row == nullptr) {
        return FIP_SUCCESS;
    }
    TRACE_AS(check_name, TRACE_DEBUG, "ipaddrlist[%u]->ifname=%s", row->index, row->ifname);
    if (!same_base(row->ifname, ifname)) {
        return FIP_SUCCESS;
    }
    TRACE_AS(check_name, TRACE_ERROR, "%s has already been attached to %s.", addr, ifname);
    return FIP_ERR_INUSE;
}

int check_resources(const inventory &rows, const char *ifname, const char *rscname,
                    const name_list &resources)
{
    if (fip_xml_load_policy(check_name, "fip") != QOR_XMLERR_SUCCESS) {
        return FIP_ERR_POLICY;
    }
    for (int i = 0; i < resources.num; ++i) {
        const char *resource = resources[i];
        if (strcmp(resource, rscname) == 0) {
            continue;
        }
        const int ret = check_resource(rows, ifname, resource);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
    }
    return FIP_SUCCESS;
}

/// Runs one route command; its output is not read.
int replace_route(const char *line)
{
    command cmd;
    if (command_open(&cmd, line, ip_limit_ms) != 0) {
        TRACE_AS(set_name, TRACE_ERROR, "popen(%s, r) failed. (errno=%d)", line, errno);
        return FIP_ERR_POPEN;
    }
    TRACE_AS(set_name, TRACE_DEBUG, "popen(%s, r) succeeded.", line);
    switch (command_close_traced(&cmd, line, trace_source, set_name, TRACE_INFO).end) {
    case command_result::ABNORMAL:
        return FIP_ERR_ABNORMAL;
    case command_result::FAILED:
        return FIP_ERR_INTERNAL;
    case command_result::SUCCEEDED:
        break;
    }
    return FIP_SUCCESS;
}

/// Looks for the interface's default route; an empty gateway means that it has none.
int find_gateway(const char *ifname, char (&gateway)[INET_ADDRSTRLEN])
{
    gateway[0] = '\0';
    const std::unique_ptr<FILE, decltype(&fclose)> table(fopen(route_table, "re"), fclose);
    if (!table) {
        TRACE_AS(set_name, TRACE_ERROR, "fopen(/proc/net/route) failed. (errno=%d)", errno);
        return FIP_ERR_INTERNAL;
    }
    char line[1024];
    bool starts_line = true;
    while (fgets(line, sizeof(line), table.get()) != nullptr) {
        const bool whole = strchr(line, '\n') != nullptr;
        if (starts_line && fip_read_default_route(line, ifname, gateway, sizeof(gateway))) {
            return FIP_SUCCESS;
        }
        starts_line = whole;
    }
    if (ferror(table.get()) != 0) { // "no default route" is not what it says
        TRACE_AS(set_name, TRACE_ERROR, "fgets(/proc/net/route) failed. (errno=%d)", errno);
        return FIP_ERR_INTERNAL;
    }
    return FIP_SUCCESS;
}

/// Whether a field is a hexadecimal number that is 0.
bool is_zero(const char *field)
{
    char *end = nullptr;
    return strtoul(field, &end, 16) == 0 && end != field && *end == '\0';
}

/// Turns the table's 8 digits, the address bytes in memory order, into dotted form.
bool dotted_gateway(const char *digits, char *gateway, std::size_t size)
{
    if (strlen(digits) != 8 || strspn(digits, "0123456789abcdefABCDEF") != 8) {
        return false;
    }
    const unsigned long value = strtoul(digits, nullptr, 16);
    snprintf(gateway, size, "%lu.%lu.%lu.%lu", value & 0xff, value >> 8 & 0xff, value >> 16 & 0xff,
             value >> 24 & 0xff);
    return true;
}

} // namespace

bool fip_read_default_route(char *line, const char *ifname, char *gateway, std::size_t size)
{
    enum { INTERFACE, DESTINATION, GATEWAY, MASK = 7, FIELDS };
    const char *fields[FIELDS];
    char *save = nullptr;
    char *field = strtok_r(line, " \t\n", &save);
    for (const char *&slot : fields) {
        if (field == nullptr) {
            return false;
        }
        slot = field;
        field = strtok_r(nullptr, " \t\n", &save);
    }
    return strcmp(fields[INTERFACE], ifname) == 0 && is_zero(fields[DESTINATION]) && is_zero(fields[MASK]) &&
           dotted_gateway(fields[GATEWAY], gateway, size);
}

int fip_srcip_check(const inventory &ipaddrlist, const vdevinfo *pvdevinfo, const char *rscname)
{
    TRACE(TRACE_DEBUG, "fip_srcip_check()  ENTRY...");
    char ifname[sizeof(pvdevinfo->ifname)];
    copy_base(ifname, pvdevinfo->ifname);
    TRACE(TRACE_DEBUG, "pvifname=%s", ifname);

    name_list resources;
    int ret = list_resources(&resources);
    if (ret == FIP_SUCCESS) {
        ret = check_resources(ipaddrlist, ifname, rscname, resources);
    }
    resources.slots = {};
    TRACE(TRACE_DEBUG, "free(resources) success.");
    fip_xml_unload_policy(__func__, "fip");
    return ret;
}

int fip_srcip_set(const vdevinfo *pvdevinfo)
{
    TRACE(TRACE_DEBUG, "fip_srcip_set()  ENTRY...");
    char ifname[sizeof(pvdevinfo->ifname)];
    copy_base(ifname, pvdevinfo->ifname);
    const in_addr network = {pvdevinfo->nipel.addr.s_addr & pvdevinfo->nipel.mask.s_addr};
    char addr[INET_ADDRSTRLEN];
    char subnet[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &pvdevinfo->nipel.addr, addr, sizeof(addr));
    inet_ntop(AF_INET, &network, subnet, sizeof(subnet));
    const int bits = __builtin_popcount(pvdevinfo->nipel.mask.s_addr);
    const std::string device = shell_word(ifname);

    char line[FIP_PATH_SIZE];
    format_text(line, sizeof(line), "ip route replace %s/%d src %s dev %s", subnet, bits, addr,
                device.c_str());
    int ret = replace_route(line);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    char gateway[INET_ADDRSTRLEN];
    ret = find_gateway(ifname, gateway);
    if (ret != FIP_SUCCESS || gateway[0] == '\0') {
        return ret;
    }
    format_text(line, sizeof(line), "ip route replace default via %s src %s dev %s", gateway, addr,
                device.c_str());
    return replace_route(line);
}
