#include "json.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace
{

/// One character of a text, and the bytes that it takes.
struct character {
    std::uint32_t code;
    std::size_t size;
};

constexpr character invalid = {0xfffd, 1};

/// Reads one character of UTF-8; over-long forms, surrogates and what is behind U+10FFFF are invalid.
character read_character(const char *text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return {first, 1};
    }
    const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    std::uint32_t code = first & (0xffU >> (size + 1));
    if (first < 0xc2 || first > 0xf4) {
        return invalid;
    }
    for (std::size_t i = 1; i < size; ++i) {
        const auto next = static_cast<unsigned char>(text[i]); // the terminator is none that follows
        if ((next & 0xc0) != 0x80) {
            return invalid;
        }
        code = code << 6 | (next & 0x3f);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < least[size] || surrogate || code > 0x10ffff ? invalid : character{code, size};
}

} // namespace

std::string json_string(const char *text)
{
    std::string out = "\"";
    while (*text != '\0') {
        const character c = read_character(text);
        if (c.code == '"' || c.code == '\\') {
            out += '\\';
            out += *text;
        } else if (c.code < 0x20 || (c.code >= 0x7f && c.code < 0xa0) || c.code == invalid.code) {
            char escaped[sizeof("\\uFFFD")];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c.code);
            out += escaped;
        } else {
            out.append(text, c.size);
        }
        text += c.size;
    }
    return out.append("\"");
}

std::string json_object(std::initializer_list<std::pair<const char *, const char *>> members)
{
    std::string out;
    for (const auto &[name, value] : members) {
        out += out.empty() ? '{' : ',';
        out.append(json_string(name)).append(":").append(json_string(value));
    }
    return out.append("}");
}
