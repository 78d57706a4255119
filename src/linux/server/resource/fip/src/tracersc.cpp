#include "tracersc.h"

#include "nocancel.h"
#include "qorlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace
{

enum { PREFIX_LENGTH = 8 };

// The log, and the second one: the handle, null while it is closed, and the number of opens since the last
// close.
void *loghandle = nullptr;
int traceinit = 0;
void *loghandle_ex = nullptr;
int traceinit_ex = 0;

char rscname[32]; ///< the prefix of every line; empty for none

/// Where a line comes from.
struct origin {
    const char *pname;
    int line;
    const char *pfunc;
};

void open_log(void **handle, int *init, const char *type, int level, int size, const char *path)
{
    if (*init == 0) {
        // A failed open leaves the handle null: the run goes on without a trace.
        static_cast<void>(log_init(type, handle, level, size, path));
    }
    ++*init;
}

void close_log(void **handle, int *init)
{
    if (*init != 0) {
        log_term(*handle);
        *handle = nullptr;
        *init = 0;
    }
}

enum class layout { plain, indented };

/// Writes one message, behind the prefix when there is one.
/// The message is a value of the line's format, never the format: its percent signs are text.
void write_line(void *handle, int level, const origin &from, layout shape, const char *message)
{
    const nocancel guard;
    const bool indent = shape == layout::indented;
    if (rscname[0] == '\0') {
        log_write(handle, level, 0, from.pname, from.line, from.pfunc, indent ? "  %s" : "%s", message);
    } else {
        log_write(handle, level, 0, from.pname, from.line, from.pfunc, indent ? "%-8s:   %s" : "%-8s: %s",
                  rscname, message);
    }
}

void format_line(void *handle, int level, const origin &from, layout shape, const char *fmt, va_list args)
{
    if (handle == nullptr || fmt == nullptr) {
        return;
    }
    char message[TRACE_TEXT_SIZE];
    vsnprintf(message, sizeof(message), fmt, args);
    write_line(handle, level, from, shape, message);
}

/// Writes "MESSAGE success." for a result of 0, else "MESSAGE failed. (DETAIL)".
void format_result(int ret, const origin &from, const char *detail, const char *fmt, va_list args)
{
    if (loghandle == nullptr || fmt == nullptr) {
        return;
    }
    char message[TRACE_TEXT_SIZE];
    vsnprintf(message, sizeof(message), fmt, args);
    char line[TRACE_TEXT_SIZE + 2 * TRACE_ERRSTR_SIZE];
    if (ret == 0) {
        snprintf(line, sizeof(line), "%s success.", message);
    } else {
        snprintf(line, sizeof(line), "%s failed. (%s)", message, detail);
    }
    write_line(loghandle, ret == 0 ? TRACE_DEBUG : TRACE_ERROR, from, layout::indented, line);
}

void copy_name(const char *const *names, std::size_t count, int ret, char *errstr)
{
    const char *name = "??";
    if (ret >= 0 && static_cast<std::size_t>(ret) < count && names[ret] != nullptr) {
        name = names[ret];
    }
    snprintf(errstr, TRACE_ERRSTR_SIZE, "%s", name);
}

enum { NAMED_DETAIL_SIZE = TRACE_ERRSTR_SIZE + 16 };

/// Writes a result in hexadecimal and by its library's name.
void name_detail(char (&detail)[NAMED_DETAIL_SIZE], int ret, void (*makeerrstr)(int, char *))
{
    char name[TRACE_ERRSTR_SIZE];
    makeerrstr(ret, name);
    snprintf(detail, sizeof(detail), "%#x %s", static_cast<unsigned>(ret), name);
}

} // namespace

void traceopen(const char *type, int level, int size, const char *path)
{
    open_log(&loghandle, &traceinit, type, level, size, path);
    memset(rscname, 0, sizeof(rscname));
}

void traceclose()
{
    close_log(&loghandle, &traceinit);
}

void traceopen_ex(const char *type, int level, int size, const char *path)
{
    open_log(&loghandle_ex, &traceinit_ex, type, level, size, path);
}

