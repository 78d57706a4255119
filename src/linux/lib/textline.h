/// Lines of text for people and their tools: the trace log, the check log and qorstat write theirs with this.
#ifndef TEXTLINE_H
#define TEXTLINE_H

#include <cstddef>
#include <cstdint>

/// Reads the first character of a text as UTF-8 (RFC 3629).
/// @param code  receives its code point
/// @return its bytes, 1 to 4; 0 when the text does not begin with a character, as with over-long forms,
///         surrogates, and what is cut off
[[nodiscard]] std::size_t textline_read(const char *text, std::uint32_t *code);

/// Copies a text so that it stays within its line and shows what is in it: letters of any script as they are,
/// a newline as "\n", and as "\xNN" each byte of a control character, of one that is invisible or turns the
/// direction of writing, and of what is not UTF-8. A backslash stays as it is. Copied again, the result does
/// not change.
/// @param size  capacity of `to`. What does not fit is cut, never within a letter or an escape.
/// @return bytes written, terminator not counted
std::size_t textline_copy(char *to, std::size_t size, const char *from);

/// Ends the piece of a line that a full disk let through, by making its last byte a newline: the other
/// processes, which append behind it, cannot know that it is one.
/// @param fd  the file, right behind the write of the piece
/// @return false when the piece is still without end
bool textline_end_piece(int fd);

#endif
