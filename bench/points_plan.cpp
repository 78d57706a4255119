#include "points_plan.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/syscall.h>

namespace
{

/// How a system call may plausibly fail.
struct failing_call {
    const char *name;
    std::vector<int> once;    ///< errnos of a call that fails alone
    std::vector<int> on = {}; ///< of one that fails with all that follow: a lasting want
    bool cut = false;         ///< it may transfer less than asked for
};

constexpr long creating = 1L << 32; ///< an open that may make its file

const std::map<long, failing_call> failing = {
    {SYS_openat, {"openat", {EMFILE, ENFILE, ENOMEM, EIO, EACCES}, {EMFILE}}},
    {SYS_openat | creating, {"openat", {EMFILE, ENOMEM, EIO, ENOSPC, EROFS, EACCES}, {ENOSPC}}},
    {SYS_newfstatat, {"newfstatat", {EIO, ENOMEM}, {EIO}}},
    {SYS_access, {"access", {EIO, ENOMEM}}},
    {SYS_readlink, {"readlink", {EIO}}},
    {SYS_statfs, {"statfs", {EIO}}},
    {SYS_read, {"read", {EIO, EINTR, ENOMEM}, {EIO}, true}},
    {SYS_pread64, {"pread64", {EIO, EINTR}, {}, true}},
    {SYS_write, {"write", {ENOSPC, EIO, EINTR, EAGAIN, EFBIG, EPIPE}, {ENOSPC, EIO}, true}},
    {SYS_pwrite64, {"pwrite64", {ENOSPC, EIO, EFBIG}, {}, true}},
    {SYS_lseek, {"lseek", {EIO}}},
    {SYS_close, {"close", {EIO, EINTR}}},
    {SYS_fallocate, {"fallocate", {ENOSPC, EIO, EINTR, EOPNOTSUPP, EFBIG}}},
    {SYS_ftruncate, {"ftruncate", {ENOSPC, EIO, EFBIG}}},
    {SYS_rename, {"rename", {ENOSPC, EACCES, EIO}}},
    {SYS_mkdir, {"mkdir", {ENOSPC, EACCES, EEXIST}}},
    {SYS_unlink, {"unlink", {EIO}}},
    {SYS_fcntl, {"fcntl", {EAGAIN, ENOLCK, EINTR, EIO}, {EAGAIN, ENOLCK}}},
    {SYS_flock, {"flock", {EINTR, ENOLCK, EAGAIN}}},
    {SYS_mmap, {"mmap", {ENOMEM}, {ENOMEM}}},
    {SYS_munmap, {"munmap", {ENOMEM}}},
    {SYS_mprotect, {"mprotect", {ENOMEM}}},
    {SYS_madvise, {"madvise", {ENOMEM}}},
    {SYS_brk, {"brk", {ENOMEM}, {ENOMEM}}},
    {SYS_socket, {"socket", {EMFILE, ENOMEM, EPERM, ENOBUFS}, {EMFILE, EPERM}}},
    {SYS_bind, {"bind", {ENOMEM, EPERM}}},
    {SYS_connect, {"connect", {ENOMEM, EPERM}}},
    {SYS_getsockname, {"getsockname", {ENOBUFS}}},
    {SYS_setsockopt, {"setsockopt", {ENOMEM, EPERM}}},
    {SYS_sendto, {"sendto", {ENOBUFS, EINTR, EPERM, EIO, EAGAIN}, {ENOBUFS}}},
    {SYS_recvmsg, {"recvmsg", {EINTR, ENOBUFS, ENOMEM, EAGAIN}, {ENOBUFS}}},
    {SYS_ioctl, {"ioctl", {EPERM, EIO, ENOMEM, EINTR, EBUSY, ENODEV}, {EPERM, EIO}}},
    {SYS_poll, {"poll", {EINTR, ENOMEM}}},
    {SYS_ppoll, {"ppoll", {EINTR, ENOMEM}}},
    {SYS_futex, {"futex", {EINTR, EAGAIN}}},
    {SYS_clock_nanosleep, {"clock_nanosleep", {EINTR}}},
    {SYS_getrandom, {"getrandom", {EAGAIN, EINTR}}},
    {SYS_clone, {"clone", {EAGAIN, ENOMEM}, {EAGAIN}}},
    {SYS_clone3, {"clone3", {EAGAIN, ENOMEM, EPERM}, {EAGAIN}}},
    {SYS_vfork, {"vfork", {EAGAIN, ENOMEM}, {EAGAIN}}},
    {SYS_execve, {"execve", {ENOMEM, EACCES, EMFILE, EIO}, {EACCES}}},
    {SYS_pipe2, {"pipe2", {EMFILE, ENFILE, ENOMEM}, {EMFILE}}},
    {SYS_dup2, {"dup2", {EMFILE, EINTR}}},
    {SYS_setpgid, {"setpgid", {EPERM}}},
    {SYS_pidfd_open, {"pidfd_open", {EMFILE, ENOMEM, EPERM}}},
    {SYS_wait4, {"wait4", {EINTR, ECHILD}}},
    {SYS_waitid, {"waitid", {EINTR, ECHILD}}},
    {SYS_kill, {"kill", {EPERM, ESRCH}}},
    {SYS_prlimit64, {"prlimit64", {EPERM}}},
    {SYS_sched_getaffinity, {"sched_getaffinity", {EPERM}}},
    {SYS_uname, {"uname", {EFAULT}}},
    {SYS_io_uring_setup, {"io_uring_setup", {EPERM, ENOMEM, EMFILE, ENOSYS}}},
    {SYS_io_uring_register, {"io_uring_register", {ENOMEM, EBUSY}}},
};

std::string name_of(const made_call &call)
{
    const auto found = failing.find(call.number);
    return found == failing.end() ? "call_" + std::to_string(call.number) : found->second.name;
}

/// The failures of a call; none for one that cannot fail, or not in a way that matters.
failing_call failures_of(const made_call &call)
{
    const bool locks = call.argument == F_SETLK || call.argument == F_SETLKW ||
                       call.argument == F_OFD_SETLK || call.argument == F_OFD_SETLKW;
    if (call.turn == 0 || (call.number == SYS_fcntl && !locks)) {
        return {};
    }
    const bool creates = call.number == SYS_openat && (call.argument & O_CREAT) != 0;
    const auto found = failing.find(creates ? call.number | creating : call.number);
    return found == failing.end() ? failing_call{} : found->second;
}

/// Of the dozens of lines that a run traces, each has its turn with one errno, and every eighth with the
/// lasting ones.
void thin_out(failing_call *ways, std::size_t turn)
{
    if (turn % 8 != 0) {
        ways->on.clear();
    }
    ways->once = {ways->once[turn % ways->once.size()]};
}

} // namespace

