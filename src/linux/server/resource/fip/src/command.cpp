#include "command.h"

#include "tracersc.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace
{

/// Whom this thread tells of its commands.
thread_local running_command *observed = nullptr;

/// Tells of the command that runs from now on, -1 for none.
void tell_observer(pid_t pid)
{
    if (observed != nullptr) {
        const std::lock_guard<std::mutex> lock(observed->mutex);
        observed->pid = pid;
    }
}

/// Reaps a process that has ended, never waiting. From then on its number may be another's: nobody must take
/// it for ours.
pid_t reap(pid_t pid, int *status)
{
    const nocancel guard;
    std::unique_lock<std::mutex> lock;
    if (observed != nullptr) {
        lock = std::unique_lock<std::mutex>(observed->mutex);
        observed->pid = -1;
    }
    return waitpid(pid, status, WNOHANG);
}

long long now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1'000'000;
}

/// Ends the command and everything that it started.
void kill_group(const command &cmd)
{
    kill(-cmd.pid, SIGKILL);
}

/// Waits until `fd` is ready. At the deadline the command is killed.
/// @return false when it was
bool wait_ready(command *cmd, int fd)
{
    while (cmd->deadline != 0) {
        const long long left = cmd->deadline - now_ms();
        if (left <= 0) {
            kill_group(*cmd);
            cmd->deadline = 0;
            return false;
        }
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, left < INT_MAX ? static_cast<int>(left) : INT_MAX);
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            break;
        }
    }
    return true;
}

/// Waits for the end of a command that has a deadline; it does not outlive that.
void await_end(command *cmd)
{
    if (cmd->deadline == 0) {
        return;
    }
    // glibc 2.36 declares pidfd_open(2) without C linkage.
    const unique_fd pidfd(static_cast<int>(syscall(SYS_pidfd_open, cmd->pid, 0)));
    if (pidfd.fd >= 0) {
        static_cast<void>(wait_ready(cmd, pidfd.fd));
        return;
    }
    // No descriptor is left, or the kernel does not know them: look now and then.
    siginfo_t end = {};
    const auto pid = static_cast<id_t>(cmd->pid);
    while (waitid(P_PID, pid, &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid == 0) {
        if (now_ms() >= cmd->deadline) {
            kill_group(*cmd);
            cmd->deadline = 0;
            return;
        }
        usleep(10'000);
    }
}

/// Fills the buffer. @return false at the end of the output, or of the command's time: something that it left
/// running may hold the pipe open for ever
bool fill_buffer(command *cmd)
{
    ssize_t got = -1;
    do {
        if (!wait_ready(cmd, cmd->out.fd)) {
            cmd->out.reset();
            return false;
        }
        got = read(cmd->out.fd, cmd->buf, sizeof(cmd->buf));
    } while (got < 0 && errno == EINTR);
    cmd->have = got > 0 ? static_cast<std::size_t>(got) : 0;
    cmd->from = 0;
    return got > 0;
}

/// What the shell is started with: its own process group, signals as a fresh process has them, no input.
struct spawn_setup {
    spawn_setup()
    {
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_init(&files);
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigfillset(&defaults);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(&attr,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ~spawn_setup()
    {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attr);
    }
    spawn_setup(const spawn_setup &) = delete;
    spawn_setup &operator=(const spawn_setup &) = delete;

    posix_spawnattr_t attr = {};
    posix_spawn_file_actions_t files = {};
};

int start(command *cmd, const char *line, long limit_ms, const spawn_setup &setup)
{
    // The shell makes way for the command: waiting for it, it would turn the signal that ends it into
    // an exit status.
    const std::string exec_line = std::string("exec ") + line;
    const char *argv[] = {"sh", "-c", exec_line.c_str(), nullptr};
    pid_t pid = -1;
    const int ret =
        posix_spawn(&pid, "/bin/sh", &setup.files, &setup.attr, const_cast<char **>(argv), environ);
    if (ret != 0) {
        errno = ret;
        return -1;
    }
    cmd->pid = pid;
    tell_observer(pid);
    cmd->deadline = limit_ms > 0 ? now_ms() + limit_ms : 0;
    return 0;
}

bool is_plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("_-./:,+@%", c) != nullptr);
}

} // namespace

