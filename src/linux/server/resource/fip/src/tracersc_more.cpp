#include "tracersc_more.h"

#include "nocancel.h"
#include "qorlog.h"
#include "tracersc_shared.h"

#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace
{

// The second log: as loghandle and traceinit of the first.
void *loghandle_ex = nullptr;
int traceinit_ex = 0;

/// Writes "MESSAGE success." for a result of 0, else "MESSAGE failed. (DETAIL)".
void format_result(int ret, const trace_origin &from, const char *detail, const char *fmt, va_list args)
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
    trace_write_line(loghandle, ret == 0 ? TRACE_DEBUG : TRACE_ERROR, from, trace_layout::indented, line);
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

void traceopen_ex(const char *type, int level, int size, const char *path)
{
    trace_open_log(&loghandle_ex, &traceinit_ex, type, level, size, path);
}

void traceclose_ex()
{
    trace_close_log(&loghandle_ex, &traceinit_ex);
}

void trace2(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    trace_format_line(loghandle, level, {pname, line, pfunc}, trace_layout::indented, fmt, args);
    va_end(args);
}

void trace_ex(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    trace_format_line(loghandle_ex, level, {pname, line, pfunc}, trace_layout::plain, fmt, args);
    va_end(args);
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