void traceclose_ex()
{
    close_log(&loghandle_ex, &traceinit_ex);
}

void tracetell(const char *name)
{
    snprintf(rscname, sizeof(rscname), "%.*s", PREFIX_LENGTH, name);
}

void trace(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    format_line(loghandle, level, {pname, line, pfunc}, layout::plain, fmt, args);
    va_end(args);
}

void trace2(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    format_line(loghandle, level, {pname, line, pfunc}, layout::indented, fmt, args);
    va_end(args);
}

void trace_ex(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    format_line(loghandle_ex, level, {pname, line, pfunc}, layout::plain, fmt, args);
    va_end(args);
}

void tracemess(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
               const char *s1)
{
    if (loghandle != nullptr) {
        const nocancel guard;
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1);
    }
}

void tracemess2(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2)
{
    if (loghandle != nullptr) {
        const nocancel guard;
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2);
    }
}

void tracemess3(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2, const char *s3)
{
    if (loghandle != nullptr) {
        const nocancel guard;
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2, s3);
    }
}

void tracemess4(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2, int i1)
{
    if (loghandle != nullptr) {
        const nocancel guard;
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2, i1);
    }
}

void tracefunc(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    char detail[TRACE_ERRSTR_SIZE];
    snprintf(detail, sizeof(detail), "%#x", static_cast<unsigned>(ret));
    va_list args;
    va_start(args, fmt);
    format_result(ret, {pname, line, pfunc}, detail, fmt, args);
    va_end(args);
}

void tracesys(int ret, int err, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    char detail[TRACE_ERRSTR_SIZE];
    snprintf(detail, sizeof(detail), "ret=%d,errno=%d", ret, err);
    va_list args;
    va_start(args, fmt);
    format_result(ret, {pname, line, pfunc}, detail, fmt, args);
    va_end(args);
}

void tracexml(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    char detail[NAMED_DETAIL_SIZE];
    name_detail(detail, ret, makeerrstr_xml);
    va_list args;
    va_start(args, fmt);
    format_result(ret, {pname, line, pfunc}, detail, fmt, args);
    va_end(args);
}

void traceshmrm(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    char detail[NAMED_DETAIL_SIZE];
    name_detail(detail, ret, makeerrstr_shmrm);
    va_list args;
    va_start(args, fmt);
    format_result(ret, {pname, line, pfunc}, detail, fmt, args);
    va_end(args);
}

void makeerrstr_xml(int ret, char *errstr)
{
    static constexpr const char *names[] = {
        "QOR_XMLERR_SUCCESS",          "QOR_XMLERR_NOT_INIT",      "QOR_XMLERR_NOT_LOAD",
        "QOR_XMLERR_NOTENOUGH_SIZE",   "QOR_XMLERR_NOTEXIST_PATH", "QOR_XMLERR_NOTEXIST_VALUE",
        "QOR_XMLERR_INVALID_PATH",     "QOR_XMLERR_INVALID_XML",   "QOR_XMLERR_INVALID_HANDLE",
        "QOR_XMLERR_INVALID_CONTENTS", "QOR_XMLERR_OTHER",
    };
    copy_name(names, std::size(names), ret, errstr);
}

void makeerrstr_shmrm(int ret, char *errstr)
{
    // The first two codes have no name.
    static constexpr const char *names[] = {
        nullptr,
        nullptr,
        "SHMRM_ERR_NOTINIT",
        "SHMRM_ERR_INVALIDPARAM",
        "SHMRM_ERR_NOTFOUND",
        "SHMRM_ERR_NOTENOUGH",
        "SHMRM_ERR_XMLINIT",
        "SHMRM_ERR_FTOK",
        "SHMRM_ERR_SHMGET",
        "SHMRM_ERR_SHMAT",
        "SHMRM_ERR_SHMCTL",
        "SHMRM_ERR_MAXGRP",
        "SHMRM_ERR_MAXRSC",
        "SHMRM_ERR_MAXMON",
        "SHMRM_ERR_LOADINFO",
        "SHMRM_ERR_LOADCONF",
    };
    copy_name(names, std::size(names), ret, errstr);
}
