#include "config.h"

#include "../config_value.h"
#include "../text.h"
#include "../value.h"
#include "address_text.h"
#include "trace_source.h"

#include "qorxml.h"

#include <climits>
#include <cstdint>
#include <span>

namespace
{

constexpr char self[] = "fip_xml_get_config";

/// Microseconds between two looks at a worker when the configured period makes no sense.
constexpr int default_poll_us = 10'000;
constexpr std::int64_t us_per_s = 1'000'000;

/// One int parameter of a resource: "/root/resource/fip@NAME/parameters/" and `key`.
struct int_param {
    const char *key;
    int FIP_INFO::*member;
    int otherwise; ///< when it cannot be read
};

constexpr int_param ping_deact_params[] = {
    {"ping/execute_in_npsimu_on_deact", &FIP_INFO::pingnpsimu, 0},
};

// In the order of the trace: the first is the way of an activation, which a deactivation does not choose.
constexpr int_param act_params[] = {
    {"ifconfig/use", &FIP_INFO::ifconfuse, 0},
    {"ping/timeout", &FIP_INFO::pingtout, 1},
    {"ping/retry", &FIP_INFO::pingretry, 0},
    {"ping/interval", &FIP_INFO::pinginterval, 1},
    {"ping/force", &FIP_INFO::pingforce, 0},
    {"ping/allip", &FIP_INFO::pingallip, 0},
    {"ping/execute_in_npsimu_on_act", &FIP_INFO::pingnpsimu, 0},
};

constexpr int_param arp_params[] = {
    {"arp/retry", &FIP_INFO::arpnum, 1},
    {"arp/opcode", &FIP_INFO::arpopcode, 1},
};

constexpr int_param srcip_params[] = {
    {"srcip/use", &FIP_INFO::srcipuse, 0},
};

constexpr int_param ifconfig_params[] = {
    {"ifconfig/timeout", &FIP_INFO::ifconftout, 60},
};

constexpr int_param check_params[] = {
    {"check/ifconfig/execute", &FIP_INFO::checkifexec, 1},
    {"check/ifconfig/retry", &FIP_INFO::checkifretry, 3},
    {"check/ifconfig/interval", &FIP_INFO::checkifinterval, 1},
    {"check/ifconfig/error", &FIP_INFO::checkiferror, 0},
    {"check/ping/execute", &FIP_INFO::checkpiexec, 1},
    {"check/ping/retry", &FIP_INFO::checkpiretry, 3},
    {"check/ping/interval", &FIP_INFO::checkpiinterval, 1},
    {"check/ping/error", &FIP_INFO::checkpierror, 0},
};

constexpr int_param link_params[] = {
    {"defmethod", &FIP_INFO::miiw_method, 0},
    {"monmii", &FIP_INFO::isMiiw, 0},
};

/// One int parameter of the practice beyond the record, whose initial value stands when it cannot be read.
struct practice_param {
    const char *key;
    int FIP_PRACTICE::*member;
};

constexpr practice_param nd_params[] = {
    {"nd/retry", &FIP_PRACTICE::ndretry},
    {"nd/dad", &FIP_PRACTICE::nddad},
    {"nd/timeout", &FIP_PRACTICE::ndtimeout},
};

constexpr practice_param guard_params[] = {
    {"guard/interface", &FIP_PRACTICE::guardif},
};

constexpr practice_param parallel_params[] = {
    {"check/ping/parallel", &FIP_PRACTICE::pingparallel},
};

/// Reads one int parameter. @return false when it cannot be read; then there is a line in the trace of the
/// level `absent` when there is none, else of level 2
bool read_int(const char *rscname, const char *key, int *value, int absent = TRACE_WARNING)
{
    char path[FIP_PATH_SIZE];
    format_text(path, sizeof(path), "/root/resource/fip@%s/parameters/%s", rscname, key);
    const int ret = read_config_int(path, value);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(self, ret == QOR_XMLERR_NOTEXIST_PATH ? absent : TRACE_WARNING,
                 "xmllib_get_value(%s) failed. (ret=%d)", path, ret);
        return false;
    }
    return true;
}

void read_ints(FIP_INFO *info, std::span<const int_param> params)
{
    for (const int_param &param : params) {
        int value = 0;
        info->*param.member = read_int(info->rscname, param.key, &value) ? value : param.otherwise;
    }
}

/// A configuration from before these parameters lacks them, which is no reason for a warning.
void read_practice(const FIP_INFO &info, std::span<const practice_param> params)
{
    for (const practice_param &param : params) {
        int value = 0;
        practice.*param.member =
            read_int(info.rscname, param.key, &value, TRACE_DEBUG) ? value : FIP_PRACTICE{}.*param.member;
    }
}

/// Reads the path of a tool, a setting that all resources share.
void read_tool(const char *path, char (&tool)[FIP_PATH_SIZE], const char *otherwise)
{
    int size = sizeof(tool);
    const int ret = xmllib_get_value(path, QOR_XMLTYPE_TEXT, tool, &size);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(self, TRACE_WARNING, "xmllib_get_value(%s) failed. (ret=%d)", path, ret);
        copy_text(tool, otherwise);
    }
}

