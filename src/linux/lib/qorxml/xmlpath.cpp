#include "xmlpath.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>

#include "qorxml.h"

int xmlpath_split(std::string_view text, xml_path *path)
{
    path->clear();
    if (!text.starts_with('/')) {
        return QOR_XMLERR_INVALID_PATH;
    }
    for (std::size_t end = 0; end != std::string_view::npos;) {
        const std::size_t begin = end + 1;
        end = text.find('/', begin);
        const std::string_view component = text.substr(begin, end == text.npos ? text.npos : end - begin);
        if (component.empty() || component.front() == '@') {
            return QOR_XMLERR_INVALID_PATH;
        }
        path->push_back(component);
    }
    return QOR_XMLERR_SUCCESS;
}

xml_path xmlpath_without_names(const xml_path &path)
{
    xml_path bare = path;
    for (std::string_view &component : bare) {
        component = component.substr(0, component.find('@'));
    }
    return bare;
}

xml_path xmlpath_for_server(const xml_path &path, std::string_view server_key)
{
    const auto place = std::find(path.begin(), path.end(), "parameters");
    if (path.end() - place < 2) {
        return {};
    }
    xml_path separate(path.begin(), place);
    separate.push_back(server_key);
    separate.insert(separate.end(), place, path.end());
    return separate;
}

std::uint32_t xmlpath_find(xml_tree *tree, const xml_path &path)
{
    std::uint32_t element = 0;
    for (const std::string_view component : path) {
        element = xmltree_child(tree, element, component);
        if (element == 0) {
            break;
        }
    }
    return element;
}

std::vector<std::string_view> xmlpath_names(xml_tree *tree, const xml_path &path)
{
    std::vector<std::string_view> names;
    const xml_path parents(path.begin(), path.end() - 1);
    const std::uint32_t parent = xmlpath_find(tree, parents);
    if (parent == 0 && !parents.empty()) {
        return names;
    }
    const std::string_view tag = path.back().substr(0, path.back().find('@'));
    for (std::uint32_t c = tree->elements[parent].child; c != 0; c = tree->elements[c].next) {
        std::string_view key = xmltree_key(*tree, c);
        if (!key.starts_with(tag)) {
            continue;
        }
        key.remove_prefix(tag.size());
        if (key.starts_with('@') && key.size() <= QOR_XML_NAME_SLOT) { // the '@' takes the terminator's place
            names.push_back(key.substr(1));
        }
    }
    return names;
}

namespace
{
int put_text(std::string_view text, void *buf, int *size)
{
    const int capacity = *size;
    *size = static_cast<int>(text.size()) + 1;
    if (capacity < *size) {
        return QOR_XMLERR_NOTENOUGH_SIZE;
    }
    auto *out = static_cast<char *>(buf);
    *std::copy(text.begin(), text.end(), out) = '\0';
    return QOR_XMLERR_SUCCESS;
}

int put_int(std::string_view text, void *buf, int *size)
{
    if (*size < static_cast<int>(sizeof(int))) {
        *size = static_cast<int>(sizeof(int));
        return QOR_XMLERR_NOTENOUGH_SIZE;
    }
    if (text.empty()) {
        return QOR_XMLERR_NOTEXIST_VALUE;
    }
    if (text.starts_with('+') && !text.starts_with("+-")) { // from_chars knows only the minus sign
        text.remove_prefix(1);
    }
    int value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return QOR_XMLERR_INVALID_CONTENTS;
    }
    memcpy(buf, &value, sizeof(value)); // the caller's buffer need not be aligned
    *size = static_cast<int>(sizeof(value));
    return QOR_XMLERR_SUCCESS;
}
} // namespace

int xmlpath_put_value(std::string_view text, int type, void *buf, int *size)
{
    switch (type) {
    case QOR_XMLTYPE_TEXT:
        return put_text(text, buf, size);
    case QOR_XMLTYPE_INT:
        return put_int(text, buf, size);
    default:
        return QOR_XMLERR_OTHER;
    }
}

int xmlpath_put_names(const std::vector<std::string_view> &names, void *buf, int *size)
{
    if (names.empty()) {
        return QOR_XMLERR_NOTEXIST_PATH;
    }
    if (names.size() > INT_MAX / QOR_XML_NAME_SLOT) {
        return QOR_XMLERR_OTHER;
    }
    const int capacity = *size;
    *size = static_cast<int>(names.size()) * QOR_XML_NAME_SLOT;
    if (buf == nullptr) {
        return QOR_XMLERR_SUCCESS;
    }
    if (capacity < *size) {
        return QOR_XMLERR_NOTENOUGH_SIZE;
    }
    auto *slot = static_cast<char *>(buf);
    for (const std::string_view name : names) {
        std::fill(std::copy(name.begin(), name.end(), slot), slot + QOR_XML_NAME_SLOT, '\0');
        slot += QOR_XML_NAME_SLOT;
    }
    return QOR_XMLERR_SUCCESS;
}
