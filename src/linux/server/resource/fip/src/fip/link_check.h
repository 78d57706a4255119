/// The NIC link check: is the interface's physical link up?
#ifndef FIP_LINK_CHECK_H
#define FIP_LINK_CHECK_H

/// Results of the link check; the agent uses those that are marked.
enum miiw_result {
    MIIW_RET_SUCCESS = 0,    ///< used: the link is up
    MIIW_RET_FAIL_PARAM = 1, ///< used: no such method
    MIIW_RET_FAIL_PERMISSION = 2,
    MIIW_RET_FAIL_UNREGCONF = 3,
    MIIW_RET_FAIL_INVCONF = 4,
    MIIW_RET_API_ERR = 5,
    MIIW_RET_FAIL_GETADDRINFO = 10,
    MIIW_RET_FAIL_SOCKET = 11,
    MIIW_RET_FAIL_IOCTL = 12,            ///< used: a request failed
    MIIW_RET_FAIL_IOCTL_NOTSUPPORT = 13, ///< used: the driver answers neither way
    MIIW_RET_FAIL_NICDOWN = 20,          ///< used: the link is down
    MIIW_RET_FAIL_IOCTL_TIMEOUT = 90,
    MIIW_RET_FAIL_UNKNOWN = 98,
    MIIW_RET_INTERNAL_ERR = 99
};

/// How the link is looked at.
enum miiw_method {
    MIIW_BOTH = 0,   ///< ethtool's link query; when that request fails, the MII registers
    MIIW_MII = 1,    ///< the MII registers only
    MIIW_ETHTOOL = 2 ///< ethtool's link query only
};

/// Checks the link.
/// @param psock   a datagram socket, which stays the caller's
/// @param ifname  passed to the kernel as it is; a name too long for the kernel fails every request
/// @return a value of miiw_result
[[nodiscard]] int fip_miiw_ioctl(const int *psock, const char *ifname, int miiw_method);

#endif
