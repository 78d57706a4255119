/// The agent's entry: command line, run mode, the run, and the exit sequence that every path ends in.

#include "../fip.h"
#include "../nicIfconfig.h"
#include "../text.h"
#include "../worker.h"
#include "activate.h"
#include "address_text.h"
#include "arp.h"
#include "check_mode.h"
#include "conf_check.h"
#include "config.h"
#include "deactivate.h"
#include "init.h"
#include "suite_state.h"
#include "trace_setup.h"
#include "trace_source.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unistd.h>

namespace
{

/// Arguments, the program's name included, below which a command line can't be complete.
constexpr int min_argc = 4;

using record = std::unique_ptr<FIP_INFO>;

/// What a mode keyword asks for.
struct run_mode {
    const char *keyword;
    int actflag;
    int nomuseflag;
    int dynamicflag;
};

constexpr run_mode modes[] = {
    {"--active", 0, 0, 0},    {"--deactive", 1, 0, 0}, {"--dactive", 0, 0, 1},
    {"--ddeactive", 1, 0, 1}, {"--add", 0, 1, 0},      {"--del", 1, 1, 0},
};

int invalid_option()
{
    fip_set_message("Option was invalid.");
    return FIP_ERR_OPTION;
}

int invalid_argc(int argc)
{
    TRACE_AS("main", TRACE_ERROR, "Invalid option. (argc=%d)", argc);
    return invalid_option();
}

int allocate_record(record *info)
{
    info->reset(new (std::nothrow) FIP_INFO{});
    if (!*info) {
        TRACE_AS("main", TRACE_ERROR, "malloc(%d) failed. (errno=%d)", static_cast<int>(sizeof(FIP_INFO)),
                 errno);
        return fip_internal_error(FIP_ERR_MEMORY);
    }
    TRACE_AS("main", TRACE_DEBUG, "malloc(%d) succeeded.", static_cast<int>(sizeof(FIP_INFO)));
    return FIP_SUCCESS;
}

int choose_mode(const char *keyword)
{
    for (const run_mode &mode : modes) {
        if (strcasecmp(keyword, mode.keyword) == 0) {
            actflag = mode.actflag;
            nomuseflag = mode.nomuseflag;
            dynamicflag = mode.dynamicflag;
            return FIP_SUCCESS;
        }
    }
    TRACE_AS("main", TRACE_ERROR, "Invalid option.");
    return invalid_option();
}

/// One option that takes a value, and the field that holds it.
struct option {
    const char *name;
    char *field;
    std::size_t size;
};

/// Walks the options behind the mode keyword. A value that does not fit its field is refused: cut, it would
/// name another resource, interface or address.
int read_options(int argc, char **argv, FIP_INFO *info, char (&address)[FIP_ADDRARG_SIZE])
{
    const option options[] = {
        {"-r", info->rscname, sizeof(info->rscname)},
        {"-g", info->grpname, sizeof(info->grpname)},
        {"-a", address, sizeof(address)},
        {"-i", info->ifname, sizeof(info->ifname)},
    };
    for (int i = 2; i < argc; ++i) {
        const option *found = nullptr;
        for (const option &known : options) {
            if (strcasecmp(argv[i], known.name) == 0) {
                found = &known;
            }
        }
        if (found == nullptr) {
            TRACE_AS("main", TRACE_WARNING, "Invalid option. (argv[i] : %s)", argv[i]);
            continue;
        }
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value == nullptr || value[0] == '-' || strlen(value) >= found->size ||
            (found->field == info->rscname && !fip_is_resource_name(value))) {
            TRACE_AS("main", TRACE_ERROR, "Invalid option. (%s ?)", found->name);
            return invalid_option();
        }
        copy_text(found->field, found->size, value);
        ++i;
    }
    return FIP_SUCCESS;
}

/// Address modes: takes the -a value apart.
int check_address(const char *address, FIP_INFO *info)
{
    if (address[0] == '\0') {
        return FIP_ERR_OPTION;
    }
    fip_ipck(address);
    const int ret = fip_div_ipmask(address, info->addr, info->mask, &info->masklen, info->ifname);
    if (ret != FIP_SUCCESS) {
        TRACE_AS("main", TRACE_ERROR, "fip_div_ipmask failed. (ret=%d)", ret);
    }
    return ret;
}

/// Resource modes: both names must be there.
int check_names(const FIP_INFO &info)
{
    if (info.rscname[0] == '\0' || info.grpname[0] == '\0') {
        TRACE_AS("main", TRACE_ERROR, "Invalid option.");
        return invalid_option();
    }
    TRACE_AS("main", TRACE_INFO, actflag == 1 ? "deactive rsc:%s, grp:%s" : "active   rsc:%s, grp:%s",
             info.rscname, info.grpname);
    tracetell(info.rscname);
    return FIP_SUCCESS;
}

/// Fills the record from the command line.
int parse_command_line(int argc, char **argv, FIP_INFO *info)
{
    int ret = choose_mode(argv[1]);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    char address[FIP_ADDRARG_SIZE] = "";
    ret = read_options(argc, argv, info, address);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    return nomuseflag != 0 ? check_address(address, info) : check_names(*info);
}

