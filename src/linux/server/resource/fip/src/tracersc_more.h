/// The rest of the suite's trace operations. Nothing in this program calls them; they are kept because the
/// trace facility is one for all modules of the suite, whose sources are written against the whole of it.
///
/// What tracersc.h says of the log and of threads holds here, too.
#ifndef TRACERSC_MORE_H
#define TRACERSC_MORE_H

#include "tracersc.h"

/// Bytes of the buffer that the makeerrstr_ functions fill.
enum { TRACE_ERRSTR_SIZE = 128 };

/// tracemess with more values.
void tracemess2(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2);
void tracemess3(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2, const char *s3);
void tracemess4(int level, int eid, const char *pname, int line, const char *pfunc, const char *fmt,
                const char *s1, const char *s2, int i1);

/// trace, indented.
void trace2(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/// A second log with a handle of its own; the prefix is shared, and traceopen_ex leaves it alone.
void traceopen_ex(const char *type, int level, int size, const char *path);
void traceclose_ex();
void trace_ex(int level, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/// Lines about a call's result: "MESSAGE success." at level 8 for 0, else "MESSAGE failed. (...)" at level 1
/// with the result in hexadecimal, with ret and errno, or with the name of a library's code.
void tracefunc(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
void tracesys(int ret, int err, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 6, 7)));
void tracexml(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
void traceshmrm(int ret, const char *pname, int line, const char *pfunc, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/// Writes the name of a result of the configuration library, or "??", into errstr (TRACE_ERRSTR_SIZE bytes).
void makeerrstr_xml(int ret, char *errstr);
/// The same for a result of the resource-state shared memory.
void makeerrstr_shmrm(int ret, char *errstr);

#endif
