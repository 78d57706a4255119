/// The check mode: judges one resource's configuration without touching the network or the running state.
#ifndef FIP_CHECK_MODE_H
#define FIP_CHECK_MODE_H

/// What any failure of the check mode itself gives.
enum { CHECK_FAILED = 1 };

/// Whether a command line asks for the check mode.
[[nodiscard]] bool fip_is_check_mode(int argc, char **argv);

/// Runs the check of the resource that the command line names, and writes its block into the check log.
/// @return the check result: 0 when the check passed and its whole block was written, else non-zero
[[nodiscard]] int fip_check_mode(int argc, char **argv);

#endif
