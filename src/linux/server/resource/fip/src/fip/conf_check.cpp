#include "conf_check.h"

#include "../chklog.h"
#include "../chkutil.h"
#include "../config_value.h"
#include "../fip.h"
#include "../text.h"
#include "address_text.h"
#include "config.h"
#include "trace_source.h"

#include "qorxml.h"

#include <cassert>
#include <iterator>

namespace
{

constexpr char load_name[] = "fip_load_chkconf";
constexpr char check_name[] = "fip_conf_check";

/// Bytes allowed for a comment, terminator included.
enum { COMMENT_SIZE = 128 };

constexpr property properties[] = {
    {
        .name = "IP Address",
        .type = QOR_XMLTYPE_TEXT,
        .size = FIP_ADDRARG_SIZE,
        .commonpath = "/root/resource/fip@%s/parameters/ip",
        .specialpath = "/root/resource/fip@%s/server@%s/parameters/ip",
        .commoncheckfunc = fip_fipaddr_check,
        .specialcheckfunc = fip_fipaddr_check,
        .required = 0,
    },
};

constexpr numeric_param params[] = {
    {"Ping Timeout", "/root/resource/fip@%s/parameters/ping/timeout", "2"},
    {"Ping Retry Count", "/root/resource/fip@%s/parameters/ping/retry", "3"},
    {"Ping Interval", "/root/resource/fip@%s/parameters/ping/interval", "4"},
    {"FIP Force Activation", "/root/resource/fip@%s/parameters/ping/force", "5"},
    {"ARP Send Count", "/root/resource/fip@%s/parameters/arp/retry", "6"},
    {"Ifconfig Timeout", "/root/resource/fip@%s/parameters/ifconfig/timeout", "7"},
    {"Ifconfig Status at Failure", "/root/resource/fip@%s/parameters/check/ifconfig/error", "8"},
    {"Ping Status at Failure", "/root/resource/fip@%s/parameters/check/ping/error", "9"},
    {"Confirm I/F Deletion", "/root/resource/fip@%s/parameters/check/ifconfig/execute", nullptr},
    {"Confirm I/F Reception", "/root/resource/fip@%s/parameters/check/ping/execute", nullptr},
    {"Judge NIC Link Down as Abnormal", "/root/resource/fip@%s/parameters/monmii", nullptr},
};

/// Parameters that came later: a configuration or a policy may be from before.
constexpr numeric_param later_params[] = {
    {"NA Send Count", "/root/resource/fip@%s/parameters/nd/retry", "10"},
    {"DAD Mode", "/root/resource/fip@%s/parameters/nd/dad", "11"},
    {"DAD Timeout", "/root/resource/fip@%s/parameters/nd/timeout", "12"},
    {"Interface Guard", "/root/resource/fip@%s/parameters/guard/interface", "13"},
    {"Parallel I/F Reception", "/root/resource/fip@%s/parameters/check/ping/parallel", "14"},
};

/// Reads one half of the file's name.
int read_name(const char *type, const char *path, char (&name)[FIP_PATH_SIZE])
{
    int size = sizeof(name);
    const int ret = fip_xml_get_path(type, path, name, &size);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(load_name, TRACE_ERROR, "fip_xml_get_path() failed. (ret=%d)", ret);
    }
    return ret;
}

/// Loads the file and makes it current.
int load_file(const char *file, bool whole)
{
    int ret = whole ? xmllib_load_pathconfig(file, &hchkconf) : QOR_XMLERR_OTHER;
    if (ret != QOR_XMLERR_SUCCESS) {
        hchkconf = nullptr;
        TRACE_AS(load_name, TRACE_ERROR, "xmllib_load_pathconfig() failed. (ret=%d)", ret);
        return ret;
    }
    ret = xmllib_change_config(hchkconf);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(load_name, TRACE_ERROR, "xmllib_change_config() failed. (ret=%d)", ret);
        static_cast<void>(xmllib_unload_pathconfig(hchkconf));
        hchkconf = nullptr;
    }
    return ret;
}

/// Writes a row of the table that takes one text.
template <logindex row>
int write_finding(const char *value)
{
    chk_log_write(CHK_LEVEL_ERROR, logtbl[row].index, logtbl[row].msg, value);
    return CHK_FINDING;
}

bool exists(const char *pattern, const char *name)
{
    char path[FIP_PATH_SIZE];
    fill_path(path, pattern, {name});
    int value = 0;
    return read_config_int(path, &value) != QOR_XMLERR_NOTEXIST_PATH;
}

/// Checks the later parameters as far as there is one, and a limit for it. @return a chk_result
int check_later_values(const char *rscname)
{
    int result = CHK_PASSED;
    for (const numeric_param &param : later_params) {
        if (!exists(param.path, rscname)) {
            continue;
        }
        if (!exists("/root/resource/fip/param%s/type", param.index)) {
            TRACE_AS(check_name, TRACE_WARNING, "Value of %s is not checked: the policy has no param%s.",
                     param.name, param.index);
            continue;
        }
        const int checked = check_numeric_values(rscname, &param, 1, logtbl[CHK_ID_RANGE_ERR].index);
        if (checked == CHK_UNREADABLE) {
            return checked;
        }
        result |= checked;
    }
    return result;
}

