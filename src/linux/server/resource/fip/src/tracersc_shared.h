/// How a line of the trace is written: what tracersc.cpp and tracersc_more.cpp share.
#ifndef TRACERSC_SHARED_H
#define TRACERSC_SHARED_H

#include <cstdarg>

/// The log's handle, null while it is closed.
extern void *loghandle;

/// Where a line comes from.
struct trace_origin {
    const char *pname;
    int line;
    const char *pfunc;
};

enum class trace_layout { plain, indented };

/// Opens a log unless it is open, and counts the call.
void trace_open_log(void **handle, int *init, const char *type, int level, int size, const char *path);

/// Closes a log, however often it was opened.
void trace_close_log(void **handle, int *init);

/// Writes one message, behind the prefix when there is one. It is a value of the line's format, never the
/// format: its percent signs are text.
void trace_write_line(void *handle, int level, const trace_origin &from, trace_layout shape,
                      const char *message);

/// Formats a message, cut to TRACE_TEXT_SIZE, and writes it; nothing while the log is closed.
void trace_format_line(void *handle, int level, const trace_origin &from, trace_layout shape, const char *fmt,
                       va_list args) __attribute__((format(printf, 5, 0)));

#endif
