#include "qorlog.h"

#include "nocancel.h"
#include "qorhome.h"
#include "textline.h"
#include "unique_fd.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr std::size_t type_max = 32;
/// Bytes of a line with its newline; a longer one is cut. The longest text of the agent takes about 1300.
constexpr std::size_t line_size = 4096;
constexpr std::size_t text_size = 2048;
/// Looks at the path in one call: rename the full file, open the new one, and one more for a
/// rival in between.
constexpr int reopen_tries = 3;
/// Longer than a write of one line takes.
constexpr long write_time_ns = 1000000;

struct log_file {
    char path[PATH_MAX] = "";
    char predecessor[PATH_MAX] = "";
    char tag[type_max + sizeof("qor")] = ""; // of its events in the system's log
    int level = 0;
    off_t limit = 0;
    /// Guards what follows, among the threads of this process only: no other process ever waits for it.
    std::mutex mutex;
    unique_fd file;
    /// The file may end in a piece of a line (disk full, writer killed): the next line starts with a newline.
    bool torn = false;
};

bool is_plain_name(const char *type)
{
    const std::size_t len = strnlen(type, type_max + 1);
    if (len == 0 || len > type_max) {
        return false;
    }
    for (std::size_t i = 0; i < len; ++i) {
        const auto c = static_cast<unsigned char>(type[i]);
        if (isalnum(c) == 0 && c != '-' && c != '_') {
            return false;
        }
    }
    return true;
}

/// O_NONBLOCK keeps the open from waiting for the reader of a FIFO that somebody left in the file's place.
int open_log(const char *path, unique_fd *file)
{
    unique_fd opened(
        open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0640));
    if (opened.fd < 0) {
        return errno;
    }
    struct stat st = {};
    if (fstat(opened.fd, &st) != 0) {
        return errno;
    }
    if (!S_ISREG(st.st_mode)) {
        return EINVAL;
    }
    *file = std::move(opened);
    return 0;
}

/// Tells whether the file ends in a piece of a line. A line that another process is writing at this moment
/// can look like one, hence the second look, behind a write of nothing: that waits its turn behind the other
/// one, since the kernel locks the file for a write. The pause is for file systems that skip it (overlayfs);
/// should it be too short, an empty line is all that comes of it.
bool ends_torn(int fd)
{
    off_t torn_size = 0;
    for (int look = 0; look < 2; ++look) {
        struct stat st = {};
        char last = '\n';
        if (fstat(fd, &st) != 0 || st.st_size == 0 || pread(fd, &last, 1, st.st_size - 1) != 1 ||
            last == '\n') {
            return false;
        }
        if (st.st_size == torn_size) {
            return true;
        }
        torn_size = st.st_size;
        const struct timespec pause = {0, write_time_ns};
        nanosleep(&pause, nullptr);
        if (write(fd, "", 0) != 0) {
            return false;
        }
    }
    return false;
}

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Renames the file open as `fd` away, unless the path names another one by now.
///
/// Only the holder of the lock on a file renames it, and looks at the path while holding it. So nobody moves
/// a successor that a rival has just created. The lock is never waited for, and belongs to a descriptor
/// opened for this one rotation: other threads and forked children have their own.
/// @return false when the file stays where it is: somebody else rotates, or it cannot be renamed
bool move_away(const log_file &log, int fd)
{
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    struct stat ours = {};
    struct stat named = {};
    bool moved = true;
    if (fstat(fd, &ours) == 0 && lstat(log.path, &named) == 0 && same_file(ours, named)) {
        moved = rename(log.path, log.predecessor) == 0;
    }
    // Closing would not do: a child forked meanwhile shares the lock until its exec.
    flock(fd, LOCK_UN);
    return moved;
}

/// Goes over to the file that the path names, after renaming it away if it is still the one we have.
/// On failure writing goes on in the present file.
void next_file(log_file &log)
{
    for (int i = 0; i < reopen_tries; ++i) {
        unique_fd fresh;
        struct stat ours = {};
        struct stat named = {};
        if (open_log(log.path, &fresh) != 0 || fstat(fresh.fd, &named) != 0 ||
            fstat(log.file.fd, &ours) != 0) {
            return;
        }
        if (!same_file(ours, named)) {
            log.file = std::move(fresh);
            log.torn = false;
            return;
        }
        if (!move_away(log, fresh.fd)) {
            return;
        }
    }
}

/// Writes a line with one write(2). line[0] is a newline that goes along only behind a piece.
int append(log_file &log, const char *line, std::size_t len)
{
    const std::lock_guard<std::mutex> guard(log.mutex);
    for (int i = 0; i < reopen_tries; ++i) {
        const std::size_t skip = log.torn ? 0 : 1;
        ssize_t written = 0;
        do {
            written = write(log.file.fd, line + skip, len - skip);
        } while (written < 0 && errno == EINTR);
        const bool complete = written >= 0 && static_cast<std::size_t>(written) == len - skip;
        const int incomplete = written < 0 ? errno : ENOSPC;
        if (written > 0) {
            log.torn = !complete && !textline_end_piece(log.file.fd);
        }
        struct stat st = {};
        const bool known = fstat(log.file.fd, &st) == 0;
        if (!known || st.st_nlink > 0) {
            if (known && log.limit > 0 && st.st_size >= log.limit) {
                next_file(log);
            }
            return complete ? 0 : incomplete;
        }
        // Two rotations, or an operator, took the file away while we wrote: nobody will read that line.
        next_file(log);
    }
    return ENOENT;
}

