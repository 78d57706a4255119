/// Outside commands, run through the shell in a process group of their own.
///
/// They stand in for popen(3) and system(3), which leave a command behind when their caller gives up: here
/// whoever drops an unfinished command ends it and everything that it started.
#ifndef COMMAND_H
#define COMMAND_H

#include "unique_fd.h"

#include <cstddef>
#include <mutex>
#include <string>
#include <sys/types.h>

/// A command that is running. Waiting for it is a cancellation point; dropping it never waits.
struct command {
    command() = default;
    ~command();
    command(const command &) = delete;
    command &operator=(const command &) = delete;

    pid_t pid = -1;         ///< leader of the process group, -1 when there is nothing to wait for
    unique_fd out;          ///< read end of its standard output, when that is read
    long long deadline = 0; ///< monotonic milliseconds at which it is killed, 0 for none
    std::size_t have = 0;   ///< bytes in buf not handed out yet
    std::size_t from = 0;   ///< where they start
    char buf[4096];
};

/// The command that a thread runs at the moment, for another thread that must end it.
struct running_command {
    /// Ends the command and everything that it started; nothing when none runs.
    void end();

    std::mutex mutex; ///< held while `pid` is made known, and while its process is reaped
    pid_t pid = -1;
};

/// Keeps `slot` informed of the commands that the calling thread runs, for the length of a scope.
struct command_observer {
    explicit command_observer(running_command *slot);
    ~command_observer();
    command_observer(const command_observer &) = delete;
    command_observer &operator=(const command_observer &) = delete;
};

/// No limit on a command's time: the caller bounds it in another way.
enum { COMMAND_NO_LIMIT = 0 };

/// Starts a command whose standard output is read with command_read_line.
/// @param line      one simple command, handed to /bin/sh -c
/// @param limit_ms  it is killed after so many milliseconds, or COMMAND_NO_LIMIT
/// @return 0, or -1 with errno
[[nodiscard]] int command_open(command *cmd, const char *line, long limit_ms);

/// Reads one line: up to `size` - 1 bytes, the newline kept. What a longer line has beyond that is passed
/// over: taken for a line of its own, it could be mistaken for anything.
/// @param cut  set to whether something was passed over; may be null
/// @return bytes of the text, 0 at the end of the output or of the command's time; a NUL byte in the output
///         counts, and ends the text early
[[nodiscard]] std::size_t command_read_line(command *cmd, char *line, std::size_t size, bool *cut);

/// Closes the output and waits for the command.
/// @return its wait status, or -1 with errno when it cannot be had
[[nodiscard]] int command_close(command *cmd);

/// Runs a command, given as to command_open, and waits for it.
/// @return its wait status, or -1 with errno when it could not be run
[[nodiscard]] int command_run(const char *line, long limit_ms);

/// How a command ended.
struct command_result {
    enum { SUCCEEDED, FAILED, ABNORMAL } end; ///< ABNORMAL: it could not be run, or a signal ended it
    int code; ///< FAILED: its exit status; ABNORMAL: errno, 0 when a signal ended it
};

/// Judges a wait status, or the -1 in place of one. An end is normal when its low seven bits are zero.
[[nodiscard]] command_result command_judge(int status);

/// Closes a command, judges its end and tells of it.
/// @param line           the command, for the trace
/// @param success_level  of the line that tells of a success; a failure is told at level 1
[[nodiscard]] command_result command_close_traced(command *cmd, const char *line, const char *pname,
                                                  const char *pfunc, int success_level);

/// `text` as one literal word of a shell command line: as it is when the shell gives no character of it a
/// meaning, else quoted.
[[nodiscard]] std::string shell_word(const char *text);

/// `text` as it stands literally between double quotes.
[[nodiscard]] std::string shell_in_quotes(const char *text);

#endif