void read_ping(FIP_INFO *info)
{
    static constexpr char path[] = "/root/resource/fip/parameters/ping/path";
    int size = sizeof(info->pingcmd);
    if (xmllib_get_value(path, QOR_XMLTYPE_TEXT, info->pingcmd, &size) != QOR_XMLERR_SUCCESS) {
        TRACE_AS(self, TRACE_WARNING, "xmllib_get_value(%s) failed.", path);
        copy_text(info->pingcmd, "bin/qorping");
    }
    if (actflag != 0) {
        // A deactivation only asks whether anybody still answers: one short look at a time.
        info->pingtout = 1;
        info->pingretry = 0;
        info->pinginterval = 1;
        info->pingforce = 0;
        read_ints(info, ping_deact_params);
    } else {
        read_ints(info, act_params);
    }
    TRACE_AS(self, TRACE_DEBUG, "ping       = cmd:%s,to:%d,rty:%d,itv:%d,frc:%d,nps:%d", info->pingcmd,
             info->pingtout, info->pingretry, info->pinginterval, info->pingforce, info->pingnpsimu);
}

/// Reads the poll period and derives the number of polls that make up the time-out.
void read_poll_period(FIP_INFO *info)
{
    const std::int64_t timeout_us = info->ifconftout * us_per_s;
    if (!read_int(info->rscname, "check/ifconfig/sleeptime", &info->checkstime)) {
        info->checkstime = default_poll_us;
    } else if (info->checkstime <= 0 || info->checkstime > timeout_us) {
        TRACE_AS(self, TRACE_INFO, "checkstime changed default value");
        info->checkstime = default_poll_us;
    }
    const std::int64_t polls = timeout_us / info->checkstime;
    info->checkloopc = polls > INT_MAX ? INT_MAX : polls < INT_MIN ? INT_MIN : static_cast<int>(polls);
}

void read_checks(FIP_INFO *info)
{
    read_ints(info, check_params);
    TRACE_AS(self, TRACE_DEBUG, "chk ifconf = exec:%d,rty:%d,itv:%d,err:%d", info->checkifexec,
             info->checkifretry, info->checkifinterval, info->checkiferror);
    TRACE_AS(self, TRACE_DEBUG, "chk ping   = exec:%d,rty:%d,itv:%d,err:%d", info->checkpiexec,
             info->checkpiretry, info->checkpiinterval, info->checkpierror);
    read_practice(*info, parallel_params);
    TRACE_AS(self, TRACE_DEBUG, "chk ping   = par:%d", practice.pingparallel);
}

void read_parameters(FIP_INFO *info)
{
    read_ping(info);

    read_tool("/root/resource/fip/parameters/arp/path", info->arpcmd, "arp");
    read_ints(info, arp_params);
    TRACE_AS(self, TRACE_DEBUG, "arp        = cmd:%s,num:%d,opcode:%d", info->arpcmd, info->arpnum,
             info->arpopcode);

    if (actflag == 0) {
        read_practice(*info, nd_params);
        TRACE_AS(self, TRACE_DEBUG, "nd         = num:%d,dad:%d,to:%d", practice.ndretry, practice.nddad,
                 practice.ndtimeout);
    }
    read_practice(*info, guard_params);
    TRACE_AS(self, TRACE_DEBUG, "guard      = if:%d", practice.guardif);

    read_ints(info, srcip_params);
    TRACE_AS(self, TRACE_DEBUG, "srcip      = use:%d", info->srcipuse);

    read_tool("/root/resource/fip/parameters/ifconfig/path", info->ifconfcmd, "ifconfig");
    read_ints(info, ifconfig_params);
    TRACE_AS(self, TRACE_DEBUG, "ifconfig   = cmd:%s,to:%d", info->ifconfcmd, info->ifconftout);

    read_poll_period(info);
    if (actflag != 0) {
        read_checks(info);
    }
    read_ints(info, link_params);
}

} // namespace

int fip_xml_init()
{
    if (xmllib_init("fip") != QOR_XMLERR_SUCCESS) {
        return fip_internal_error(FIP_ERR_XMLINIT);
    }
    ++xmliniflag;
    if (xmllib_load_config() != QOR_XMLERR_SUCCESS) {
        return fip_internal_error(FIP_ERR_XMLCONF);
    }
    ++xmlconflag;
    return FIP_SUCCESS;
}

