#include "textline.h"

#include "unique_fd.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace
{

struct code_range {
    std::uint32_t first;
    std::uint32_t last;
};

/// Unicode's control characters, and what is invisible or turns the direction of writing.
constexpr code_range hidden[] = {
    {0x0000, 0x001f}, {0x007f, 0x009f},   {0x00ad, 0x00ad}, {0x034f, 0x034f}, {0x061c, 0x061c},
    {0x115f, 0x1160}, {0x180b, 0x180f},   {0x200b, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f},
    {0x2800, 0x2800}, {0x3164, 0x3164},   {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xffa0, 0xffa0},
    {0xfff9, 0xfffb}, {0xe0000, 0xe0fff},
};

bool is_hidden(std::uint32_t code)
{
    return std::any_of(std::begin(hidden), std::end(hidden),
                       [code](const code_range &range) { return code >= range.first && code <= range.last; });
}

} // namespace

std::size_t textline_read(const char *text, std::uint32_t *code)
{
    constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000}; // for a character of so many bytes
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        *code = first;
        return first != '\0' ? 1 : 0;
    }
    const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc0 || first > 0xf7) {
        return 0;
    }
    *code = first & (0x7fU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        const auto next = static_cast<unsigned char>(text[i]); // a terminator is no continuation, and ends it
        if ((next & 0xc0) != 0x80) {
            return 0;
        }
        *code = *code << 6 | (next & 0x3f);
    }
    const bool surrogate = *code >= 0xd800 && *code <= 0xdfff;
    return *code < least[size] || surrogate || *code > 0x10ffff ? 0 : size;
}

std::size_t textline_copy(char *to, std::size_t size, const char *from)
{
    std::size_t len = 0;
    while (*from != '\0') {
        std::uint32_t code = 0;
        char escape[sizeof("\\xNN")];
        const char *piece = from;
        std::size_t taken = textline_read(from, &code);
        std::size_t n = taken;
        if (taken == 0 || is_hidden(code)) {
            // One byte; those that belong to it follow, being no character of their own.
            snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(*from));
            piece = *from == '\n' ? "\\n" : escape;
            n = strlen(piece);
            taken = 1;
        }
        if (len + n >= size) {
            break;
        }
        memcpy(to + len, piece, n);
        len += n;
        from += taken;
    }
    to[len] = '\0';
    return len;
}

bool textline_end_piece(int fd)
{
    // Opened once more, because Linux appends on a descriptor that was opened for it, wherever pwrite(2) is
    // told to write.
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    const off_t end = lseek(fd, 0, SEEK_CUR);
    const unique_fd again(open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    return end > 0 && again.fd >= 0 && pwrite(again.fd, "\n", 1, end - 1) == 1;
}
