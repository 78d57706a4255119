/// Single values of the configuration.
#ifndef CONFIG_VALUE_H
#define CONFIG_VALUE_H

#include "qorxml.h"

/// Reads a number. @return the library's result; *value is written on success only
[[nodiscard]] inline int read_config_int(const char *path, int *value)
{
    int size = sizeof(*value);
    return xmllib_get_value(path, QOR_XMLTYPE_INT, value, &size);
}

#endif
