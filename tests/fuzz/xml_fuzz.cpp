/// Any configuration file, asked for any path: the first line of the input is the path, the rest the file.
#include "fuzz_input.h"
#include "qorxml.h"
#include "xmlpath.h"

#include <algorithm>
#include <cstring>

void fuzz(std::string_view input)
{
    const std::size_t newline = std::min(input.find('\n'), input.size());
    xml_tree tree;
    xml_path path;
    if (xmltree_parse(input.substr(std::min(newline + 1, input.size())), &tree) != QOR_XMLERR_SUCCESS ||
        xmlpath_split(input.substr(0, newline), &path) != QOR_XMLERR_SUCCESS)
        return;
    const std::string_view text = xmltree_text(tree, xmlpath_find(&tree, path));
    char value[16];
    int room = sizeof(value);
    const int ret = xmlpath_put_value(text, QOR_XMLTYPE_TEXT, value, &room);
    require(ret != QOR_XMLERR_SUCCESS || strlen(value) < sizeof(value));
    for (const std::string_view name : xmlpath_names(&tree, path))
        require(name.size() < QOR_XML_NAME_SLOT);
}
