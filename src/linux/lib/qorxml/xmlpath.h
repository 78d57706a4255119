/// Paths and values: what a path selects in a tree, and how the text found there is handed to the caller.
/// No I/O and no state.
#ifndef QORXML_XMLPATH_H
#define QORXML_XMLPATH_H

#include <string_view>
#include <vector>

#include "xmltree.h"

/// The components of a path, each the key of an element. Components are only ever compared, never
/// interpreted: a name may hold any character, except that one with a '/' cannot be written in a path.
using xml_path = std::vector<std::string_view>;

/// Splits a path at its slashes; the tag of a component ends at its first '@'. The components
/// point into `text`.
/// @return SUCCESS; INVALID_PATH when `text` does not begin with '/' or a component has no tag
[[nodiscard]] int xmlpath_split(std::string_view text, xml_path *path);

/// @return the path with every "@name" dropped
[[nodiscard]] xml_path xmlpath_without_names(const xml_path &path);

/// @param server_key  "server@SERVER"
/// @return the path with `server_key` before its first inner component "parameters"; empty when it has none
[[nodiscard]] xml_path xmlpath_for_server(const xml_path &path, std::string_view server_key);

/// @return the element, 0 when there is none
[[nodiscard]] std::uint32_t xmlpath_find(xml_tree *tree, const xml_path &path);

/// @return the names, pointing into the tree, of all elements that the last component's tag selects, in
///         document order; a name longer than a slot of xmllib_enum_value is left out
[[nodiscard]] std::vector<std::string_view> xmlpath_names(xml_tree *tree, const xml_path &path);

/// Hands a value to the caller; arguments and result as xmllib_get_value.
[[nodiscard]] int xmlpath_put_value(std::string_view text, int type, void *buf, int *size);

/// Hands names to the caller; arguments and result as xmllib_enum_value.
[[nodiscard]] int xmlpath_put_names(const std::vector<std::string_view> &names, void *buf, int *size);

#endif
