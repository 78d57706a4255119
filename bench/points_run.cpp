#include "points_run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <linux/futex.h>
#include <map>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int limit_s = 30; // for a run; the agent's own limits end far below
constexpr int settle_s = 3; // in which a command of a killed run must be gone
constexpr int poll_us = 1000;

volatile sig_atomic_t is_late = 0;

/// A thread or process of the run.
struct task {
    int error = 0;             ///< what the call that it is in will give
    bool stepping = false;     ///< it is stopped behind every instruction
    std::uint64_t lock_at = 0; ///< where the record lock is that it asks for
};

struct tracer {
    const disturbance &wanted;
    pid_t main = 0;
    bool executed = false; ///< the program itself runs
    bool in_main = false;  ///< the loader and the constructors are done
    long count = 0;        ///< calls until now
    long locks = 0;        ///< writer's locks that it was given
    std::map<long, long> turns = {};
    std::map<pid_t, task> tasks = {};
    outcome result = {};
};

double now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// A text of the traced task.
std::string text_at(pid_t pid, unsigned long address)
{
    char text[512] = "";
    std::ifstream memory("/proc/" + std::to_string(pid) + "/mem", std::ios::binary);
    memory.seekg(static_cast<std::streamoff>(address));
    memory.read(text, sizeof(text) - 1);
    return text;
}

std::string link_text(const std::string &path)
{
    char text[512] = "";
    return readlink(path.c_str(), text, sizeof(text) - 1) < 0 ? "" : text;
}

// Where a call has the name, or the descriptor, of its file.
constexpr long by_second_name[] = {SYS_openat, SYS_newfstatat};
constexpr long by_name[] = {SYS_execve, SYS_access, SYS_mkdir, SYS_rename, SYS_unlink};
constexpr long by_descriptor[] = {SYS_read,      SYS_write,      SYS_pread64, SYS_pwrite64, SYS_close,
                                  SYS_lseek,     SYS_fcntl,      SYS_flock,   SYS_ioctl,    SYS_fallocate,
                                  SYS_ftruncate, SYS_newfstatat, SYS_sendto,  SYS_bind,     SYS_recvmsg,
                                  SYS_fstat,     SYS_setsockopt};

/// The file that a call is about, if any. What a name holds of this run's place and time is dropped.
std::string about(pid_t pid, long number, const std::uint64_t *args)
{
    const auto is_in = [&](const auto &list) { return std::ranges::find(list, number) != std::end(list); };
    std::string text = is_in(by_second_name) ? text_at(pid, args[1])
                       : is_in(by_name)      ? text_at(pid, args[0])
                                             : "";
    if (text.empty() && (is_in(by_descriptor) || number == SYS_mmap)) {
        const auto descriptor = static_cast<int>(args[number == SYS_mmap ? 4 : 0]);
        text = link_text("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor));
    }
    const std::string home =
        std::string(getenv("QOR_HOME")) + "/"; // NOLINT(concurrency-mt-unsafe): one thread
    if (text.starts_with(home)) {
        text.erase(0, home.size());
    }
    const std::string process = "/proc/" + std::to_string(pid) + "/";
    if (text.starts_with(process)) {
        text.replace(0, process.size(), "/proc/self/");
    }
    return text.substr(0, text.find(":[")); // "socket:[12345]"
}

unsigned long telling_argument(long number, const std::uint64_t *args)
{
    return args[number == SYS_openat ? 2 : 1];
}

bool is_waiting(long number, const std::uint64_t *args)
{
    const auto operation = args[1] & FUTEX_CMD_MASK;
    return number != SYS_futex || operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET;
}

/// Keeps the call that the task enters from being made as it was asked for.
void spoil(tracer *run, pid_t pid, long number)
{
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    if (run->wanted.what == fault::cut) {
        registers.rdx = registers.rdx > 1 ? registers.rdx / 2 : registers.rdx;
    } else if (number == SYS_brk) {
        registers.rdi = 0;
    } else {
        run->tasks[pid].error = run->wanted.error;
        if (number != SYS_close) {
            registers.orig_rax = static_cast<unsigned long long>(-1);
        }
    }
    ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}

void hit(tracer *run, pid_t pid, long number, const std::uint64_t *args)
{
    if (!run->result.hit) {
        run->result.about = about(pid, number, args);
    }
    run->result.hit = true;
    if (run->wanted.what == fault::kill) {
        kill(run->main, SIGKILL);
    } else {
        spoil(run, pid, number);
    }
}

void enter(tracer *run, pid_t pid, long number, const std::uint64_t *args)
{
    run->tasks[pid] = {};
    if (number == SYS_fcntl && args[1] == F_SETLK) {
        run->tasks[pid].lock_at = args[2];
    }
    // main() begins with the dispositions of signals, which nobody touches before it.
    run->in_main = run->in_main || number == SYS_rt_sigaction;
    if (!is_waiting(number, args)) {
        return;
    }
    ++run->count;
    const long turn = run->in_main ? ++run->turns[number] : 0;
    const disturbance &wanted = run->wanted;
    if (wanted.what == fault::list) {
        run->result.calls.push_back({number, turn, telling_argument(number, args), about(pid, number, args)});
    } else if (wanted.what == fault::step) {
        return;
    } else if (wanted.what == fault::kill ? run->count == wanted.turn
                                          : number == wanted.number && turn != 0 &&
                                                (turn == wanted.turn || (wanted.on && turn > wanted.turn))) {
        hit(run, pid, number, args);
    }
}

void leave(tracer *run, pid_t pid, bool succeeds)
{
    task *now = &run->tasks[pid];
    if (run->wanted.what == fault::step && now->lock_at != 0 && succeeds) {
        errno = 0;
        const long type = ptrace(PTRACE_PEEKDATA, pid, now->lock_at, nullptr) & 0xffff;
        now->stepping = errno == 0 && type == F_WRLCK && ++run->locks == run->wanted.number;
    }
    int &error = now->error;
    if (error != 0) {
        user_regs_struct registers = {};
        ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
        registers.rax = static_cast<unsigned long long>(-error);
        ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
        if (error == EPIPE || error == EFBIG) { // the kernel does not leave it at the errno
            syscall(SYS_tkill, pid, error == EPIPE ? SIGPIPE : SIGXFSZ);
        }
        error = 0;
    }
}

/// Counts an instruction that a task made while it held the lock. In front of the next call that ends.
void step(tracer *run, pid_t pid)
{
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    const long code = ptrace(PTRACE_PEEKTEXT, pid, registers.rip, nullptr) & 0xffff;
    run->tasks[pid].stepping = code != 0x050f; // syscall
    if (++run->result.steps == run->wanted.turn) {
        run->result.hit = true;
        kill(run->main, SIGKILL);
    }
}

/// Serves a stop of a task, and lets it go on to its next call.
void serve(tracer *run, pid_t pid, int status)
{
    const int event = status >> 16;
    int signal = event == 0 ? WSTOPSIG(status) : 0;
    if (event == PTRACE_EVENT_EXEC && (pid != run->main || run->executed)) {
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr); // a command
        return;
    }
    if (event == PTRACE_EVENT_EXEC) {
        run->executed = true;
    } else if (signal == (SIGTRAP | 0x80)) {
        signal = 0;
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY && run->executed) {
            enter(run, pid, static_cast<long>(info.entry.nr), info.entry.args);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
            leave(run, pid, info.exit.is_error == 0);
        }
    } else if (signal == SIGTRAP && run->tasks[pid].stepping) {
        signal = 0;
        step(run, pid);
    }
    ptrace(run->tasks[pid].stepping ? PTRACE_SINGLESTEP : PTRACE_SYSCALL, pid, nullptr, signal);
}