std::vector<point> plan_kills(const std::vector<made_call> &calls, bool with_loader)
{
    std::vector<point> points;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (with_loader || calls[i].turn != 0) {
            disturbance what;
            what.what = fault::kill;
            what.turn = static_cast<long>(i) + 1;
            points.push_back(
                {std::to_string(what.turn) + ":" + name_of(calls[i]) + "(" + calls[i].about + ")", what});
        }
    }
    return points;
}

std::vector<point> plan_steps(long lock, long count)
{
    std::vector<point> points;
    for (long turn = 1; turn <= count; ++turn) {
        disturbance what;
        what.what = fault::step;
        what.number = lock;
        what.turn = turn;
        points.push_back({"lock_" + std::to_string(lock) + ",instruction_" + std::to_string(turn), what});
    }
    return points;
}

std::vector<point> plan_errors(const std::vector<made_call> &calls)
{
    std::vector<point> points;
    std::map<long, std::size_t> traced;
    for (const made_call &call : calls) {
        failing_call ways = failures_of(call);
        if (!ways.once.empty() && call.about == "log/fip.log" &&
            (call.number == SYS_write || call.number == SYS_newfstatat)) {
            thin_out(&ways, traced[call.number]++);
        }
        const auto add = [&](fault what, int error, bool on, const std::string &suffix) {
            points.push_back(
                {name_of(call) + "#" + std::to_string(call.turn) + "(" + call.about + ")=" + suffix,
                 {what, call.number, call.turn, error, on}});
        };
        for (const int error : ways.once) {
            add(fault::fail, error, false, strerrorname_np(error));
        }
        for (const int error : ways.on) {
            add(fault::fail, error, true, strerrorname_np(error) + std::string(",on"));
        }
        if (ways.cut) {
            add(fault::cut, 0, false, "cut");
        }
    }
    return points;
}

std::vector<point> plan_allocations(long count, const std::string &library)
{
    std::vector<point> points;
    for (long turn = 1; turn <= count; ++turn) {
        disturbance what;
        what.turn = turn;
        what.environment = {"LD_PRELOAD=" + library, "NOMEM_AT=" + std::to_string(turn)};
        points.push_back({"allocation#" + std::to_string(turn), what});
        what.environment.emplace_back("NOMEM_ON=1");
        points.push_back({"allocation#" + std::to_string(turn) + ",on", what});
    }
    return points;
}
