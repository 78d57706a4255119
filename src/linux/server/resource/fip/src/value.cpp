#include "value.h"

#include "tracersc.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace
{
constexpr char trace_source[] = "src/value.c";
}

int get_hostname(char *hostname)
{
    if (gethostname(hostname, HOSTNAME_SIZE) != 0) {
        TRACE(TRACE_ERROR, "get_hostname() failed. (errno=%d)", errno);
        return 1;
    }
    hostname[HOSTNAME_SIZE - 1] = '\0';
    hostname[strcspn(hostname, ".")] = '\0';
    return 0;
}
