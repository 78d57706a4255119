/// The check of one floating IP in the configuration under check, and the loading of that configuration,
/// which the dynamic update modes use too.
#ifndef FIP_CONF_CHECK_H
#define FIP_CONF_CHECK_H

/// Loads the configuration under check and makes it current.
/// @return 0; the result of fip_xml_get_path when its name cannot be read; the library's result when it
///         cannot be loaded or made current, QOR_XMLERR_OTHER when its name is too long
[[nodiscard]] int fip_load_chkconf();

/// Unloads it when it is loaded.
void fip_unload_chkconf();

/// Checks a resource's comment, address, and parameters, and writes a line of the check log per finding. The
/// running configuration is current again afterwards.
/// @return 0 when the configuration passed, 1 when findings were written, else the failing code of an
///         internal error, with a line of its own
[[nodiscard]] int fip_conf_check(const char *rscname);

/// Checks that the resource has a comment of at most 127 bytes. @return 0, or 1 after a finding
[[nodiscard]] int fip_comment_check(const char *rscname);

/// Checks an address as configured. @return 0, or 1 after a finding
[[nodiscard]] int fip_fipaddr_check(const char *address);

#endif
