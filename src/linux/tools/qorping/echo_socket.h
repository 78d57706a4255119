/// Echo requests to one address, and the replies to them.
#ifndef ECHO_SOCKET_H
#define ECHO_SOCKET_H

#include "icmp_echo.h"
#include "unique_fd.h"

struct echo_socket {
    unique_fd socket;
    reply_expectation expected = {};
};

/// Opens a raw ICMP socket or, without the right to one, a datagram ICMP socket, and draws what identifies
/// this run.
///
/// @param step  set to what failed
/// @return 0, or errno of the step
[[nodiscard]] int open_echo_socket(const probe_target &target, echo_socket *sock, const char **step);

/// Errors of the requests that could not be sent.
struct echo_errors {
    int unreachable; ///< errno of the last that the network refused: nobody can be there; or 0
    int failed;      ///< errno of the last that failed otherwise; or 0
};

/// Sends one request or, for a link-local address without zone, one through every interface that is up.
void send_echo(echo_socket *sock, echo_errors *errors);

/// Looks at the packets that have arrived, without waiting.
[[nodiscard]] bool read_echo_reply(const echo_socket &sock);

#endif
