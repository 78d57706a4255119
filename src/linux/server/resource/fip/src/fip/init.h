/// The start-up check, and the usage text.
#ifndef FIP_INIT_H
#define FIP_INIT_H

/// Makes sure that the run may do what it is to do, and starts the configuration library and the trace log.
/// @return 0; FIP_ERR_NOTROOT; a result of fip_xml_init or fip_log_init. Each failure leaves
///         a result message.
[[nodiscard]] int fip_init();

/// Opens the story of a run in the trace log: `opening`, the source's revision, and when it was built.
void fip_trace_build(const char *opening);

/// Writes the usage of the address modes to standard output. No run mode does: the program's caller is the
/// resource manager, which reads codes and messages.
void fip_usage();

/// Writes the usage of all modes to standard error, for a person at a terminal.
void fip_tell_usage();

#endif