/// Fills the record from the configuration: in the dynamic update modes from the one under check.
int configure(FIP_INFO *info)
{
    if (dynamicflag != 0) {
        TRACE_AS("main", TRACE_INFO, "Run with dynamic update mode.");
        const int load_ret = fip_load_chkconf();
        if (load_ret != 0) {
            TRACE_AS("main", TRACE_ERROR, "fip_load_chkconf() failed. (ret=%d)", load_ret);
            return load_ret;
        }
    }
    const int ret = fip_xml_get_config(info);
    if (ret != FIP_SUCCESS) {
        TRACE_AS("main", TRACE_ERROR, "fip_xml_get_config(%p) failed. (ret=%d)", static_cast<void *>(info),
                 ret);
        return ret;
    }
    TRACE_AS("main", TRACE_DEBUG, "fip_xml_get_config(%p) succeeded.", static_cast<void *>(info));
    return FIP_SUCCESS;
}

/// Decides whether the ifconfig command is used. A failure leaves the kernel interfaces.
void choose_source(const FIP_INFO &info)
{
    const int ret = nic_chk_isifconfig(&IsIfconfig, info.ifconfuse, info.ifconftout);
    if (ret != NIC_SUCCESS) {
        TRACE_AS("main", TRACE_ERROR, "nic_chk_isifconfig() failed. (ret=%d)", ret);
    } else {
        TRACE_AS("main", TRACE_DEBUG, "nic_chk_isifconfig() succeeded.");
    }
}

int run_sequence(FIP_INFO *info)
{
    switch (actflag) {
    case 0:
        return fip_start_act(info);
    case 1:
        return fip_start_deact(info);
    default:
        return fip_internal_error(FIP_ERR_INTERNAL);
    }
}

/// Serves the request of the command line. @return the exit code
int run(int argc, char **argv, record *info)
{
    if (argc <= 1) {
        return invalid_argc(argc);
    }
    int ret = fip_init();
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    fip_trace_build("fip rsc starting.");
    fip_shmrm_attach();
    fip_shmnm_attach();
    fip_sem_attach();

    ret = allocate_record(info);
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    if (argc < min_argc) {
        return invalid_argc(argc);
    }
    TRACE_AS("main", TRACE_DEBUG, "argc=%d", argc);
    ret = parse_command_line(argc, argv, info->get());
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    ret = configure(info->get());
    if (ret != FIP_SUCCESS) {
        return ret;
    }
    choose_source(**info);
    return run_sequence(info->get());
}

/// What came of the run, for a person: the message, unless the code's words say more. An empty message is
/// filed as a success, whatever the code is.
void describe(int code, bool check, char (&text)[FIP_PATH_SIZE])
{
    if (check && code == FIP_SUCCESS) {
        copy_text(text, "The check passed.");
    } else if (rdrctfile[0] != '\0') { // the check has named its log
        format_text(text, sizeof(text), "The check did not pass: see %s", rdrctfile);
    } else if (code == FIP_SUCCESS) {
        copy_text(text, shmbuf[0] != '\0' ? shmbuf : "Success.");
    } else if (const char *words = fip_code_text(code);
               words != nullptr &&
               (shmbuf[0] == '\0' || std::string_view(shmbuf).starts_with("Internal error."))) {
        copy_text(text, words);
    } else {
        copy_text(text, shmbuf[0] != '\0' ? shmbuf : "The run failed: see the trace log.");
    }
}

/// Tells it at a terminal; the resource manager reads what was filed. What came from outside must not command
/// the terminal.
void tell_person(int code, bool usage, char *text)
{
    if (isatty(STDERR_FILENO) == 0) {
        return;
    }
    if (usage) {
        fip_tell_usage();
    }
    for (char *c = text; *c != '\0'; ++c) {
        *c = *c >= ' ' && *c <= '~' ? *c : '?';
    }
    if (code == FIP_SUCCESS) {
        fprintf(stderr, "qorfip: %s\n", text);
    } else {
        fprintf(stderr, "qorfip: %s (exit status %d, see qorfip(8))\n", text, code);
    }
}

/// Reports, releases everything in the reverse order of its start, and closes the trace log, unless a worker
/// was left behind that may still use it.
void finish(int code, record *info)
{
    fip_shmrm_setdescript(*info ? (*info)->rscname : "", *info ? (*info)->grpname : "");
    info->reset();
    fip_unload_chkconf();
    fip_sem_detach();
    fip_shmnm_detach();
    fip_shmrm_detach();
    fip_xml_term();
    TRACE_AS("main", TRACE_INFO, "return(ret=%d)", code);
    if (!worker_left_behind()) {
        fip_log_term();
    }
}

} // namespace

int main(int argc, char **argv)
{
    // Inherited as ignored, it would make every command's end unknown.
    signal(SIGCHLD, SIG_DFL);
    // A log that must not grow, or a check log whose reader is gone, is told of by the write: neither may end
    // a run in the middle. Commands start with the default again.
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    record info;
    const bool check = fip_is_check_mode(argc, argv);
    int code =
        fip_bound_memory([=, &info] { return check ? fip_check_mode(argc, argv) : run(argc, argv, &info); });
    if (check && code != FIP_SUCCESS) {
        code = CHECK_FAILED;
    }
    char text[FIP_PATH_SIZE];
    describe(code, check, text); // before the message is filed: an empty one becomes "Success." then
    finish(code, &info);
    // Nothing is held any more, should the terminal have been stopped.
    tell_person(code, check ? argc != 3 : code == FIP_ERR_OPTION, text);
    if (worker_left_behind()) {
        _exit(code);
    }
    fip_close_arp();
    return code;
}
