#include "resource.h"

#include "kernel_address.h"

#include "fip.h"
#include "fip/address_record.h"
#include "fip/address_text.h"
#include "fip/config.h"
#include "text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace
{

/// What is known of an address of the resource.
struct known_address {
    host_address host;
    char device[sizeof(fip_record::device)] = ""; ///< the recorded name; empty: none
};

/// Takes the address that the parser left in the record; a text that is no host's address is none.
host_address to_host(const FIP_INFO &info)
{
    host_address host;
    in_addr addr = {};
    in6_addr addr6 = {};
    if (!fip_parse_host(info.addr, &addr, &addr6)) {
        return host;
    }
    host.family = ipv6flag != 0 ? AF_INET6 : AF_INET;
    if (ipv6flag != 0) {
        memcpy(host.bytes, &addr6, sizeof(addr6));
    } else {
        memcpy(host.bytes, &addr, sizeof(addr));
    }
    host.prefix = info.mask[0] != '\0' ? info.masklen : -1;
    return host;
}

host_address read_configured(const char *rscname, bool *guarded)
{
    FIP_INFO info = {};
    copy_text(info.rscname, rscname);
    host_address host;
    if (fip_xml_init() == FIP_SUCCESS) {
        *guarded = fip_xml_is_guarded(rscname);
        if (fip_xml_get_address(&info) == FIP_SUCCESS) {
            host = to_host(info);
        }
    }
    fip_xml_term();
    return host;
}

/// Reads the agent's record. The row's device counts where there is none: the address was brought up by an
/// agent that did not record it yet, or could not.
known_address read_recorded(const shmrm_state &row)
{
    known_address recorded;
    fip_record record = {};
    FIP_INFO info = {};
    if (fip_record_read(row.rscname, &record) != 0) {
        copy_text(recorded.device, row.rscfree);
        return recorded;
    }
    fip_ipck(record.address);
    if (fip_div_ipmask(record.address, info.addr, info.mask, &info.masklen, nullptr) == FIP_SUCCESS) {
        recorded.host = to_host(info);
    }
    copy_text(recorded.device, record.device);
    return recorded;
}

/// Whether an address stands under the recorded name. That of IPv6 may have an alias, which the kernel drops.
bool is_at(const address_place &place, int family, const char *device)
{
    if (family == AF_INET) {
        return strcmp(place.label, device) == 0;
    }
    return strlen(place.interface) == base_length(device) &&
           strncmp(place.interface, device, base_length(device)) == 0;
}

std::string address_text(const host_address &host, int prefix)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(host.family, host.bytes, text, sizeof(text));
    std::string out = text;
    if (prefix >= 0) {
        out.append("/").append(std::to_string(prefix));
    }
    return out;
}

const char *tell_detection(detection dad)
{
    switch (dad) {
    case detection::pending:
        return "duplicate address detection is not over";
    case detection::failed:
        return "duplicate address detection failed: another host has the address";
    default:
        return "";
    }
}

/// Reports the address at the place that was recorded, else at the first one.
void report_places(const host_address &host, const std::vector<address_place> &places,
                   const known_address &recorded, bool agree, resource_report *report)
{
    const auto here = std::find_if(places.begin(), places.end(), [&](const address_place &place) {
        return is_at(place, host.family, recorded.device);
    });
    const address_place &place = here != places.end() ? *here : places.front();
    report->address = address_text(host, place.prefix);
    report->interface = place.interface;
    report->label = place.label;
    if (!agree) {
        report->note = "the configuration and the record differ";
    } else if (here == places.end()) {
        report->recorded = false;
        report->note = "it was not recorded here";
    } else {
        report->note = tell_detection(place.dad);
    }
    report->status = report->note.empty() ? RESOURCE_UP : RESOURCE_CHANGED;
}

/// Looks for the recorded address, then for the configured one.
int look_for(const host_address &configured, const known_address &recorded, resource_report *report)
{
    const bool has_record = recorded.host.family != AF_UNSPEC;
    const bool has_configured = configured.family != AF_UNSPEC;
    const bool agree = !has_record || !has_configured || is_same(recorded.host, configured);
    std::vector<address_place> places;
    for (const host_address &host : {recorded.host, configured}) {
        if (host.family == AF_UNSPEC) {
            continue;
        }
        if (const int ret = find_places(host, &places); ret != 0) {
            return ret;
        }
        if (!places.empty()) {
            report_places(host, places, recorded, agree, report);
            return 0;
        }
    }
    if (has_configured || has_record) {
        report->status = RESOURCE_DOWN;
        const host_address &host = has_configured ? configured : recorded.host;
        const bool same = has_record && is_same(host, recorded.host);
        report->address =
            address_text(host, same && recorded.host.prefix >= 0 ? recorded.host.prefix : host.prefix);
    } else {
        report->note = "neither the configuration nor a record tells its address";
    }
    return 0;
}

} // namespace

const char *status_word(resource_status status)
{
    switch (status) {
    case RESOURCE_UP:
        return "up";
    case RESOURCE_DOWN:
        return "down";
    case RESOURCE_CHANGED:
        return "changed";
    default:
        return "unknown";
    }
}

int judge_resource(const char *group, const shmrm_state &row, resource_report *report)
{
    const host_address configured = read_configured(row.rscname, &report->guarded);
    const int ret = look_for(configured, read_recorded(row), report);
    if (ret == 0 && group != nullptr && row.group[0] != '\0' && strcmp(group, row.group) != 0) {
        // Whoever asks for the wrong resource must neither take this one for its own nor believe it down.
        report->status = report->interface.empty() ? RESOURCE_UNKNOWN : RESOURCE_CHANGED;
        report->note = "it is recorded in another group";
    }
    return ret;
}
