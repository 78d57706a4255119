// The NIC link check, against a driver of the test's own.

#include "fip/miiw.h"
#include "fip_fixture.h"

#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>

namespace
{

constexpr int yes = 0, no = EOPNOTSUPP; // what a driver says to a request

struct driver {
    int ethtool;
    unsigned link;
    int phy, private_phy;
    int bad_read; // which read of a register fails, counted from 1; 0 for none
    std::uint16_t control, first, second;
} nic;
// "E" ethtool, "P" and "p" PHY id by the newer and the older request, "0" to "7" a register.
std::string asked;

} // namespace

extern "C" int __wrap_ioctl(int fd, unsigned long code, ifreq *ifr)
{
    EXPECT_EQ(std::to_string(fd) + ifr->ifr_name, "77eth0:1");
    auto *mii = reinterpret_cast<mii_ioctl_data *>(&ifr->ifr_ifru);
    int error = yes;
    if (code == SIOCETHTOOL) {
        asked += "E";
        auto *value = reinterpret_cast<ethtool_value *>(ifr->ifr_data);
        EXPECT_EQ(value->cmd, static_cast<unsigned>(ETHTOOL_GLINK));
        value->data = nic.link;
        error = nic.ethtool;
    } else if (code == SIOCGMIIPHY || code == SIOCDEVPRIVATE) {
        asked += code == SIOCGMIIPHY ? "P" : "p";
        mii->phy_id = 5;
        error = code == SIOCGMIIPHY ? nic.phy : nic.private_phy;
    } else {
        EXPECT_EQ(code, static_cast<unsigned long>(nic.phy == yes ? SIOCGMIIREG : SIOCDEVPRIVATE + 1));
        EXPECT_EQ(mii->phy_id * 10 + mii->val_in + mii->val_out, 50);
        asked += std::to_string(mii->reg_num);
        const auto reads = static_cast<int>(asked.size() - asked.find('0'));
        mii->val_out = mii->reg_num == MII_BMCR ? nic.control : reads == 9 ? nic.second : nic.first;
        error = reads == nic.bad_read ? EIO : yes;
    }
    errno = error;
    return error == yes ? 0 : -1;
}

using MiiwTest = FipTest;

TEST_F(MiiwTest, DecidesByMethodAndRegisters)
{
    const std::string all = "012345671", down = "status was down. (if=eth0:1 sock=77",
                      up = "Link Up (if=eth0:1";
    const struct {
        int method;
        driver nic;
        int result;
        std::string asked, line;
    } cases[] = {
        {0, {yes, 1, no, no, 0, 0, 0, 0}, 0, "E", up},
        {0, {yes, 0, yes, yes, 0, 0, 4, 4}, 20, "E", down + ") ***"},
        {2, {yes, 7, no, no, 0, 0, 0, 0}, 0, "E", up},
        {2, {no, 1, yes, yes, 0, 0, 4, 4}, 13, "E", "(err=95 if=eth0:1 sock=77 req=0x8946)"},
        {0, {EPERM, 1, yes, no, 0, 0, 4, 0}, 0, "EP" + all, "end - (ret=0)"},
        {0, {no, 1, no, no, 0, 0, 4, 4}, 13, "EPp", "(err=95 if=eth0:1 sock=77 req=0x89f0)"},
        {1, {yes, 0, no, yes, 0, 0, 4, 4}, 0, "Pp" + all, "basic=0x4 status=0004) ***"},
        {1, {yes, 0, yes, no, 0, 0, 0x782d, 0}, 0, "P" + all, "everything is working."},
        {1, {no, 0, yes, no, 0, 0, 6, 0}, 0, "P" + all, "was previously down, but now up."},
        {1, {no, 0, yes, no, 0, 0, 0x12, 0x16}, 0, "P" + all, up + " sock=77 status=0x4) ***"},
        {1, {no, 0, yes, no, 0, 0, 0x7829, 0x7829}, 20, "P" + all, down + " status=0000) ***"},
        {1, {no, 0, yes, no, 0, 0xffff, 4, 0}, 0, "P" + all, "no MII transceiver."},
        {1, {no, 0, yes, no, 0, 0, 0, 0}, 20, "P" + all, "no MII transceiver."},
        {1, {no, 0, yes, no, 1, 0, 4, 4}, 12, "P0", "(err=5 if=eth0:1 sock=77 req=0x8948 reg=0)"},
        {1, {no, 0, no, yes, 8, 0, 4, 4}, 12, "Pp01234567", "(err=5 if=eth0:1 sock=77 req=0x89f1 reg=7)"},
        {1, {no, 0, yes, no, 9, 0, 4, 4}, 12, "P" + all, "(err=5 if=eth0:1 sock=77 req=0x8948)"},
        {-1, {yes, 1, yes, yes, 0, 0, 4, 4}, 1, "", "Method was invalid.(method=-1) ***"},
    };
    const int sock = 77;
    for (const auto &row : cases) {
        nic = row.nic;
        asked.clear();
        outcome(0);
        EXPECT_EQ(fip_miiw_ioctl(&sock, "eth0:1", row.method), row.result) << row.line;
        EXPECT_TRUE(traced(row.line)) << row.line;
        EXPECT_EQ(asked, row.asked) << row.line;
    }
    asked.clear();
    EXPECT_EQ(join(fip_miiw_ioctl(&sock, "sixteen-letters:", MIIW_BOTH), asked), "13 "); // nothing is asked
}