/// Runs both checks with the policy loaded. *finding tells whether one wrote a finding.
/// @return 0, or CHK_UNREADABLE
int check_values(const char *rscname, int *finding)
{
    const int text = check_properties(rscname, properties, std::size(properties));
    if (text == CHK_UNREADABLE) {
        TRACE_AS(check_name, TRACE_ERROR, "check_properties() failed. (ret=%d)", text);
        return text;
    }
    *finding |= text;
    int numeric = check_numeric_values(rscname, params, std::size(params), logtbl[CHK_ID_RANGE_ERR].index);
    if (numeric != CHK_UNREADABLE) {
        *finding |= numeric;
        numeric = check_later_values(rscname);
    }
    if (numeric == CHK_UNREADABLE) {
        TRACE_AS(check_name, TRACE_ERROR, "check_numeric_values() failed. (ret=%d)", numeric);
        return numeric;
    }
    *finding |= numeric;
    return 0;
}

/// Checks the resource. *finding tells whether a finding was written.
/// @return 0, or the code of an internal error
int check_resource(const char *rscname, int *finding)
{
    int ret = fip_load_chkconf();
    if (ret != 0) {
        TRACE_AS(check_name, TRACE_ERROR, "fip_load_chkconf() failed. (ret=%d)", ret);
        return ret;
    }
    *finding = fip_comment_check(rscname);
    if (*finding != 0) {
        TRACE_AS(check_name, TRACE_ERROR, "fip_comment_check() failed. (ret=%d)", *finding);
        return 0;
    }
    ret = xmllib_load_policy("fip");
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(check_name, TRACE_ERROR, "xmllib_load_policy() failed. (ret=%d)", ret);
        return ret;
    }
    ret = check_values(rscname, finding);
    static_cast<void>(xmllib_unload_policy("fip"));
    return ret;
}

} // namespace

int fip_load_chkconf()
{
    TRACE(TRACE_DEBUG, "fip_load_chkconf()  ENTRY...");
    hchkconf = nullptr;
    char home[FIP_PATH_SIZE] = "";
    int ret = read_name("all", "/root/all/path", home);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    char relative[FIP_PATH_SIZE] = "";
    ret = read_name("cluster", "/root/cluster/check/chkconf", relative);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    char file[FIP_PATH_SIZE];
    const bool whole = format_text(file, sizeof(file), "%s/%s", home, relative);
    TRACE(TRACE_DEBUG, "new configuration file : %s", file);
    ret = load_file(file, whole);
    if (ret == QOR_XMLERR_SUCCESS) {
        TRACE(TRACE_DEBUG, "load %s success", file);
    }
    return fip_library_status(ret);
}

void fip_unload_chkconf()
{
    TRACE(TRACE_DEBUG, "fip_unload_chkconf()  ENTRY...");
    if (hchkconf != nullptr) {
        static_cast<void>(xmllib_unload_pathconfig(hchkconf));
        hchkconf = nullptr;
    }
}

int fip_conf_check(const char *rscname)
{
    TRACE(TRACE_DEBUG, "fip_conf_check()  ENTRY...");
    assert(rscname != nullptr);
    int finding = 0;
    const int ret = check_resource(rscname, &finding);
    fip_unload_chkconf();
    if (ret != 0) {
        chk_log_row(CHK_LEVEL_ERROR, CHK_ID_INTERNAL_ERR);
        return ret;
    }
    return finding;
}

int fip_comment_check(const char *rscname)
{
    TRACE(TRACE_DEBUG, "fip_comment_check()  ENTRY...");
    assert(rscname != nullptr);
    char path[FIP_PATH_SIZE];
    format_text(path, sizeof(path), "/root/resource/fip@%s/comment", rscname);
    char comment[COMMENT_SIZE] = "";
    int size = sizeof(comment);
    const int ret = xmllib_get_value(path, QOR_XMLTYPE_TEXT, comment, &size);
    logindex row = CHK_ID_INTERNAL_ERR;
    switch (ret) {
    case QOR_XMLERR_SUCCESS:
        return 0;
    case QOR_XMLERR_NOTENOUGH_SIZE:
        row = CHK_ID_COMMENT_RANGE_ERR;
        break;
    case QOR_XMLERR_NOTEXIST_PATH:
        row = CHK_ID_COMMENT_PATH_ERR;
        break;
    default:
        break;
    }
    chk_log_row(CHK_LEVEL_ERROR, row);
    TRACE(TRACE_ERROR, "xmllib_get_value(%s) failed. (ret=%d)", path, ret);
    return CHK_FINDING;
}

int fip_fipaddr_check(const char *address)
{
    TRACE(TRACE_DEBUG, "fip_fipaddr_check()  ENTRY...");
    assert(address != nullptr);
    const run_mode_scope kept; // a draft's address is not the run's
    fip_ipck(address);
    FIP_INFO info = {};
    const int ret = fip_div_ipmask(address, info.addr, info.mask, &info.masklen, info.ifname);
    if (ret == FIP_ERR_MASK || info.masklen < 0) {
        return write_finding<CHK_ID_MASK_ERR>(address);
    }
    if (ret == FIP_ERR_IPFORMAT) {
        return write_finding<CHK_ID_IPFOMAT_ERR>(address);
    }
    if (ret == FIP_ERR_IFNAME) {
        return write_finding<CHK_ID_NIC_ERR>(address);
    }
    if (info.addr[0] == '\0') {
        return write_finding<CHK_ID_EMPTY_ERR>("IP address");
    }
    in_addr addr = {};
    in6_addr addr6 = {};
    if (!fip_parse_addr(info.addr, &addr, &addr6)) {
        return write_finding<CHK_ID_IPADDR_ERR>(info.addr);
    }
    return 0;
}
