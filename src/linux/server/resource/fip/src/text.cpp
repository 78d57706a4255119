#include "text.h"

#include <cstring>
#include <string>

void fill_path(char *path, std::size_t size, const char *pattern, std::initializer_list<const char *> names)
{
    std::string filled;
    const auto *name = names.begin();
    for (const char *gap = strstr(pattern, "%s"); gap != nullptr; gap = strstr(pattern, "%s")) {
        filled.append(pattern, gap);
        filled += name != names.end() ? *name++ : "";
        pattern = gap + strlen("%s");
    }
    copy_text(path, size, (filled + pattern).c_str());
}

void fip_chop(char *str)
{
    char *newline = strrchr(str, '\n');
    if (newline != nullptr) {
        *newline = '\0';
    }
}
