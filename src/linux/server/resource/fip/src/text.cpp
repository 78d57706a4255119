#include "text.h"

#include <cstring>

void fill_path(char *path, std::size_t size, const char *pattern, std::initializer_list<const char *> names)
{
    const auto *name = names.begin();
    std::size_t used = 0;
    for (const char *gap = strstr(pattern, "%s"); gap != nullptr; gap = strstr(pattern, "%s")) {
        copy_part(path + used, size - used, pattern, static_cast<std::size_t>(gap - pattern));
        used += strlen(path + used);
        copy_text(path + used, size - used, name != names.end() ? *name++ : "");
        used += strlen(path + used);
        pattern = gap + strlen("%s");
    }
    copy_text(path + used, size - used, pattern);
}

void fip_chop(char *str)
{
    char *newline = strrchr(str, '\n');
    if (newline != nullptr) {
        *newline = '\0';
    }
}