/// Kills what the run left behind. @return how many processes that were
int kill_orphans()
{
    const std::string self = std::to_string(getpid());
    int killed = 0;
    for (;;) {
        std::ifstream children("/proc/" + self + "/task/" + self + "/children");
        for (pid_t pid = 0; children >> pid; ++killed) {
            kill(pid, SIGKILL);
        }
        if (waitpid(-1, nullptr, __WALL) < 0) {
            return killed;
        }
    }
}

/// Waits for all that the run is made of.
void attend(tracer *run)
{
    double end = 0;
    for (;;) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, __WALL | (end > 0 ? WNOHANG : 0));
        if (pid > 0 && WIFSTOPPED(status)) {
            serve(run, pid, status);
        } else if (pid == run->main) {
            run->result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            end = now();
        } else if (pid == 0 && now() > end + settle_s) {
            run->result.orphans = kill_orphans();
        } else if (pid == 0) {
            usleep(poll_us);
        } else if (pid < 0 && errno != EINTR) {
            return;
        } else if (is_late && end == 0) {
            run->result.late = true;
            kill(run->main, SIGKILL);
        }
    }
}

/// The child's side: waits for leave to begin, and becomes the program.
[[noreturn]] void become(const std::vector<std::string> &argv, const disturbance &wanted, int leave_to_begin)
{
    for (const std::string &pair : wanted.environment) {
        putenv(strdup(pair.c_str())); // NOLINT(concurrency-mt-unsafe): one thread
    }
    std::vector<char *> args;
    for (const std::string &argument : argv) {
        args.push_back(const_cast<char *>(argument.c_str()));
    }
    args.push_back(nullptr);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    const int output = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    char byte = 0;
    if (read(leave_to_begin, &byte, 1) == 1) {
        execv(args[0], args.data());
    }
    _exit(127);
}

void limit_time(int seconds)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { is_late = 1; };
    sigaction(SIGALRM, &action, nullptr);
    is_late = 0;
    // Again and again, for the first may come between two waits.
    const itimerval timer = {{seconds != 0 ? 1 : 0, 0}, {seconds, 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace

outcome run_disturbed(const std::vector<std::string> &argv, const disturbance &wanted)
{
    tracer run{wanted};
    int gate[2];
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || pipe2(gate, O_CLOEXEC) != 0 || (run.main = fork()) < 0) {
        perror("points");
        exit(2);
    }
    if (run.main == 0) {
        become(argv, wanted, gate[0]);
    }
    const auto options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                         PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (wanted.what != fault::none && ptrace(PTRACE_SEIZE, run.main, nullptr, options) != 0) {
        perror("points: ptrace");
        exit(2);
    }
    limit_time(limit_s);
    if (write(gate[1], "", 1) != 1) {
        exit(2);
    }
    close(gate[0]);
    close(gate[1]);
    attend(&run);
    limit_time(0);
    return run.result;
}
