/// libqorlog: the suite's trace log, one file per module.
#ifndef QORLOG_H
#define QORLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/** Level of an event: always written, and sent to syslog as well. Other lines are written when their level is
 *  at most the configured level. */
enum { QOR_LOG_EVENT = 0x8000 };

/** Event ids whose text is in the catalogue; each names an address. */
enum { QOR_EVENT_ADDRESS_INUSE = 10, QOR_EVENT_ADDRESS_FORCED = 11 };

/** Opens the log of the module `type`: log/TYPE.log below the suite home, created when missing (0640), its
 *  directory too. What is not a regular file is refused.
 *  @param type    1 to 32 letters, digits, '-' and '_'
 *  @param handle  receives the handle, owned by the caller until log_term; null when the open failed
 *  @param level   lines of a higher level are dropped
 *  @param size    bytes after which TYPE.log becomes TYPE.log.1; 0 or less never rotates
 *  @param path    file name to use instead of the default one, or null; its directory must exist
 *  @return 0, or an errno value: EINVAL (null argument, a type that is not a plain name, not a regular file),
 *          ENAMETOOLONG, ENOMEM, or what the open gave (ELOOP for a symbolic link in the file's place) */
int log_init(const char *type, void **handle, int level, int size, const char *path);

/** Writes one line, with one write(2), safe for many threads and many processes:
 *  "2026-11-22 19:22:31.123456 PID/TID LEVEL FILE:LINE FUNCTION | TEXT", local time, LEVEL as a number.
 *
 *  TEXT is written by textline_copy: it often comes from outside, and must neither forge a line nor command
 *  the reader's terminal. It is cut at 2047 bytes, or earlier when so written it does not fit a line of 4096.
 *  After a line that seems torn an empty one may follow.
 *
 *  Waits for no other process, is no cancellation point and leaves errno alone. Not for a child forked by a
 *  process with several threads, before its exec.
 *  @param eid  0, or the event id; a null `fmt` with an event id takes the text from the catalogue, and the
 *              one text argument that it names from the arguments
 *  @return 0 (also when the level rule drops the line), EINVAL for a null handle or no text, or the errno of
 *          the write (ENOSPC when only a part went out; the next line then starts on a line of its own) */
int log_write(void *handle, int level, int eid, const char *file, int line, const char *func, const char *fmt,
              ...) __attribute__((format(printf, 7, 8)));

/** Closes the log; a null handle is allowed. @return 0 */
int log_term(void *handle);

#ifdef __cplusplus
}
#endif

#endif
