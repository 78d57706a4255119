/// libqorxml: the cluster configuration and the policies.
///
/// Every operation returns one of the QOR_XMLERR_ codes. The library keeps one process-wide state and is used
/// from one thread.
///
/// A path is '/' and components joined by '/': "tag", or "tag@name" for the child element `tag` whose
/// attribute `name` equals `name`. A bare tag is the first child of that tag without a `name` attribute.
/// The tag ends at the first '@', so a name may hold '@' or anything else but '/': names are compared, never
/// interpreted. An element's value is its own text, without that of its child elements.
/// A value is looked up in the current configuration, then in the loaded policies under the same path, in the
/// order in which they were loaded, then in the loaded policies with every "@name" dropped; the first found
/// is the value, be it empty. Texts and names are UTF-8, whatever the encoding of the file.
#ifndef QORXML_H
#define QORXML_H

#ifdef __cplusplus
extern "C" {
#endif

enum qor_xmlerr {
    QOR_XMLERR_SUCCESS = 0,
    QOR_XMLERR_NOT_INIT = 1,         /**< xmllib_init was not called */
    QOR_XMLERR_NOT_LOAD = 2,         /**< no configuration is loaded */
    QOR_XMLERR_NOTENOUGH_SIZE = 3,   /**< the caller's buffer is too small; *size tells what is needed */
    QOR_XMLERR_NOTEXIST_PATH = 4,    /**< no such element, or no such policy */
    QOR_XMLERR_NOTEXIST_VALUE = 5,   /**< an empty element was read as an int */
    QOR_XMLERR_INVALID_PATH = 6,     /**< the text is not a path */
    QOR_XMLERR_INVALID_XML = 7,      /**< file missing, unreadable, unsafe, or not well-formed */
    QOR_XMLERR_INVALID_HANDLE = 8,   /**< not a handle of xmllib_load_pathconfig */
    QOR_XMLERR_INVALID_CONTENTS = 9, /**< the value is not a base-10 int of 32 bits, sign optional */
    QOR_XMLERR_OTHER = 10            /**< out of memory, or an argument that makes no sense */
};

/** How xmllib_get_value reads a value. */
enum qor_xmltype {
    QOR_XMLTYPE_TEXT = 0, /**< NUL-terminated text, trimmed of surrounding white space */
    QOR_XMLTYPE_INT = 1   /**< int, 4 bytes */
};

/** Bytes of one name in the result of xmllib_enum_value. */
enum { QOR_XML_NAME_SLOT = 256 };

/** Starts the library for the module `type` ("fip"). A second start without a stop is allowed and does
 *  nothing. OTHER when `type` is null. */
int xmllib_init(const char *type);

/** Stops the library and releases everything that is still loaded. NOT_INIT when it was not started. */
int xmllib_term(void);

/** Loads the running cluster configuration, etc/cluster.xml below the suite home, and makes it current. A
 *  second load reads the file anew; when it fails, what was loaded and current before stays.
 *  NOT_INIT; INVALID_XML; OTHER. The file must be a regular file (no symbolic link) of at most 8 MiB,
 *  owned by root and writable by nobody else, and keep to the limits of xmltree_parse. */
int xmllib_load_config(void);

/** Unloads it; a file chosen with xmllib_change_config stays current. NOT_INIT, NOT_LOAD. */
int xmllib_unload_config(void);

/** Loads the policy etc/policy/TYPE.xml, under the same rules. Loads and unloads of one type pair up; a
 *  policy loaded twice stays until it was unloaded twice. NOT_INIT; NOTEXIST_PATH when there is no such
 *  file; INVALID_XML; OTHER when `type` is not a plain name (a slash or a leading dot could leave the
 *  policy directory). */
int xmllib_load_policy(const char *type);

/** Unloads it. NOT_INIT; NOTEXIST_PATH when that policy is not loaded. */
int xmllib_unload_policy(const char *type);

/** Reads the value of `path`.
 *  @param type  one of qor_xmltype
 *  @param buf   receives the value
 *  @param size  in: capacity of buf in bytes; out: bytes of the value (text: its length plus one)
 *  NOT_INIT, NOT_LOAD; NOTENOUGH_SIZE (buf untouched); NOTEXIST_PATH; NOTEXIST_VALUE; INVALID_PATH;
 *  INVALID_CONTENTS; OTHER for an unknown type or a null argument. */
int xmllib_get_value(const char *path, int type, void *buf, int *size);

/** Reads the value of `path` as it applies to `server`: the path's first "/parameters/" replaced by
 *  "/server@SERVER/parameters/" where the current configuration (no policy) has that element, else the
 *  path itself. Results as xmllib_get_value; OTHER also for a null `server`. */
int xmllib_get_srvsep_value(const char *server, const char *path, int type, void *buf, int *size);

/** Lists the `name` attributes of all elements that the last component's tag selects, in document order,
 *  one name per slot of QOR_XML_NAME_SLOT bytes, filled up with NULs. Where the current configuration has
 *  none, the policies are asked as for a value; lists are never joined. A name longer than 255 bytes is
 *  left out: cut short, it could be another element's.
 *  @param buf   null to ask only for the size
 *  @param size  in: capacity of buf in bytes (ignored for a null buf); out: bytes needed
 *  SUCCESS (also for a null buf); NOTENOUGH_SIZE; NOTEXIST_PATH when there is none; NOT_INIT, NOT_LOAD,
 *  INVALID_PATH, OTHER. */
int xmllib_enum_value(const char *path, void *buf, int *size);

/** Loads a configuration file other than the running one, under the same rules. It does not become
 *  current.
 *  @param handle  receives the handle, owned by the caller until xmllib_unload_pathconfig; null on failure
 *  NOT_INIT, INVALID_XML, OTHER. */
int xmllib_load_pathconfig(const char *file, void **handle);

/** Makes the file behind `handle` the current configuration. NOT_INIT, INVALID_HANDLE. */
int xmllib_change_config(void *handle);

/** Unloads the file behind `handle`; when it was current, the running configuration is current again.
 *  NOT_INIT, INVALID_HANDLE. */
int xmllib_unload_pathconfig(void *handle);

#ifdef __cplusplus
}
#endif

#endif
