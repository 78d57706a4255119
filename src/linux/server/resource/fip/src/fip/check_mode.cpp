#include "check_mode.h"

#include "../chklog.h"
#include "../fip.h"
#include "../text.h"
#include "conf_check.h"
#include "config.h"
#include "init.h"
#include "trace_source.h"

#include <cstring>

namespace
{

constexpr char self[] = "main";
constexpr char resource_type[] = "fip";

bool read_path(const char *type, const char *path, char (&value)[FIP_PATH_SIZE])
{
    int size = sizeof(value);
    const int ret = fip_xml_get_path(type, path, value, &size);
    if (ret != FIP_SUCCESS) {
        TRACE_AS(self, TRACE_ERROR, "fip_xml_get_path() failed. (ret=%d)", ret);
    }
    return ret == FIP_SUCCESS;
}

/// Names the check log: both halves of its name come from the policies.
bool name_check_log()
{
    char home[FIP_PATH_SIZE] = "";
    if (!read_path("cluster", "/root/cluster/check/rdrctpath", rdrctpath) ||
        !read_path("all", "/root/all/path", home)) {
        return false;
    }
    if (!format_text(rdrctfile, sizeof(rdrctfile), "%s/%s", home, rdrctpath)) {
        rdrctfile[0] = '\0'; // cut, it could be another file; with none the block goes to the trace log
    }
    TRACE_AS(self, TRACE_DEBUG, "redirect file for configuration check : %s", rdrctfile);
    return true;
}

/// Opens the check log. @return 0, or CHECK_FAILED: the run goes on, into the trace log
int open_check_log(const char *rscname)
{
    const int ret = chk_log_init(resource_type, rscname, rdrctfile);
    if (ret != 0) {
        TRACE_AS(self, TRACE_ERROR, "chk_log_init() faild. (ret=%d)", ret);
        return CHECK_FAILED;
    }
    return 0;
}

int refuse_arguments()
{
    open_check_log("");
    chk_log_row(CHK_LEVEL_ERROR, CHK_ID_ARG_ERR);
    static_cast<void>(chk_log_term(resource_type, ""));
    return CHECK_FAILED;
}

int check_resource(const char *rscname)
{
    int result = open_check_log(rscname);
    if (fip_conf_check(rscname) == 0) {
        result |= chk_log_row(CHK_LEVEL_INFO, CHK_ID_SUCCESS);
    } else {
        result = CHECK_FAILED;
    }
    return result | chk_log_term(resource_type, rscname);
}

} // namespace

bool fip_is_check_mode(int argc, char **argv)
{
    return argc > 1 && strcasecmp(argv[1], "--test") == 0;
}

int fip_check_mode(int argc, char **argv)
{
    if (fip_init() != FIP_SUCCESS) {
        return CHECK_FAILED;
    }
    fip_trace_build("fip rsc configuration check.");
    if (!name_check_log()) {
        return CHECK_FAILED;
    }
    return argc == 3 && fip_is_resource_name(argv[2]) ? check_resource(argv[2]) : refuse_arguments();
}
