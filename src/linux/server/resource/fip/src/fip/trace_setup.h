/// The trace log's start and end, with the level and size that the policy "fip" gives.
#ifndef FIP_TRACE_SETUP_H
#define FIP_TRACE_SETUP_H

/// Opens the trace log. Without a loaded cluster configuration it stays closed.
/// @return 0, or FIP_ERR_POLICY when the policy cannot be loaded (the result message says so)
[[nodiscard]] int fip_log_init();

/// Closes it when fip_log_init opened it. @return 0, always
int fip_log_term();

#endif
