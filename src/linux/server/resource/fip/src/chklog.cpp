#include "chklog.h"

#include "text.h"
#include "textline.h"
#include "unique_fd.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace
{

constexpr char trace_source[] = "src/chklog.c";

enum { MESSAGE_SIZE = 1024, LINE_SIZE = 1032 };

/// The open check log.
unique_fd grdctfd;

/// Sends a line to the file, else to the trace log, there without its newline. A line that reached the file
/// in part did not reach it.
int deliver(const char *func, char *line)
{
    if (grdctfd.fd >= 0) {
        const std::size_t len = strlen(line);
        const ssize_t written = write(grdctfd.fd, line, len);
        if (written == static_cast<ssize_t>(len)) {
            return 0;
        }
        TRACE_AS(func, TRACE_ERROR, "write() failed. (errno = %d)", written < 0 ? errno : ENOSPC);
        if (written > 0) {
            textline_end_piece(grdctfd.fd);
        }
    }
    fip_chop(line);
    TRACE_AS(func, TRACE_INFO, "%s", line);
    return 1;
}

/// A name that does not fit is cut, not the end of its line.
int write_frame(const char *func, const char *word, const char *type, const char *rscname)
{
    constexpr char end[] = "]\n";
    char line[MESSAGE_SIZE];
    format_text(line, sizeof(line), "*****%s [type : %s][rscname : ", word, type);
    std::size_t len = strlen(line);
    len += textline_copy(line + len, sizeof(line) - len - strlen(end), rscname);
    copy_text(line + len, sizeof(line) - len, end);
    return deliver(func, line);
}

} // namespace

int chk_log_init(const char *type, const char *rscname, const char *file)
{
    // Opened as root under a configured name: no link is followed, and a pipe without a reader must not hang.
    const int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    if (fd < 0) {
        TRACE(TRACE_ERROR, "open(%s) failed. (errno = %d)", file, errno);
    }
    grdctfd.reset(fd);
    chk_log_start(type, rscname);
    return fd < 0 ? 1 : 0;
}

int chk_log_term(const char *type, const char *rscname)
{
    const int ret = chk_log_end(type, rscname);
    grdctfd.reset();
    return ret;
}

int chk_log_write(int level, int index, const char *fmt, ...)
{
    char text[MESSAGE_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    char message[MESSAGE_SIZE]; // a newline in a configured value must not start a record of its own
    textline_copy(message, sizeof(message), text);
    // A message that was cut fills the line so far that its newline is cut off too.
    char line[LINE_SIZE];
    format_text(line, sizeof(line), "%c [%03d] %s\n", level == CHK_LEVEL_INFO ? 'I' : 'E', index, message);
    return deliver(__func__, line);
}

int chk_log_row(int level, logindex row)
{
    return chk_log_write(level, logtbl[row].index, "%s", logtbl[row].msg);
}

int chk_log_start(const char *type, const char *rscname)
{
    return write_frame(__func__, "START", type, rscname);
}

int chk_log_end(const char *type, const char *rscname)
{
    return write_frame(__func__, "END", type, rscname);
}
