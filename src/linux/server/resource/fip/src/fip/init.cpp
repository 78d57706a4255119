#include "init.h"

#include "../fip.h"
#include "build_stamp.h"
#include "config.h"
#include "trace_setup.h"
#include "trace_source.h"

#include <cstdio>
#include <unistd.h>

namespace
{

constexpr char revision[] = "$Revision: 4 $";
constexpr char revision_date[] = "$Date: 11/03/24 10:03 $";

} // namespace

void fip_trace_build(const char *opening)
{
    TRACE_AS("main", TRACE_INFO, "%s %s %s, MAKE: %s %s", opening, revision, revision_date, build_date,
             build_time);
}

int fip_init()
{
    const uid_t uid = geteuid();
    if (uid != 0) {
        TRACE(TRACE_ERROR, "Not root. (uid=%d)", static_cast<int>(uid));
        fip_set_message("User was not superuser.");
        return FIP_ERR_NOTROOT;
    }
    TRACE(TRACE_DEBUG, "user: root");
    const int ret = fip_xml_init();
    return ret != FIP_SUCCESS ? ret : fip_log_init();
}

void fip_usage()
{
    printf("usage: qorfip --add -a ipaddress[/subnet] [-i interface]\n"
           "              --del -a ipaddress\n");
}

void fip_tell_usage()
{
    fputs(
        "usage: qorfip --active | --deactive | --dactive | --ddeactive -r RESOURCE -g GROUP\n"
        "       qorfip --add -a ADDRESS[/BITS][%INTERFACE[:ALIAS]] [-i INTERFACE] [-r RESOURCE] [-g GROUP]\n"
        "       qorfip --del -a ADDRESS [-r RESOURCE] [-g GROUP]\n"
        "       qorfip --test RESOURCE\n",
        stderr);
}