int fip_xml_term()
{
    TRACE(TRACE_DEBUG, "fip_xml_term()  ENTRY...");
    if (xmlconflag >= 1) {
        const int ret = xmllib_unload_config();
        if (ret != QOR_XMLERR_SUCCESS) {
            TRACE(TRACE_WARNING, "xmllib_unload_config() failed. (ret=%d)", ret);
        } else {
            TRACE(TRACE_DEBUG, "xmllib_unload_config() succeeded.");
            --xmlconflag;
        }
    } else {
        TRACE(TRACE_WARNING, "Not executed xmllib_load_config()");
    }
    if (xmliniflag >= 1) {
        const int ret = xmllib_term();
        if (ret != QOR_XMLERR_SUCCESS) {
            TRACE(TRACE_WARNING, "xmllib_term() failed. (ret=%d)", ret);
        } else {
            TRACE(TRACE_DEBUG, "xmllib_term() succeeded.");
            --xmliniflag;
        }
    } else {
        TRACE(TRACE_WARNING, "Not executed xmllib_init()");
    }
    return FIP_SUCCESS;
}

int fip_xml_load_policy(const char *func, const char *type)
{
    const int ret = xmllib_load_policy(type);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(func, TRACE_ERROR, "xmllib_load_policy(%s) failed. (ret=%d)", type, ret);
    } else {
        TRACE_AS(func, TRACE_DEBUG, "xmllib_load_policy(%s) succeeded.", type);
    }
    return ret;
}

int fip_xml_unload_policy(const char *func, const char *type)
{
    const int ret = xmllib_unload_policy(type);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(func, TRACE_WARNING, "xmllib_unload_policy(%s) failed. (ret=%d)", type, ret);
    } else {
        TRACE_AS(func, TRACE_DEBUG, "xmllib_unload_policy(%s) succeeded.", type);
    }
    return ret;
}

int fip_xml_get_path(const char *type, const char *path, char *buffer, int *size)
{
    TRACE(TRACE_DEBUG, "fip_xml_get_path()  ENTRY...");
    policy_scope policy(__func__, type);
    if (!policy.loaded) {
        return shmrmflag > 0 ? fip_internal_error(FIP_ERR_POLICY) : FIP_ERR_POLICY;
    }
    const int ret = xmllib_get_value(path, QOR_XMLTYPE_TEXT, buffer, size);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE(TRACE_WARNING, "xmllib_get_value(%s) failed. (ret=%d)", path, ret);
        if (shmrmflag > 0) {
            fip_internal_error(FIP_ERR_VALUE);
        }
        return FIP_ERR_VALUE;
    }
    return fip_library_status(policy.unload());
}

int fip_xml_read_address(const char *func, const char *rscname, char (&value)[FIP_ADDRARG_SIZE])
{
    char server[HOSTNAME_SIZE];
    const int host_ret = get_hostname(server);
    if (host_ret != 0) {
        TRACE_AS(func, TRACE_ERROR, "get_hostname() failed. (ret=%d)", host_ret);
        return FIP_ERR_HOSTNAME;
    }
    char path[FIP_PATH_SIZE];
    format_text(path, sizeof(path), "/root/resource/fip@%s/parameters/ip", rscname);
    int size = sizeof(value);
    const int ret = xmllib_get_srvsep_value(server, path, QOR_XMLTYPE_TEXT, value, &size);
    if (ret != QOR_XMLERR_SUCCESS) {
        TRACE_AS(func, TRACE_ERROR, "xmllib_get_srvsep_value(%s,%s) failed. (ret=%d)", path, "ip", ret);
        return FIP_ERR_ADDRESS;
    }
    return FIP_SUCCESS;
}

int fip_xml_get_address(FIP_INFO *pfipinfo)
{
    char value[FIP_ADDRARG_SIZE] = "";
    int ret = fip_xml_read_address(self, pfipinfo->rscname, value);
    if (ret != FIP_SUCCESS) {
        return ret == FIP_ERR_ADDRESS ? fip_internal_error(ret) : ret;
    }
    fip_ipck(value);
    ret = fip_div_ipmask(value, pfipinfo->addr, pfipinfo->mask, &pfipinfo->masklen, pfipinfo->ifname);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_div_ipmask failed. (ret=%d)", ret);
    }
    return ret;
}

bool fip_xml_is_guarded(const char *rscname)
{
    const policy_scope policy(__func__, "fip");
    int value = 0;
    return policy.loaded && read_int(rscname, guard_params[0].key, &value, TRACE_DEBUG) && value != 0;
}

int fip_xml_get_config(FIP_INFO *pfipinfo)
{
    TRACE(TRACE_DEBUG, "fip_xml_get_config(%p)  ENTRY...", static_cast<void *>(pfipinfo));
    {
        const policy_scope policy(__func__, "fip");
        if (!policy.loaded) {
            return FIP_ERR_POLICY;
        }
        read_parameters(pfipinfo);
    }

    if (pfipinfo->addr[0] == '\0') {
        const int ret = fip_xml_get_address(pfipinfo);
        if (ret != FIP_SUCCESS) {
            return ret;
        }
    }
    int size = sizeof(inspath);
    const int ret = fip_xml_get_path("all", "/root/all/path", inspath, &size);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    TRACE(TRACE_DEBUG, "ip:%s, mask:%s, ifname:%s", pfipinfo->addr, pfipinfo->mask, pfipinfo->ifname);
    return FIP_SUCCESS;
}
