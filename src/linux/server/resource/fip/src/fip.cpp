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
