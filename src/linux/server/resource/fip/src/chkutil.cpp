#include "chkutil.h"

#include "chklog.h"
#include "config_value.h"
#include "name_list.h"
#include "text.h"
#include "tracersc.h"

#include "qorxml.h"

#include <cstddef>

namespace
{

constexpr char trace_source[] = "src/chkutil.c";
constexpr char property_name[] = "check_properties";
constexpr char numeric_name[] = "check_numeric_values";
constexpr char server_path[] = "/root/server";

enum { VALUE_SIZE = 1024, PATH_SIZE = 1024 };

/// Type tags of the policy's bounds.
enum { TAG_BOUNDS = 1, TAG_FLAG = 2, TAG_SWITCH = 3 };

int list_servers(name_list *servers)
{
    static constexpr name_list_texts texts = {
        .pname = trace_source,
        .pfunc = property_name,
        .count = "svnum",
        .slots = "servers",
        .tells_memory = false,
    };
    int ret = 0;
    switch (read_name_list(texts, server_path, servers, &ret)) {
    case NAMES_READ:
    case NAMES_NONE:
        return CHK_PASSED;
    case NAMES_NO_MEMORY:
    case NAMES_UNREADABLE:
        return CHK_UNREADABLE;
    case NAMES_UNKNOWN:
        break;
    }
    if (ret == QOR_XMLERR_NOTEXIST_PATH) {
        TRACE_AS(property_name, TRACE_ERROR, "There is no server.");
        return CHK_PASSED;
    }
    TRACE_AS(property_name, TRACE_ERROR, "xmllib_enum_value(%s) failed. (ret=%d)", server_path, ret);
    return CHK_UNREADABLE;
}

int unreadable(const char *func, const char *path, int type, int ret)
{
    TRACE_AS(func, TRACE_ERROR, "xmllib_get_value(%s, %d) failed. (ret=%d)", path, type, ret);
    return CHK_UNREADABLE;
}

/// Checks the value that a property has for one server.
int check_special(const char *rscname, const property &prop, const name_list &servers, int server)
{
    char path[PATH_SIZE];
    fill_path(path, prop.specialpath, {rscname, servers[server]});
    char value[VALUE_SIZE] = "";
    int size = prop.size;
    const int ret = xmllib_get_value(path, prop.type, value, &size);
    if (ret == QOR_XMLERR_NOTEXIST_PATH && (servers.num <= 1 || prop.required != 1)) {
        return CHK_PASSED;
    }
    if (ret != QOR_XMLERR_SUCCESS && ret != QOR_XMLERR_NOTEXIST_PATH) {
        return unreadable(property_name, path, prop.type, ret);
    }
    return prop.specialcheckfunc(value) == 0 ? CHK_PASSED : CHK_FINDING;
}

/// Checks one property, its common value first.
int check_property(const char *rscname, const property &prop, const name_list &servers)
{
    char path[PATH_SIZE];
    fill_path(path, prop.commonpath, {rscname});
    char value[VALUE_SIZE] = "";
    int size = prop.size;
    const int ret = xmllib_get_value(path, prop.type, value, &size);
    if (ret != QOR_XMLERR_SUCCESS) {
        return unreadable(property_name, path, prop.type, ret);
    }
    int result = prop.commoncheckfunc(value) == 0 ? CHK_PASSED : CHK_FINDING;
    for (int i = 0; prop.specialpath != nullptr && i < servers.num; ++i) {
        const int special = check_special(rscname, prop, servers, i);
        if (special == CHK_UNREADABLE) {
            return CHK_UNREADABLE;
        }
        result |= special;
    }
    return result;
}

int read_int(const char *path, int *value)
{
    const int ret = read_config_int(path, value);
    return ret == QOR_XMLERR_SUCCESS ? CHK_PASSED : unreadable(numeric_name, path, QOR_XMLTYPE_INT, ret);
}

/// The values that a parameter may have.
struct bounds {
    int minimum = 0;
    int maximum = 1;
    bool known = true; ///< false: the policy's type tag makes no sense, so nothing is checked
};

/// Reads a parameter's bounds from the policy.
int read_bounds(const char *index, bounds *limits)
{
    if (index == nullptr) {
        return CHK_PASSED;
    }
    char path[PATH_SIZE];
    fill_path(path, "/root/resource/fip/param%s/type", {index});
    int tag = 0;
    int ret = read_int(path, &tag);
    if (ret != CHK_PASSED || tag == TAG_FLAG || tag == TAG_SWITCH) {
        return ret;
    }
    if (tag != TAG_BOUNDS) {
        TRACE_AS(numeric_name, TRACE_ERROR, "Value of type tag %s is invalid. (value=%d)", path, tag);
        limits->known = false;
        return CHK_PASSED;
    }
    fill_path(path, "/root/resource/fip/param%s/minimum", {index});
    ret = read_int(path, &limits->minimum);
    if (ret != CHK_PASSED) {
        return ret;
    }
    fill_path(path, "/root/resource/fip/param%s/maximum", {index});
    return read_int(path, &limits->maximum);
}

int check_numeric_value(const char *rscname, const numeric_param &param, int index)
{
    char path[PATH_SIZE];
    fill_path(path, param.path, {rscname});
    int value = 0;
    int ret = read_int(path, &value);
    if (ret != CHK_PASSED) {
        return ret;
    }
    bounds limits;
    ret = read_bounds(param.index, &limits);
    if (ret != CHK_PASSED || !limits.known) {
        return ret;
    }
    if (value >= limits.minimum && value <= limits.maximum) {
        TRACE_AS(numeric_name, TRACE_DEBUG, "Value of %s is %d.", param.name, value);
        return CHK_PASSED;
    }
    chk_log_write(CHK_LEVEL_ERROR, index, logtbl[CHK_ID_RANGE_ERR].msg, param.name, value);
    return CHK_FINDING;
}

} // namespace

int check_properties(const char *rscname, const property *properties, int num)
{
    name_list servers;
    int result = list_servers(&servers);
    for (int i = 0; i < num && result != CHK_UNREADABLE; ++i) {
        const int checked = check_property(rscname, properties[i], servers);
        result = checked == CHK_UNREADABLE ? checked : result | checked;
    }
    return result;
}

int check_numeric_values(const char *rscname, const numeric_param *params, int num, int index)
{
    int result = CHK_PASSED;
    for (int i = 0; i < num && result != CHK_UNREADABLE; ++i) {
        const int checked = check_numeric_value(rscname, params[i], index);
        result = checked == CHK_UNREADABLE ? checked : result | checked;
    }
    return result;
}
