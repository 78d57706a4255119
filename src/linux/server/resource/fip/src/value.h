/// The name of this server.
#ifndef VALUE_H
#define VALUE_H

/// Bytes of the buffer that get_hostname fills.
enum { HOSTNAME_SIZE = 256 };

/// Reads the short host name: gethostname(2)'s, cut at its first '.'.
/// @param hostname  HOSTNAME_SIZE bytes
/// @return 0, or 1 when the host name cannot be read
[[nodiscard]] int get_hostname(char *hostname);

#endif
