// An address added and removed, by ioctl and by command.

#include "fip/address_change.h"
#include "fip_fixture.h"
#include "nicIfconfig.h"

#include <linux/ipv6.h>
#include <sys/ioctl.h>

// A kernel that records what it is asked to change, and refuses one request with EIO.
struct {
    std::string refused; // a request's name, or "socket"
    std::string present; // the address that SIOCGIFADDR finds, or "-"
    int six_fd;          // the socket of the IPv6 family
    std::string asked;
} kernel;

const std::map<unsigned long, std::string> requests = {
    {SIOCSIFADDR, "ADDR"},    {SIOCDIFADDR, "DEL6"},    {SIOCSIFNETMASK, "MASK"}, {SIOCSIFBRDADDR, "BRD"},
    {SIOCGIFFLAGS, "GFLAGS"}, {SIOCSIFFLAGS, "SFLAGS"}, {SIOCGIFINDEX, "INDEX"},  {SIOCGIFADDR, "GADDR"},
};

extern "C" {
int __real_socket(int family, int type, int protocol);

int __wrap_socket(int family, int type, int protocol)
{
    const int fd = kernel.refused == "socket" ? -1 : __real_socket(AF_UNIX, type, protocol);
    errno = EIO;
    kernel.six_fd = family == AF_INET6 ? fd : -1;
    return fd;
}

int __wrap_ioctl(int fd, unsigned long code, void *data)
{
    const std::string &request = requests.at(code);
    auto *ifr = static_cast<ifreq *>(data);
    auto *sin = reinterpret_cast<sockaddr_in *>(&ifr->ifr_addr);
    if (fd == kernel.six_fd && (request == "ADDR" || request == "DEL6")) {
        const auto *six = static_cast<const in6_ifreq *>(data);
        kernel.asked += join(request, hex(six, 16), six->ifr6_prefixlen, six->ifr6_ifindex) + ";";
    } else if (request == "ADDR" || request == "MASK" || request == "BRD") {
        EXPECT_EQ(sin->sin_family, AF_INET);
        kernel.asked += join(request, ifr->ifr_name, hex(&sin->sin_addr, 4)) + ";";
    } else if (request == "SFLAGS") {
        kernel.asked += join(request, ifr->ifr_name, ifr->ifr_flags) + ";";
    } else if (request == "GFLAGS") {
        ifr->ifr_flags = IFF_BROADCAST | IFF_UP;
    } else if (request == "INDEX") {
        ifr->ifr_ifindex = 7;
    } else if (kernel.present != "-") {
        *sin = {AF_INET, 0, {inet_addr(kernel.present.c_str())}, {}};
    } else if (kernel.refused != "GADDR") {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    errno = EIO;
    return kernel.refused == request ? -1 : 0;
}
}

using IoctlTest = FipTest;

constexpr char changes[] = R"(
FAMILY | ACTION | REFUSED | PRESENT | ASKED | WHETHER THE ADDRESS IS SAID TO BE GONE | OUTCOME
4 | add | socket | - |  | kept | 9 [scoket<eio>
4 | add | ADDR | - | <addr> | kept | 10 [SIOCSIFADDR<eio>
4 | add | MASK | - | <addr><mask><down> | gone | 11 [SIOCSIFNETMASK<eio>
4 | add | BRD | 10.0.0.1 | <addr><mask><brd><down><clear> | gone | 12 [SIOCSIFBRDADDR<eio>
4 | add | GFLAGS | - | <addr><mask><brd> | kept | 15 [SIOCGIFFLAGS<eio>
4 | add | SFLAGS | - | <addr><mask><brd><up><down> | kept | 13 [SIOCSIFFLAGS<eio>
6 | add | socket | - |  | kept | 9 [scoket<eio>
6 | add | INDEX | - |  | kept | 14 [SIOCGIFINDEX<eio>
6 | add | ADDR | - | ADDR <six> | kept | 10 [SIOCSIFADDR<eio>
6 | add | GFLAGS | - | ADDR <six>DEL6 <six> | gone | 15 [SIOCGIFFLAGS<eio>
6 | add | SFLAGS | - | ADDR <six>SFLAGS eth0 67;DEL6 <six> | gone | 13 [SIOCSIFFLAGS<eio>
4 | del | socket | - |  | kept | 9 [socket<eio>
4 | del | GFLAGS | - |  | kept | 15 [SIOCGIFFLAGS<eio>
4 | del | SFLAGS | - | <down> | kept | 13 [SIOCSIFFLAGS<eio>
4 | del | GADDR | - | <down> | kept | 15 [SIOCGIFADDR<eio>
4 | del | - | 10.0.0.1 | <down><clear> | gone | 0
4 | del | - | 10.0.0.2 | <down> | kept | 0
4 | del | ADDR | 10.0.0.1 | <down><clear> | kept | 10 [SIOCSIFADDR [0.0.0.0] failed.]
6 | del | INDEX | - |  | kept | 14 [SIOCGIFINDEX<eio>
6 | del | DEL6 | - | DEL6 <six> | kept | 16 [SIOCDIFADDR<eio>
)";

vdevinfo target()
{
    vdevinfo dev = {};
    copy_text(dev.ifname, "eth0");
    copy_text(dev.sipel.addr, "10.0.0.1");
    dev.nipel = {{inet_addr("10.0.0.1")}, {inet_addr("255.0.0.0")}};
    inet_pton(AF_INET6, "fd00::5", &dev.nipel6.addr);
    dev.sipel.masklen = 64;
    copy_text(dev.bcast, "10.255.255.255");
    return dev;
}

TEST_F(IoctlTest, UndoesWhatFailsHalfWay)
{
    vdevinfo dev = target();
    const names words = {
        {"<addr>", "ADDR eth0:1 0a000001;"}, {"<mask>", "MASK eth0:1 ff000000;"},
        {"<brd>", "BRD eth0:1 0affffff;"},   {"<up>", "SFLAGS eth0:1 67;"},
        {"<down>", "SFLAGS eth0:1 2;"},      {"<clear>", "ADDR eth0:1 00000000;"},
        {"<eio>", " failed.(errno=5)]"},     {"<six>", "fd000000000000000000000000000005 64 7;"}};
    const auto open_before = open_files();
    for (const auto &row : table(changes, words)) {
        ipv6flag = row[0] == "6" ? 1 : 0;
        copy_text(dev.vdevname, ipv6flag != 0 ? "" : "eth0:1");
        copy_text(dev.sipel.addr, ipv6flag != 0 ? "fd00::5" : "10.0.0.1");
        kernel = {row.at(2), row.at(3), -1, ""};
        const int code = row.at(1) == "add" ? nic_act_ipaddr_ioctl(&dev) : nic_deact_ipaddr_ioctl(&dev);
        EXPECT_EQ(traced("nic_deact_ipaddr_ioctl | Delete IP successfully."), row.at(5) == "gone");
        EXPECT_EQ(join(outcome(code), kernel.asked), join(row.at(6), row.at(4)))
            << join(row[0], row[1], row[2]);
    }
    EXPECT_EQ(open_files(), open_before);
}

TEST_F(IoctlTest, CutsNoName_WhichCouldBeAnotherInterfaces)
{
    vdevinfo dev = target();
    copy_text(dev.vdevname, "sixteen-letters:"); // too long for the kernel, and the command for its line
    copy_text(info.ifconfcmd, std::string(1000, '/').c_str());
    kernel = {"", "-", -1, ""};
    EXPECT_EQ(nic_act_ipaddr_ioctl(&dev), NIC_ERR_SIOCSIFADDR);
    EXPECT_EQ(nic_deact_ipaddr_ioctl(&dev), NIC_ERR_SIOCGIFFLAGS);
    EXPECT_EQ(fip_act_ipaddr(&dev, &info), FIP_ERR_IFNAME);
    EXPECT_EQ(fip_deact_ipaddr(&dev, &info), FIP_ERR_ABNORMAL);
    EXPECT_EQ(kernel.asked, "");
}

TEST_F(IoctlTest, StopsNoInterface_WithTheGuard)
{
    vdevinfo dev = target();
    copy_text(dev.vdevname, "eth0");
    IsIfconfig = 0;
    for (practice.guardif = 1; practice.guardif >= 0; --practice.guardif) {
        kernel = {"MASK", "-", -1, ""};
        EXPECT_EQ(fip_act_ipaddr(&dev, &info), FIP_ERR_ADD);
        EXPECT_EQ(kernel.asked.ends_with("SFLAGS eth0 2;"), practice.guardif == 0) << kernel.asked;
    }
}