/// Forms the text of an event without a format of its own; its one argument is the address.
void format_event(char *text, std::size_t size, int eid, va_list args)
{
    switch (eid) {
    case QOR_EVENT_ADDRESS_INUSE:
        vsnprintf(text, size, "address %s is in use by another host", args);
        break;
    case QOR_EVENT_ADDRESS_FORCED:
        vsnprintf(text, size, "address %s was activated by force although the duplicate-address check failed",
                  args);
        break;
    default:
        snprintf(text, size, "event %d", eid);
    }
}

/// "2026-11-22 19:22:31.123456 PID/TID LEVEL FILE:LINE FUNCTION | ", local time.
void format_header(char *header, std::size_t size, int level, const char *file, int line, const char *func)
{
    struct timespec now = {};
    struct tm local = {};
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    snprintf(header, size, "%04d-%02d-%02d %02d:%02d:%02d.%06ld %d/%d %d %.64s:%d %.64s | ",
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             now.tv_nsec / 1000, getpid(), gettid(), level, file != nullptr ? file : "-", line,
             func != nullptr ? func : "-");
}

/// Hands an event to the system's log. syslog(3) would wait for a daemon that is stuck; this drops the event,
/// which our own log has.
void send_syslog(const char *tag, const char *text)
{
    const unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (sock.fd < 0) {
        return;
    }
    char datagram[text_size + 64];
    snprintf(datagram, sizeof(datagram), "<%d>%s[%d]: ", LOG_DAEMON | LOG_WARNING, tag, getpid());
    std::size_t len = strlen(datagram);
    len += textline_copy(datagram + len, sizeof(datagram) - len, text);
    const struct sockaddr_un daemon = {AF_UNIX, _PATH_LOG};
    sendto(sock.fd, datagram, len, MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const struct sockaddr *>(&daemon), sizeof(daemon));
}

/// Fills in the two file names. @return 0 or ENAMETOOLONG
int set_paths(log_file &log, const char *type, const char *path)
{
    if (path == nullptr) {
        char relative[type_max + 16];
        snprintf(relative, sizeof(relative), "log/%s.log", type);
        if (const int ret = qorhome_path(relative, log.path, sizeof(log.path)); ret != 0) {
            return ret;
        }
    } else if (const int len = snprintf(log.path, sizeof(log.path), "%s", path);
               len < 0 || static_cast<std::size_t>(len) >= sizeof(log.path)) {
        return ENAMETOOLONG;
    }
    const int len = snprintf(log.predecessor, sizeof(log.predecessor), "%s.1", log.path);
    return len < 0 || static_cast<std::size_t>(len) >= sizeof(log.predecessor) ? ENAMETOOLONG : 0;
}

} // namespace

int log_init(const char *type, void **handle, int level, int size, const char *path)
{
    if (handle == nullptr) {
        return EINVAL;
    }
    *handle = nullptr;
    if (type == nullptr || !is_plain_name(type)) {
        return EINVAL;
    }
    const nocancel whole;
    std::unique_ptr<log_file> log(new (std::nothrow) log_file);
    if (log == nullptr) {
        return ENOMEM;
    }
    if (const int ret = set_paths(*log, type, path); ret != 0) {
        return ret;
    }
    int ret = open_log(log->path, &log->file);
    if (ret == ENOENT && path == nullptr) {
        if (ret = qorhome_mkdir("log"); ret == 0) {
            ret = open_log(log->path, &log->file);
        }
    }
    if (ret != 0) {
        return ret;
    }
    snprintf(log->tag, sizeof(log->tag), "qor%s", type); // not the program's name, which its caller chooses
    log->level = level;
    log->limit = size;
    log->torn = ends_torn(log->file.fd);
    *handle = log.release();
    return 0;
}

int log_write(void *handle, int level, int eid, const char *file, int line, const char *func, const char *fmt,
              ...)
{
    auto *log = static_cast<log_file *>(handle);
    if (log == nullptr || (fmt == nullptr && eid == 0)) {
        return EINVAL;
    }
    if (level > log->level && level != QOR_LOG_EVENT) {
        return 0;
    }
    const nocancel whole;
    const int callers_errno = errno; // a trace call between a failure and its report must not change it
    char text[text_size] = "";
    va_list args;
    va_start(args, fmt);
    if (fmt != nullptr) {
        vsnprintf(text, sizeof(text), fmt, args);
    } else {
        format_event(text, sizeof(text), eid, args);
    }
    va_end(args);
    char header[256];
    format_header(header, sizeof(header), level, file, line, func);
    char whole_line[line_size];
    whole_line[0] = '\n';
    std::size_t len = 1 + textline_copy(whole_line + 1, line_size - 1, header);
    const char *visible_text = whole_line + len;
    len += textline_copy(whole_line + len, line_size - len, text);
    if (level == QOR_LOG_EVENT) {
        send_syslog(log->tag, visible_text);
    }
    whole_line[len] = '\n';
    const int ret = append(*log, whole_line, len + 1);
    errno = callers_errno;
    return ret;
}

int log_term(void *handle)
{
    const nocancel whole;
    delete static_cast<log_file *>(handle);
    return 0;
}
