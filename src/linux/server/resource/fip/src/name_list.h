/// Names that a configuration path lists: servers, resources.
#ifndef NAME_LIST_H
#define NAME_LIST_H

#include "qorxml.h"

#include <cstddef>
#include <vector>

struct name_list {
    std::vector<char> slots;
    int num = 0;

    const char *operator[](int i) const { return &slots[static_cast<std::size_t>(i) * QOR_XML_NAME_SLOT]; }
};

/// How the trace tells of a list.
struct name_list_texts {
    const char *pname; ///< source of the lines
    const char *pfunc; ///< function of the lines
    const char *count; ///< name of the number in "NAME=NUMBER"
    const char *slots; ///< name of the memory
    bool tells_memory; ///< whether a line tells that the memory was had, too
};

enum name_list_result {
    NAMES_READ,
    NAMES_UNKNOWN,   ///< the library does not list the path; nothing is traced, for that may be no failure
    NAMES_NONE,      ///< the path lists no name
    NAMES_NO_MEMORY, ///< traced
    NAMES_UNREADABLE ///< the list was gone the second time; traced
};

/// Reads the names that a path lists.
/// @param ret  receives the library's result
[[nodiscard]] name_list_result read_name_list(const name_list_texts &texts, const char *path, name_list *list,
                                              int *ret);

#endif
