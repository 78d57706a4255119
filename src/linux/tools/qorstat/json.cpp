#include "json.h"

#include "textline.h"

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

character read_character(const char *text)
{
    character read = {};
    read.size = textline_read(text, &read.code);
    return read.size != 0 ? read : invalid;
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
