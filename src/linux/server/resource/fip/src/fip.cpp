#include "fip.h"

#include "command.h"
#include "nocancel.h"
#include "tracersc.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

int actflag = -1;
int nomuseflag = 0;
int dynamicflag = 0;
int ipv6flag = 0;
int fullnotation = 0;

FIP_PRACTICE practice;

char inspath[FIP_PATH_SIZE];
char rdrctpath[FIP_PATH_SIZE];
char rdrctfile[FIP_PATH_SIZE];

void *hchkconf = nullptr;

int shmrmflag = 0;
int shmnmflag = 0;
int semflag = 0;
int sementifflag = 0;
int xmliniflag = 0;
int xmlconflag = 0;
int loginiflag = 0;

std::atomic<int> ifconfthend{0};
std::atomic<int> actthend{0};

char shmbuf[FIP_SHMBUF_SIZE];

void fip_set_message(const char *fmt, ...)
{
    static std::mutex message_lock;
    const nocancel guard;
    const std::lock_guard<std::mutex> lock(message_lock);
    va_list args;
    va_start(args, fmt);
    vsnprintf(shmbuf, sizeof(shmbuf), fmt, args);
    va_end(args);
}

int fip_internal_error(int code)
{
    fip_set_message("Internal error. (status=%d)", code);
    return code;
}

const char *fip_code_text(int code)
{
    switch (code) {
    case FIP_ERR_TOOL:
        return "The ping tool failed.";
    case FIP_ERR_STATUS:
        return "ifconfig failed.";
    case FIP_ERR_OPTION:
        return "The command line is wrong.";
    case FIP_ERR_NOTROOT:
        return "Only root can do this.";
    case FIP_ERR_XMLINIT:
        return "The configuration library did not start.";
    case FIP_ERR_XMLCONF:
        return "The configuration cannot be loaded: it is missing, not well-formed, or others than root may "
               "write it.";
    case FIP_ERR_POLICY:
        return "A policy cannot be loaded.";
    case FIP_ERR_ADDRESS:
        return "The configuration gives the resource no address.";
    case FIP_ERR_MEMORY:
        return "There is no memory.";
    case FIP_ERR_ABNORMAL:
        return "A command could not be run to its end.";
    case FIP_ERR_POPEN:
        return "A command could not be started.";
    case FIP_ERR_NOTOOL:
        return "There is no ping tool where ping/path says.";
    case FIP_ERR_MACADDR:
        return "ifconfig prints a hardware address that is none.";
    case FIP_ERR_SOCKET:
        return "There is no socket for the link check.";
    case FIP_ERR_THREAD:
        return "A thread could not be started.";
    case FIP_ERR_TIMEOUT:
        return "ifconfig did not end in time.";
    case FIP_ERR_CHECKIF:
        return "The address is still here after its removal.";
    case FIP_ERR_CHECKPING:
        return "The address still answers after its removal.";
    case FIP_ERR_ALIAS:
        return "The configured alias is taken.";
    case FIP_ERR_IPFORMAT:
        return "The address is none.";
    case FIP_ERR_IFNAME:
        return "The interface or the alias in the address is wrong.";
    case FIP_ERR_MASK:
        return "The bits in the address are wrong.";
    case FIP_ERR_VALUE:
        return "A policy lacks a path.";
    case FIP_ERR_HOSTNAME:
        return "The host name cannot be read.";
    default:
        return nullptr;
    }
}

int fip_out_of_memory()
{
    trace(TRACE_ERROR, "src/fip.c", __LINE__, __func__, "No memory. (errno=%d)", errno);
    return fip_internal_error(FIP_ERR_MEMORY);
}

int fip_command_abnormal(const char *line, int error)
{
    fip_set_message("Command failed. (%s(%s), errno=%d)", "pclose", line, error);
    return FIP_ERR_ABNORMAL;
}

int fip_close_command(const char *self, command *cmd, const char *line)
{
    const command_result result = command_close_traced(cmd, line, "src/fip.c", self, TRACE_DEBUG);
    switch (result.end) {
    case command_result::ABNORMAL:
        return fip_command_abnormal(line, result.code);
    case command_result::FAILED:
        fip_set_message("Command failed. (%s, ret=%d)", line, result.code);
        return FIP_ERR_STATUS;
    case command_result::SUCCEEDED:
        break;
    }
    return FIP_SUCCESS;
}

int fip_run_bounded(const worker_texts &texts, const FIP_INFO &info, worker_entry entry,
                    const std::shared_ptr<void> &block, std::atomic<int> *endflag)
{
    const worker_limits limits = {info.checkstime, info.checkloopc};
    switch (worker_run(texts, limits, entry, block, endflag, nullptr)) {
    case WORKER_NOT_STARTED:
        return fip_internal_error(FIP_ERR_THREAD);
    case WORKER_LATE:
        return fip_internal_error(FIP_ERR_TIMEOUT);
    case WORKER_NO_MEMORY:
        return fip_out_of_memory();
    case WORKER_IN_TIME:
        break;
    }
    return FIP_SUCCESS;
}

bool fip_is_resource_name(const char *text)
{
    return strchr(text, '/') == nullptr;
}

void fip_pause(int seconds)
{
    timespec left = {seconds > 0 ? seconds : 0, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
