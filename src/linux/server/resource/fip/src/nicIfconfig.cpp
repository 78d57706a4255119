// Which layout ifconfig prints: the older one can be parsed, and then the command is used for everything.

#include "nicIfconfig.h"
#include "command.h"
#include "text.h"
#include "tracersc.h"
#include "worker.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

int IsIfconfig = 1; // until fip/main has had it decided, before anything reads it
std::atomic<int> nic_actthend{0};

namespace
{

constexpr char trace_source[] = "src/nicCommon.c";

constexpr char which_command[] = "which ifconfig > /dev/null 2>&1";
constexpr char ifconfig_command[] = "ifconfig -a";

/// Sleeps of the wait for the detection: 100 of them make a second.
constexpr std::int64_t detection_poll_us = 10'000;
constexpr std::int64_t detection_polls_per_s = 100;

constexpr char separators[] = " \t\n";

/// Looks for ifconfig on the search path. 0, NIC_ERR_WHICH or NIC_ERR_ABSENT.
int find_ifconfig(const char *self)
{
    const command_result result = command_judge(command_run(which_command, COMMAND_NO_LIMIT));
    switch (result.end) {
    case command_result::ABNORMAL:
        TRACE_AS(self, TRACE_ERROR, "system(%s) failed. (ret=%d)", which_command, 0);
        return NIC_ERR_WHICH;
    case command_result::FAILED:
        TRACE_AS(self, TRACE_ERROR, "%s failed,ifconfig does not exist.(ret=%d)", which_command, result.code);
        return NIC_ERR_ABSENT;
    case command_result::SUCCEEDED:
        break;
    }
    TRACE_AS(self, TRACE_INFO, "%s succeeded.", which_command);
    return NIC_SUCCESS;
}

/// Reads the command's output until a line decides.
nic_layout read_layout(command *cmd)
{
    char line[1024];
    while (command_read_line(cmd, line, sizeof(line), nullptr) > 0) {
        fip_chop(line);
        const nic_layout layout = nic_scan_layout(line);
        if (layout != NIC_LAYOUT_OPEN) {
            return layout;
        }
    }
    return NIC_LAYOUT_OPEN;
}

int detect(const char *self)
{
    const int ret = find_ifconfig(self);
    if (ret != NIC_SUCCESS) {
        return ret;
    }
    command cmd;
    if (command_open(&cmd, ifconfig_command, COMMAND_NO_LIMIT) != 0) {
        TRACE_AS(self, TRACE_ERROR, "popen(%s, 'r') failed. (errno=%d)", ifconfig_command, errno);
        return NIC_ERR_OPEN;
    }
    TRACE_AS(self, TRACE_DEBUG, "popen(%s, 'r') succeeded.", ifconfig_command);
    const bool older = read_layout(&cmd) == NIC_LAYOUT_OLDER;
    if (older) {
        TRACE_AS(self, TRACE_INFO, "parsing succeed,the format of %s is the same as RHEL 6 or previous.",
                 ifconfig_command);
    } else {
        TRACE_AS(self, TRACE_INFO, "parsing failed,the format of %s is the same as RHEL 7.",
                 ifconfig_command);
    }
    // Enough of the output was read to decide, whatever became of the command.
    static_cast<void>(command_close_traced(&cmd, ifconfig_command, trace_source, self, TRACE_DEBUG));
    return older ? NIC_SUCCESS : NIC_ERR_LAYOUT;
}

} // namespace

nic_layout nic_scan_layout(char *line)
{
    const bool header = *line != '\0' && isspace(static_cast<unsigned char>(*line)) == 0;
    const char *token = strsep(&line, separators);
    if (header) {
        if (token[strlen(token) - 1] == ':') {
            return NIC_LAYOUT_NEWER;
        }
        token = strsep(&line, separators);
    }
    for (; token != nullptr; token = strsep(&line, separators)) {
        if (strcasecmp(token, "inet") != 0 && strcasecmp(token, "inet6") != 0) {
            continue;
        }
        token = strsep(&line, separators);
        if (token == nullptr) {
            break;
        }
        if (strncasecmp(token, "addr:", strlen("addr:")) == 0) {
            return NIC_LAYOUT_OLDER;
        }
    }
    return NIC_LAYOUT_OPEN;
}

void *nic_cmd_chk(void *parg)
{
    *static_cast<int *>(parg) = detect(__func__);
    nic_actthend = 1;
    return nullptr;
}

int nic_chk_isifconfig(int *pIsIfconfig, int ifconfuse, int ifconfout)
{
    TRACE(TRACE_DEBUG, "nic_chk_isifconfig()  ENTRY...");
    *pIsIfconfig = 0;
    if (ifconfuse != 0) {
        return NIC_SUCCESS;
    }
    static constexpr worker_texts texts = {
        .pname = trace_source,
        .pfunc = "nic_chk_isifconfig",
        .worker = "nic_cmd_chk",
        .create_failed = "nic_cmd_chk",
        .timeout = "thread timeout nic_cmd_chk.",
        .timeout_code = NIC_ERR_TIMEOUT,
        .always_returned = false,
    };
    const worker_limits limits = {detection_poll_us, ifconfout * detection_polls_per_s};
    const auto chkret = std::make_shared<int>(NIC_ERR_LAYOUT);
    int join_ret = 0;
    switch (worker_run(texts, limits, nic_cmd_chk, chkret, &nic_actthend, &join_ret)) {
    case WORKER_NOT_STARTED:
        return NIC_ERR_THREAD;
    case WORKER_LATE:
        return NIC_ERR_TIMEOUT;
    case WORKER_NO_MEMORY:
        return NIC_ERR_MEMORY;
    case WORKER_IN_TIME:
        break;
    }
    if (*chkret == NIC_SUCCESS) {
        *pIsIfconfig = 1;
        return NIC_SUCCESS;
    }
    return join_ret;
}
