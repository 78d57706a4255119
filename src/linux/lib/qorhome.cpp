#include "qorhome.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

int qorhome_path(const char *relative, char *buf, std::size_t size)
{
    const char *home = secure_getenv("QOR_HOME");
    if (home == nullptr || home[0] != '/') {
        home = QOR_HOME_DEFAULT;
    }
    const int len = snprintf(buf, size, "%s/%s", home, relative);
    if (len < 0 || static_cast<std::size_t>(len) >= size) {
        if (size > 0) {
            buf[0] = '\0';
        }
        return ENAMETOOLONG;
    }
    return 0;
}

int qorhome_mkdir(const char *relative)
{
    char path[PATH_MAX];
    const int ret = qorhome_path(relative, path, sizeof(path));
    if (ret != 0) {
        return ret;
    }
    if (mkdir(path, 0750) != 0 && errno != EEXIST) {
        return errno;
    }
    return 0;
}

bool qorhome_is_roots_own(const struct stat &st)
{
    return S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}
