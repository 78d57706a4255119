/// Trace log: the agent's diagnostic record, written through libqorlog.
///
/// Every call is dropped silently while the log is closed, never fails towards its caller, and is no
/// cancellation point. Open, close and tracetell belong to the main thread while no worker runs; everything
/// else may be called from any thread.
#ifndef TRACERSC_H
#define TRACERSC_H

enum trace_level {
    TRACE_ERROR = 1,     ///< an operation failed, an option is invalid, a required value is missing
    TRACE_WARNING = 2,   ///< a default was used, a clean-up failed, or the run goes on despite a failure
    TRACE_INFO = 4,      ///< start and end of a run, notable outcomes
    TRACE_DEBUG = 8,     ///< entries, exits, successful calls, values read
    TRACE_EVENT = 0x8000 ///< an event of the catalogue, only through tracemess
};

/// Bytes of one message, terminator included; a longer one is cut.
enum { TRACE_TEXT_SIZE = 1024 };

/// Events of the logging library's catalogue.
enum fip_event {
    FIP_EVENT_INUSE = 10, ///< another host has the address
    FIP_EVENT_FORCED = 11 ///< a failed duplicate-address check was overridden
};

/// Writes a line under the name of the calling function. `trace_source`, the source name in the line, is the
/// constant of that name visible at the call.
#define TRACE(level, ...) trace((level), trace_source, __LINE__, __func__, __VA_ARGS__)

/// The same under the name of another function: for a helper that does a part of its caller's work.
#define TRACE_AS(func, level, ...) trace((level), trace_source, __LINE__, (func), __VA_ARGS__)

/// Opens the log of the module `type`; only the first call of any number opens it. Clears the resource-name
/// prefix. A failed open leaves the log closed.
/// @param level  passed to log_init
/// @param size   passed to log_init, bytes
/// @param path   file name, or null for the library's own place
void traceopen(const char *type, int level, int size, const char *path);

/// Closes the log, however often it was opened.
void traceclose();

/// Sets the prefix of every following line: the resource name, cut to its first 8 characters.
void tracetell(const char *name);

void trace(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/// Writes an event, without the prefix. A null `fmt` takes the event's text from the library's catalogue.
void tracemess(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
               const char *s1);

#endif
