/// The configuration: libqorxml's start and stop, and the parameters of one resource.
#ifndef FIP_CONFIG_H
#define FIP_CONFIG_H

#include "../fip.h"

/// Starts the configuration library and loads the cluster configuration.
/// @return 0; FIP_ERR_XMLINIT or FIP_ERR_XMLCONF, with a result message
[[nodiscard]] int fip_xml_init();

/// Undoes what fip_xml_init did. @return 0, always
int fip_xml_term();

/// Loads a policy, and tells of it under the name of the function `func`. @return the library's result
[[nodiscard]] int fip_xml_load_policy(const char *func, const char *type);

/// Unloads it. @return the library's result
int fip_xml_unload_policy(const char *func, const char *type);

/// A policy, loaded for the length of a scope.
struct policy_scope {
    policy_scope(const char *caller, const char *policy)
        : func(caller), type(policy), loaded(fip_xml_load_policy(caller, policy) == 0)
    {
    }
    ~policy_scope() { unload(); }
    policy_scope(const policy_scope &) = delete;
    policy_scope &operator=(const policy_scope &) = delete;

    /// Unloads it before the scope ends. @return the library's result, 0 when there is nothing to unload
    int unload()
    {
        const bool unloading = loaded;
        loaded = false;
        return unloading ? fip_xml_unload_policy(func, type) : 0;
    }

    const char *func;
    const char *type;
    bool loaded;
};

/// Reads one text value with the policy `type` loaded.
/// @param buffer  receives the text
/// @param size    in: capacity of buffer in bytes; out: bytes used
/// @return 0; FIP_ERR_POLICY when the policy does not load; FIP_ERR_VALUE when the value cannot be read (both
///         with a result message while the resource states are attached); the result of unloading the policy
[[nodiscard]] int fip_xml_get_path(const char *type, const char *path, char *buffer, int *size);

/// Reads the text of the address that a resource has on this server. A failure is told of under the name of
/// the function `func`, and leaves no result message.
/// @return 0; FIP_ERR_HOSTNAME; FIP_ERR_ADDRESS when it cannot be read
[[nodiscard]] int fip_xml_read_address(const char *func, const char *rscname,
                                       char (&value)[FIP_ADDRARG_SIZE]);

/// Reads the address that applies to this server into the record's addr, mask, masklen and ifname,
/// by its rscname.
/// @return 0; FIP_ERR_HOSTNAME; FIP_ERR_ADDRESS when it cannot be read, with a result message; the
///         result of fip_div_ipmask
[[nodiscard]] int fip_xml_get_address(FIP_INFO *pfipinfo);

/// Whether a removal of the resource's address takes nothing else with it, by guard/interface. Without a
/// readable policy it is none, as nothing is then removed at all.
[[nodiscard]] bool fip_xml_is_guarded(const char *rscname);

/// Fills the record with every parameter of its resource, and with the address that applies to this server
/// when it has none yet. A parameter that cannot be read gets its default and a line in the trace.
/// @return 0; FIP_ERR_POLICY; a result of fip_xml_get_address; the result of fip_xml_get_path for the
///         installation path
[[nodiscard]] int fip_xml_get_config(FIP_INFO *pfipinfo);

#endif
