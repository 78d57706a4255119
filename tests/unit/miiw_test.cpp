// The NIC link check, against a driver of the test's own.

#include "fip/miiw.h"
#include "fip_fixture.h"

#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

namespace
{

constexpr int yes = 0; // instead of an errno

// A driver: errno or yes for each request, and the registers.
struct driver {
    int ethtool;
    unsigned link;
    int phy, private_phy;
    int bad_read; // which read of a register fails, counted from 1; 0 for none
    std::uint16_t control, first, second;
} nic;
// "E" ethtool, "P" and "p" PHY id by the newer and the older request, "0" to "7" a register.
std::string asked;

int answer(int error)
{
    errno = error;
    return error == yes ? 0 : -1;
}

int read_register(mii_ioctl_data *mii)
{
    EXPECT_EQ(mii->phy_id * 10 + mii->val_in + mii->val_out, 50);
    asked += std::to_string(mii->reg_num);
    const auto reads = asked.size() - asked.find('0');
    mii->val_out = mii->reg_num == MII_BMCR ? nic.control : reads == 9 ? nic.second : nic.first;
    return answer(static_cast<int>(reads) == nic.bad_read ? EIO : yes);
}

int find_phy(const char *request, int error, mii_ioctl_data *mii)
{
    asked += request;
    mii->phy_id = 5;
    return answer(error);
}

} // namespace

extern "C" int __wrap_ioctl(int fd, unsigned long code, ...)
{
    va_list args;
    va_start(args, code);
    auto *ifr = va_arg(args, ifreq *);
    va_end(args);
    EXPECT_EQ(std::to_string(fd) + ifr->ifr_name, "77eth0:1");
    auto *mii = reinterpret_cast<mii_ioctl_data *>(&ifr->ifr_ifru);
    switch (code) {
    case SIOCETHTOOL:
        asked += "E";
        EXPECT_EQ(reinterpret_cast<ethtool_value *>(ifr->ifr_data)->cmd,
                  static_cast<unsigned>(ETHTOOL_GLINK));
        reinterpret_cast<ethtool_value *>(ifr->ifr_data)->data = nic.link;
        return answer(nic.ethtool);
    case SIOCGMIIPHY:
        return find_phy("P", nic.phy, mii);
    case SIOCDEVPRIVATE:
        return find_phy("p", nic.private_phy, mii);
    default:
        EXPECT_EQ(code, static_cast<unsigned long>(nic.phy == yes ? SIOCGMIIREG : SIOCDEVPRIVATE + 1));
        return read_register(mii);
    }
}

using MiiwTest = FipTest;

TEST_F(MiiwTest, DecidesByMethodAndRegisters)
{
    const int no = EOPNOTSUPP, sock = 77;
    const std::string all = "012345671", where = "(if=eth0:1 sock=77", none = "no MII transceiver. " + where;
    const std::string down = "*** NIC link status was down. " + where, up = "*** NIC Link Up " + where;
    const std::string again = "*** NIC link status was previously down, but now up. " + where;
    const std::string works = "*** NIC link status was up, everything is working. " + where;
    const struct {
        int method;
        driver nic;
        int result;
        std::string asked, line;
    } cases[] = {
        {0, {yes, 1, no, no, 0, 0, 0, 0}, 0, "E", up + ") ***"},
        {0, {yes, 0, yes, yes, 0, 0, 4, 4}, 20, "E", down + ") ***"},
        {2, {yes, 7, no, no, 0, 0, 0, 0}, 0, "E", up + ") ***"},
        {2, {no, 1, yes, yes, 0, 0, 4, 4}, 13, "E", "ioctl() failed. (err=95 if=eth0:1 sock=77 req=0x8946)"},
        {0, {EPERM, 1, yes, no, 0, 0, 4, 0}, 0, "EP" + all, "end - (ret=0)"},
        {0, {no, 1, no, no, 0, 0, 4, 4}, 13, "EPp", "ioctl() failed. (err=95 if=eth0:1 sock=77 req=0x89f0)"},
        {1,
         {yes, 1, EINVAL, EIO, 0, 0, 4, 4},
         13,
         "Pp",
         "ioctl() failed. (err=22 if=eth0:1 sock=77 req=0x8947)"},
        {1, {yes, 0, no, yes, 0, 0, 4, 4}, 0, "Pp" + all, works + " basic=0x4 status=0004) ***"},
        {1, {yes, 0, yes, no, 0, 0, 0x782d, 0}, 0, "P" + all, works + " basic=0x782d status=0004) ***"},
        {1, {no, 0, yes, no, 0, 0, 6, 0}, 0, "P" + all, again + " basic=0x6 status=0006) ***"},
        {1, {no, 0, yes, no, 0, 0, 0, 4}, 0, "P" + all, up + " status=0x4) ***"},
        {1, {no, 0, yes, no, 0, 0, 0x12, 0x16}, 0, "P" + all, up + " status=0x4) ***"},
        {1, {no, 0, yes, no, 0, 0, 0x7829, 0x7829}, 20, "P" + all, down + " status=0000) ***"},
        {1, {no, 0, yes, no, 0, 0xffff, 4, 0}, 0, "P" + all, none + " regval[0]=0xffff regval[1]=0x4)"},
        {1, {no, 0, yes, no, 0, 0, 0, 0}, 20, "P" + all, none + " regval[0]=0 regval[1]=0)"},
        {1, {no, 0, yes, no, 1, 0, 4, 4}, 12, "P0", "(err=5 if=eth0:1 sock=77 req=0x8948 reg=0)"},
        {1, {no, 0, no, yes, 8, 0, 4, 4}, 12, "Pp01234567", "(err=5 if=eth0:1 sock=77 req=0x89f1 reg=7)"},
        {1, {no, 0, yes, no, 9, 0, 4, 4}, 12, "P" + all, "(err=5 if=eth0:1 sock=77 req=0x8948)"},
        {-1, {yes, 1, yes, yes, 0, 0, 4, 4}, 1, "", "Method was invalid.(method=-1) ***"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.asked + " " + row.line);
        nic = row.nic;
        asked.clear();
        outcome(0);
        EXPECT_EQ(fip_miiw_ioctl(&sock, "eth0:1", row.method), row.result);
        EXPECT_EQ(asked, row.asked);
        EXPECT_TRUE(traced(row.line));
    }
    asked.clear();
    EXPECT_EQ(fip_miiw_ioctl(&sock, "sixteen-letters:", MIIW_BOTH),
              13); // no interface's name: nothing is asked
    EXPECT_EQ(asked, "");
}
