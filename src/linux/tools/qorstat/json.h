/// Texts of unknown origin as JSON (RFC 8259).
#ifndef JSON_H
#define JSON_H

#include <initializer_list>
#include <string>
#include <utility>

/// A text as a JSON string, quotes included. Control characters, C1 and DEL among them, are escaped, and each
/// byte that does not belong to a character of UTF-8 (RFC 3629) becomes U+FFFD: the result is valid whatever
/// comes in.
[[nodiscard]] std::string json_string(const char *text);

/// An object of texts, in one line.
[[nodiscard]] std::string json_object(std::initializer_list<std::pair<const char *, const char *>> members);

#endif
