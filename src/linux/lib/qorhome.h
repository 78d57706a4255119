/// The suite home: the one directory below which the suite's libraries and tools keep everything.
#ifndef QORHOME_H
#define QORHOME_H

#include <cstddef>
#include <sys/stat.h>

/// Forms the absolute name of a file below the suite home.
///
/// The home is QOR_HOME from the environment, read with secure_getenv(3) so that a privileged start ignores
/// it, else the directory compiled in. An empty or relative QOR_HOME is ignored too.
///
/// @param relative  path below the home, without a leading slash ("etc/cluster.xml")
/// @param buf       receives the NUL-terminated name
/// @param size      capacity of buf in bytes
/// @return 0, or ENAMETOOLONG when the name does not fit (buf then holds the empty text)
[[nodiscard]] int qorhome_path(const char *relative, char *buf, std::size_t size);

/// Whether a file that the suite goes by can be believed: a regular one that only root can have written.
/// @param st  of the open file, so that nobody exchanges it behind the look
[[nodiscard]] bool qorhome_is_roots_own(const struct stat &st);

/// Makes sure that a directory below the suite home exists, creating it (mode 0750) when only its last
/// component is missing.
/// @return 0, or the errno of the failing call
[[nodiscard]] int qorhome_mkdir(const char *relative);

#endif
