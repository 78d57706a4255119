#include "trace_setup.h"

#include "../config_value.h"
#include "../fip.h"
#include "../tracersc.h"

#include "qorxml.h"

namespace
{

constexpr int default_level = TRACE_INFO;
constexpr int default_size = 1'000'000; // bytes

int read_int(const char *path, int otherwise)
{
    int value = 0;
    return read_config_int(path, &value) == QOR_XMLERR_SUCCESS ? value : otherwise;
}

} // namespace

int fip_log_init()
{
    if (xmlconflag == 0) {
        return FIP_SUCCESS;
    }
    if (xmllib_load_policy("fip") != QOR_XMLERR_SUCCESS) {
        return fip_internal_error(FIP_ERR_POLICY);
    }
    const int level = read_int("/root/fip/log/level", default_level);
    const int size = read_int("/root/fip/log/size", default_size);
    static_cast<void>(xmllib_unload_policy("fip"));
    traceopen("fip", level, size, nullptr);
    ++loginiflag;
    return FIP_SUCCESS;
}

int fip_log_term()
{
    if (loginiflag >= 1) {
        traceclose();
        --loginiflag;
    }
    return FIP_SUCCESS;
}
