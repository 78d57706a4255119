/// Check log: the block of findings that a configuration check appends to a text file.
///
/// While the file is not open, or cannot be written, the lines go to the trace log at level 4 instead, so
/// that a run always leaves its whole block somewhere. One thread, the check mode's, uses it.
#ifndef CHKLOG_H
#define CHKLOG_H

#include "tracersc.h"

/// Level of a line: success, or a finding.
enum { CHK_LEVEL_INFO = TRACE_INFO, CHK_LEVEL_ERROR = TRACE_ERROR };

/// Positions in logtbl.
enum logindex {
    CHK_ID_SUCCESS,
    CHK_ID_ARG_ERR,
    CHK_ID_EMPTY_ERR,
    CHK_ID_RANGE_ERR,
    CHK_ID_IPFOMAT_ERR,
    CHK_ID_IPADDR_ERR,
    CHK_ID_NIC_ERR,
    CHK_ID_MASK_ERR,
    CHK_ID_COMMENT_PATH_ERR,
    CHK_ID_COMMENT_RANGE_ERR,
    CHK_ID_INTERNAL_ERR,
    CHK_ID_COUNT
};

/// One message of the check log.
struct logmsg {
    int index;       ///< the number that its line carries
    const char *msg; ///< printf format
};

/// A constant, so that the compiler checks the values that a row is written with against its format.
inline constexpr logmsg logtbl[CHK_ID_COUNT] = {
    {1, "Success in a composition check."},
    {2, "Invalid argument."},
    {3, "Parameter %s is empty."},
    {4, "Value of %s is out of range. (value=%d)"},
    {5, "Format of FIP address is invalid. (value=%s)"},
    {6, "IP address is invalid. (value=%s)"},
    {7, "NIC alias is invalid. (value=%s)"},
    {8, "Subnet mask is invalid. (value=%s)"},
    {97, "Path of Comment does not exist."},
    {98, "Length of Comment is out of range."},
    {99, "Internal error occurred."},
};

/// Opens the file for appending (created 0644) and writes the start line.
/// @return 0, or 1 when the file cannot be opened
[[nodiscard]] int chk_log_init(const char *type, const char *rscname, const char *file);

/// Writes the end line and closes the file. @return the end line's result
[[nodiscard]] int chk_log_term(const char *type, const char *rscname);

/// Writes one line, "I [NUMBER] MESSAGE" for CHK_LEVEL_INFO, "E ..." for any other level. A message is
/// escaped like the trace log's, and cut at 1023 bytes; one that has just as many leaves its line
/// without a newline.
/// @param index  number of the line: the `index` of a row of logtbl
/// @return 0, or 1 when the line did not reach the file
int chk_log_write(int level, int index, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/// Writes a row of logtbl that takes no value. @return 0, or 1 when the line did not reach the file
int chk_log_row(int level, logindex row);

/// Write the first and the last line of a block. @return 0, or 1 when the line did not reach the file
int chk_log_start(const char *type, const char *rscname);
int chk_log_end(const char *type, const char *rscname);

#endif
