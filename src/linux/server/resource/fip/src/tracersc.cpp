#include "tracersc.h"

#include "nocancel.h"
#include "qorlog.h"
#include "tracersc_shared.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

// The handle, null while the log is closed, and the number of opens since the last close.
void *loghandle = nullptr;

static_assert(FIP_EVENT_INUSE == static_cast<int>(QOR_EVENT_ADDRESS_INUSE) &&
              FIP_EVENT_FORCED == static_cast<int>(QOR_EVENT_ADDRESS_FORCED));

namespace
{

int traceinit = 0;

enum { PREFIX_LENGTH = 8 };

char rscname[32]; ///< the prefix of every line; empty for none

} // namespace

void trace_open_log(void **handle, int *init, const char *type, int level, int size, const char *path)
{
    if (*init == 0) {
        // A failed open leaves the handle null: the run goes on without a trace.
        static_cast<void>(log_init(type, handle, level, size, path));
    }
    ++*init;
}

void trace_close_log(void **handle, int *init)
{
    if (*init != 0) {
        log_term(*handle);
        *handle = nullptr;
        *init = 0;
    }
}

void trace_write_line(void *handle, int level, const trace_origin &from, trace_layout shape,
                      const char *message)
{
    const nocancel guard;
    const bool indent = shape == trace_layout::indented;
    if (rscname[0] == '\0') {
        log_write(handle, level, 0, from.pname, from.line, from.pfunc, indent ? "  %s" : "%s", message);
    } else {
        log_write(handle, level, 0, from.pname, from.line, from.pfunc, indent ? "%-8s:   %s" : "%-8s: %s",
                  rscname, message);
    }
}

void trace_format_line(void *handle, int level, const trace_origin &from, trace_layout shape, const char *fmt,
                       va_list args)
{
    if (handle == nullptr || fmt == nullptr) {
        return;
    }
    char message[TRACE_TEXT_SIZE];
    vsnprintf(message, sizeof(message), fmt, args);
    trace_write_line(handle, level, from, shape, message);
}

void traceopen(const char *type, int level, int size, const char *path)
{
    trace_open_log(&loghandle, &traceinit, type, level, size, path);
    memset(rscname, 0, sizeof(rscname));
}

void traceclose()
{
    trace_close_log(&loghandle, &traceinit);
}

void tracetell(const char *name)
{
    snprintf(rscname, sizeof(rscname), "%.*s", PREFIX_LENGTH, name);
}

void trace(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    trace_format_line(loghandle, level, {pname, line, pfunc}, trace_layout::plain, fmt, args);
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
