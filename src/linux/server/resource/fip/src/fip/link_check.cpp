#include "link_check.h"

#include "../nicCommon.h"
#include "trace_source.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>

namespace
{

constexpr char self[] = "fip_miiw_ioctl";

constexpr int register_count = 8;
constexpr std::uint16_t link_bit = BMSR_LSTATUS;
/// Link status, jabber detected, remote fault.
constexpr std::uint16_t state_bits = BMSR_LSTATUS | BMSR_JCD | BMSR_RFAULT;

/// The check of one interface.
struct link_check : nic_request {
    link_check(int socket, const char *name) : nic_request(name), sock(socket), ifname(name) {}

    /// The MII request data lies inside the request.
    mii_ioctl_data *mii() { return reinterpret_cast<mii_ioctl_data *>(&ifr.ifr_ifru); }

    int issue(unsigned long code) { return nic_request::issue(sock, code); }

    int sock;
    const char *ifname;
    unsigned long read_request = SIOCGMIIREG;
    std::uint16_t phy_id = 0;
};

void trace_ioctl_failure(const link_check &check, int level, unsigned long code)
{
    TRACE_AS(self, level, "ioctl() failed. (err=%d if=%s sock=%d req=%#x)", errno, check.ifname, check.sock,
             static_cast<unsigned>(code));
}

/// Asks ethtool's way. *answered tells whether the driver knows the request.
int check_ethtool(link_check *check, bool *answered)
{
    ethtool_value value = {ETHTOOL_GLINK, 0};
    check->ifr.ifr_data = reinterpret_cast<char *>(&value);
    *answered = check->issue(SIOCETHTOOL) >= 0;
    check->ifr.ifr_data = nullptr;
    if (!*answered) {
        const int ret = errno == EOPNOTSUPP ? MIIW_RET_FAIL_IOCTL_NOTSUPPORT : MIIW_RET_FAIL_IOCTL;
        trace_ioctl_failure(*check, TRACE_ERROR, SIOCETHTOOL);
        return ret;
    }
    if (value.data == 0) {
        TRACE_AS(self, TRACE_ERROR, "*** NIC link status was down. (if=%s sock=%d) ***", check->ifname,
                 check->sock);
        return MIIW_RET_FAIL_NICDOWN;
    }
    TRACE_AS(self, TRACE_DEBUG, "*** NIC Link Up (if=%s sock=%d) ***", check->ifname, check->sock);
    return MIIW_RET_SUCCESS;
}

/// Learns the PHY id, by the older private request where the driver does not know the newer one.
int find_phy(link_check *check)
{
    check->read_request = SIOCGMIIREG;
    if (check->issue(SIOCGMIIPHY) < 0) {
        trace_ioctl_failure(*check, TRACE_WARNING, SIOCGMIIPHY);
        check->read_request = SIOCDEVPRIVATE + 1;
        if (check->issue(SIOCDEVPRIVATE) < 0) {
            trace_ioctl_failure(*check, TRACE_ERROR, SIOCDEVPRIVATE);
            return MIIW_RET_FAIL_IOCTL_NOTSUPPORT;
        }
    }
    check->phy_id = check->mii()->phy_id;
    TRACE_AS(self, TRACE_DEBUG, "physical-id -> %d (if=%s sock=%d)", check->phy_id, check->ifname,
             check->sock);
    return MIIW_RET_SUCCESS;
}

/// Reads one register. 0, or -1 with errno.
int read_register(link_check *check, std::uint16_t number, std::uint16_t *value)
{
    *check->mii() = {check->phy_id, number, 0, 0};
    if (check->issue(check->read_request) < 0) {
        return -1;
    }
    *value = check->mii()->val_out;
    return 0;
}

int read_registers(link_check *check, std::uint16_t (&regval)[register_count])
{
    for (std::uint16_t number = 0; number < register_count; ++number) {
        if (read_register(check, number, &regval[number]) != 0) {
            TRACE_AS(self, TRACE_ERROR, "ioctl() failed. (err=%d if=%s sock=%d req=%#x reg=%d)", errno,
                     check->ifname, check->sock, static_cast<unsigned>(check->read_request), number);
            return MIIW_RET_FAIL_IOCTL;
        }
        TRACE_AS(self, TRACE_DEBUG, "device -> %s", check->ifname);
        TRACE_AS(self, TRACE_DEBUG, "phyid -> %d", check->phy_id);
        TRACE_AS(self, TRACE_DEBUG, "MII register offset -> %d", number);
        TRACE_AS(self, TRACE_DEBUG, "MII register value -> %4.4x", regval[number]);
    }
    return MIIW_RET_SUCCESS;
}

/// Decides by two readings of the basic status register (IEEE 802.3, 22.2.4.2). Its link bit latches low: a
/// link that was lost since the last reading shows as down on the first one only.
int judge(const link_check &check, std::uint16_t first, std::uint16_t second)
{
    const int state = first & state_bits;
    if (state == link_bit) {
        TRACE_AS(
            self, TRACE_DEBUG,
            "*** NIC link status was up, everything is working. (if=%s sock=%d basic=%#x status=%4.4x) ***",
            check.ifname, check.sock, first, static_cast<unsigned>(state));
        return MIIW_RET_SUCCESS;
    }
    if ((first & link_bit) != 0) {
        TRACE_AS(
            self, TRACE_ERROR,
            "*** NIC link status was previously down, but now up. (if=%s sock=%d basic=%#x status=%4.4x) ***",
            check.ifname, check.sock, first, static_cast<unsigned>(state));
        return MIIW_RET_SUCCESS;
    }
    const auto link = static_cast<unsigned>(second & link_bit);
    if (link != 0) {
        TRACE_AS(self, TRACE_DEBUG, "*** NIC Link Up (if=%s sock=%d status=%#x) ***", check.ifname,
                 check.sock, link);
        return MIIW_RET_SUCCESS;
    }
    TRACE_AS(self, TRACE_ERROR, "*** NIC link status was down. (if=%s sock=%d status=%4.4x) ***",
             check.ifname, check.sock, link);
    return MIIW_RET_FAIL_NICDOWN;
}

int check_mii(link_check *check)
{
    int ret = find_phy(check);
    if (ret != MIIW_RET_SUCCESS) {
        return ret;
    }
    std::uint16_t regval[register_count] = {};
    ret = read_registers(check, regval);
    if (ret != MIIW_RET_SUCCESS) {
        return ret;
    }
    if (regval[MII_BMCR] == 0xffff || regval[MII_BMSR] == 0) {
        TRACE_AS(self, TRACE_ERROR, "no MII transceiver. (if=%s sock=%d regval[0]=%#x regval[1]=%#x)",
                 check->ifname, check->sock, regval[MII_BMCR], regval[MII_BMSR]);
    }
    std::uint16_t second = 0;
    if (read_register(check, MII_BMSR, &second) != 0) {
        trace_ioctl_failure(*check, TRACE_ERROR, check->read_request);
        return MIIW_RET_FAIL_IOCTL;
    }
    return judge(*check, regval[MII_BMSR], second);
}

int check_link(link_check *check, int method)
{
    if (method != MIIW_MII) {
        bool answered = false;
        const int ret = check_ethtool(check, &answered);
        if (answered || method == MIIW_ETHTOOL) {
            return ret;
        }
    }
    return check_mii(check);
}

} // namespace

int fip_miiw_ioctl(const int *psock, const char *ifname, int miiw_method)
{
    TRACE(TRACE_DEBUG, "miiw monitor start - (sock=%d)", *psock);
    link_check check(*psock, ifname);
    TRACE(TRACE_DEBUG, "miiw monitor method = %d", miiw_method);

    int ret = MIIW_RET_FAIL_PARAM;
    if (miiw_method != MIIW_BOTH && miiw_method != MIIW_MII && miiw_method != MIIW_ETHTOOL) {
        TRACE(TRACE_ERROR, "Method was invalid.(method=%d) ***", miiw_method);
    } else {
        ret = check_link(&check, miiw_method);
    }
    TRACE(ret != MIIW_RET_SUCCESS ? TRACE_ERROR : TRACE_DEBUG, "end - (ret=%d)", ret);
    return ret;
}
