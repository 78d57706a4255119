/// Table-driven checks of a resource's text properties and int parameters.
///
/// Both read from whatever configuration the library addresses, write their findings to the check log, and
/// tell a finding from a failure to read.
#ifndef CHKUTIL_H
#define CHKUTIL_H

/// Results of both checks.
enum chk_result {
    CHK_PASSED = 0,
    CHK_FINDING = 1,    ///< at least one finding was written
    CHK_UNREADABLE = 99 ///< a value or the server list could not be read; what was found before stays
};

/// Judges one text value. @return 0 when it is good, else non-zero after a finding was written
using property_check = int (*)(const char *value);

/// One text property.
struct property {
    const char *name;        ///< for display; the check functions word their own findings
    int type;                ///< value type of the read
    int size;                ///< bytes allowed for the value, at most 1024
    const char *commonpath;  ///< a pattern (fill_path): resource name
    const char *specialpath; ///< resource name, server name; null: no value per server
    property_check commoncheckfunc;
    property_check specialcheckfunc;
    int required; ///< 1: in a cluster of several servers each must have its own value
};

/// One int parameter.
struct numeric_param {
    const char *name;
    const char *path;  ///< a pattern: resource name
    const char *index; ///< number under which the policy keeps its bounds; null: 0 to 1
};

/// Checks each property: the common value, then each server's own, in the order of the server list.
/// @return a chk_result
[[nodiscard]] int check_properties(const char *rscname, const property *properties, int num);

/// Checks each parameter against its bounds.
/// @param index  number that a finding's line carries
/// @return a chk_result
[[nodiscard]] int check_numeric_values(const char *rscname, const numeric_param *params, int num, int index);

#endif
