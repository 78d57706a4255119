// The NIC link check, against a driver of the test's own.

#include "fip/link_check.h"
#include "fip_fixture.h"

#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>

// What the driver answers: errors of three requests, registers, and the read that fails, counted from 1.
struct {
    int ethtool, link, phy, private_phy, bad_read, control, first, second;
} nic;
// "E" ethtool, "P" and "p" PHY id by the newer and the older request, "0" to "7" a register.
std::string asked;

extern "C" int __wrap_ioctl(int fd, unsigned long code, ifreq *ifr)
{
    EXPECT_EQ(std::to_string(fd) + ifr->ifr_name, "77eth0:1");
    auto *mii = reinterpret_cast<mii_ioctl_data *>(&ifr->ifr_ifru);
    if (code == SIOCETHTOOL) {
        asked += "E";
        auto *value = reinterpret_cast<ethtool_value *>(ifr->ifr_data);
        EXPECT_EQ(value->cmd, static_cast<unsigned>(ETHTOOL_GLINK));
        value->data = static_cast<unsigned>(nic.link);
        errno = nic.ethtool;
    } else if (code == SIOCGMIIPHY || code == SIOCDEVPRIVATE) {
        asked += code == SIOCGMIIPHY ? "P" : "p";
        mii->phy_id = 5;
        errno = code == SIOCGMIIPHY ? nic.phy : nic.private_phy;
    } else {
        EXPECT_EQ(code, static_cast<unsigned long>(nic.phy == 0 ? SIOCGMIIREG : SIOCDEVPRIVATE + 1));
        EXPECT_EQ(mii->phy_id * 10 + mii->val_in + mii->val_out, 50);
        asked += std::to_string(mii->reg_num);
        const auto reads = static_cast<int>(asked.size() - asked.find('0'));
        const int value = mii->reg_num == MII_BMCR ? nic.control : reads == 9 ? nic.second : nic.first;
        mii->val_out = static_cast<std::uint16_t>(value);
        errno = reads == nic.bad_read ? EIO : 0;
    }
    return errno == 0 ? 0 : -1;
}

using MiiwTest = FipTest;

constexpr char links[] = R"(
METHOD | ETHTOOL LINK PHY OLDER-PHY BAD-READ CONTROL FIRST SECOND (hexadecimal) | RESULT | ASKED | LINE
0 | 0    0 0    0    0 0    4    4    | 20 | E | <down>) ***
2 | <no> 1 0    0    0 0    4    4    | 13 | E | (err=95 if=eth0:1 sock=77 req=0x8946)
0 | 1    1 0    <no> 0 0    4    0    | 0 | EP<all> | end - (ret=0)
0 | <no> 1 <no> <no> 0 0    4    4    | 13 | EPp | (err=95 if=eth0:1 sock=77 req=0x89f0)
1 | 0    0 <no> 0    0 0    782d 0    | 0 | Pp<all> | everything is working.
1 | <no> 0 0    <no> 0 0    6    0    | 0 | P<all> | was previously down, but now up.
1 | <no> 0 0    <no> 0 0    12   16   | 0 | P<all> | Link Up (if=eth0:1 sock=77 status=0x4) ***
1 | <no> 0 0    <no> 0 0    7829 7829 | 20 | P<all> | <down> status=0000) ***
1 | <no> 0 0    <no> 0 ffff 4    0    | 0 | P<all> | no MII transceiver.
1 | <no> 0 0    <no> 0 0    0    0    | 20 | P<all> | no MII transceiver.
1 | <no> 0 <no> 0    8 0    4    4    | 12 | Pp01234567 | (err=5 if=eth0:1 sock=77 req=0x89f1 reg=7)
1 | <no> 0 0    <no> 9 0    4    4    | 12 | P<all> | (err=5 if=eth0:1 sock=77 req=0x8948)
)";

TEST_F(MiiwTest, DecidesByMethodAndRegisters)
{
    const names words = {{"<no>", "5f"}, // EOPNOTSUPP
                         {"<all>", "012345671"},
                         {"<down>", "status was down. (if=eth0:1 sock=77"}};
    const int sock = 77;
    for (const auto &row : table(links, words)) {
        std::istringstream(row.at(1)) >> std::hex >> nic.ethtool >> nic.link >> nic.phy >> nic.private_phy >>
            nic.bad_read >> nic.control >> nic.first >> nic.second;
        asked.clear();
        const int result = fip_miiw_ioctl(&sock, "eth0:1", std::stoi(row[0]));
        EXPECT_EQ(join(result, asked), join(row.at(2), row.at(3))) << row.at(4);
        EXPECT_TRUE(traced(row.at(4))) << row.at(4);
        outcome(0);
    }
    asked.clear();
    EXPECT_EQ(fip_miiw_ioctl(&sock, "sixteen-letters:", MIIW_BOTH), MIIW_RET_FAIL_IOCTL_NOTSUPPORT);
    EXPECT_EQ(asked, "");
}