void running_command::end()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (pid > 0) {
        kill(-pid, SIGKILL);
    }
}

command_observer::command_observer(running_command *slot)
{
    observed = slot;
}

command_observer::~command_observer()
{
    observed = nullptr;
}

command::~command()
{
    if (pid > 0) {
        const nocancel guard;
        kill_group(*this);
        reap(pid, nullptr);
    }
}

int command_open(command *cmd, const char *line, long limit_ms)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    cmd->out.reset(ends[0]);
    const unique_fd child_end(ends[1]);
    spawn_setup setup;
    posix_spawn_file_actions_adddup2(&setup.files, child_end.fd, STDOUT_FILENO);
    return start(cmd, line, limit_ms, setup);
}

std::size_t command_read_line(command *cmd, char *line, std::size_t size, bool *cut)
{
    std::size_t len = 0;
    bool over = false;
    char c = '\0';
    while (c != '\n' && (cmd->have > 0 || fill_buffer(cmd))) {
        c = cmd->buf[cmd->from++];
        --cmd->have;
        if (len < size - 1) {
            line[len++] = c;
        } else {
            over = over || c != '\n';
        }
    }
    line[len] = '\0';
    if (cut != nullptr) {
        *cut = over;
    }
    return len;
}

int command_close(command *cmd)
{
    cmd->out.reset();
    if (cmd->pid < 0) {
        errno = ECHILD;
        return -1;
    }
    await_end(cmd);
    siginfo_t end = {};
    int ret = 0;
    do {
        ret = waitid(P_PID, static_cast<id_t>(cmd->pid), &end, WEXITED | WNOWAIT);
    } while (ret != 0 && errno == EINTR);
    if (ret != 0 && errno != ECHILD) {
        return -1; // it may still run: whoever drops it ends it
    }
    int status = 0;
    const pid_t reaped = reap(cmd->pid, &status);
    cmd->pid = -1;
    if (reaped > 0) {
        errno = 0; // what waiting has left says nothing of the command
    }
    return reaped > 0 ? status : -1;
}

command_result command_judge(int status)
{
    if ((status & 0x7f) != 0) {
        return {command_result::ABNORMAL, errno};
    }
    const int code = (status >> 8) & 0xff;
    return {code != 0 ? command_result::FAILED : command_result::SUCCEEDED, code};
}

command_result command_close_traced(command *cmd, const char *line, const char *pname, const char *pfunc,
                                    int success_level)
{
    const command_result result = command_judge(command_close(cmd));
    switch (result.end) {
    case command_result::ABNORMAL:
        trace(TRACE_ERROR, pname, __LINE__, pfunc, "pclose(%s) error. (ret=%d,errno=%d)", line, 0,
              result.code);
        break;
    case command_result::FAILED:
        trace(TRACE_ERROR, pname, __LINE__, pfunc, "%s : failed. (ret=%d)", line, result.code);
        break;
    case command_result::SUCCEEDED:
        trace(success_level, pname, __LINE__, pfunc, "%s : success.", line);
        break;
    }
    return result;
}

int command_run(const char *line, long limit_ms)
{
    command cmd;
    const spawn_setup setup;
    if (start(&cmd, line, limit_ms, setup) != 0) {
        return -1;
    }
    return command_close(&cmd);
}

std::string shell_word(const char *text)
{
    bool plain = *text != '\0';
    for (const char *p = text; *p != '\0'; ++p) {
        plain = plain && is_plain(*p);
    }
    if (plain) {
        return text;
    }
    std::string word = "'";
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == '\'') {
            word += "'\\''";
        } else {
            word += *p;
        }
    }
    return word + "'";
}

std::string shell_in_quotes(const char *text)
{
    std::string quoted;
    for (const char *p = text; *p != '\0'; ++p) {
        if (strchr("$`\"\\", *p) != nullptr) {
            quoted += '\\';
        }
        quoted += *p;
    }
    return quoted;
}
