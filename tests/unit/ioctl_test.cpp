// An address added and removed, by ioctl and by command.

#include "fip/ipaddr.h"
#include "fip_fixture.h"

#include <linux/ipv6.h>
#include <map>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

// A kernel that records what it is asked to change, and refuses one request with EIO.
struct {
    std::string refused; // a request's name, or "socket"
    const char *present; // the address that SIOCGIFADDR finds, null for none
    int six_fd;          // the socket of the IPv6 family
    std::string asked;
} kernel;

const std::map<unsigned long, std::string> names = {
    {SIOCSIFADDR, "ADDR"},    {SIOCDIFADDR, "DEL6"},    {SIOCSIFNETMASK, "MASK"}, {SIOCSIFBRDADDR, "BRD"},
    {SIOCGIFFLAGS, "GFLAGS"}, {SIOCSIFFLAGS, "SFLAGS"}, {SIOCGIFINDEX, "INDEX"},  {SIOCGIFADDR, "GADDR"},
};

int answer(const std::string &request)
{
    errno = EIO;
    return kernel.refused == request ? -1 : 0;
}

int serve_ipv6(const std::string &request, const in6_ifreq &ifr6)
{
    kernel.asked += join(request, hex(&ifr6.ifr6_addr, 16), ifr6.ifr6_prefixlen, ifr6.ifr6_ifindex) + ";";
    return answer(request);
}

int serve(const std::string &request, ifreq *ifr)
{
    sockaddr_in sin = {};
    memcpy(&sin, &ifr->ifr_addr, sizeof(sin));
    if (request == "ADDR" || request == "MASK" || request == "BRD") {
        EXPECT_EQ(join(sin.sin_family, sin.sin_port), join(AF_INET, 0));
        kernel.asked += join(request, ifr->ifr_name, hex(&sin.sin_addr, 4)) + ";";
    } else if (request == "SFLAGS") {
        kernel.asked += join(request, ifr->ifr_name, ifr->ifr_flags) + ";";
    } else if (request == "GFLAGS") {
        ifr->ifr_flags = IFF_BROADCAST | IFF_UP;
    } else if (request == "INDEX") {
        ifr->ifr_ifindex = 7;
    } else if (kernel.refused != "GADDR" && kernel.present == nullptr) {
        errno = EADDRNOTAVAIL;
        return -1;
    } else if (kernel.present != nullptr) {
        sin = {AF_INET, 0, {inet_addr(kernel.present)}, {}};
        memcpy(&ifr->ifr_addr, &sin, sizeof(sin));
    }
    return answer(request);
}

} // namespace

extern "C" {
int __real_socket(int family, int type, int protocol);

int __wrap_socket(int family, int type, int protocol)
{
    const int fd = answer("socket") != 0 ? -1 : __real_socket(AF_UNIX, type, protocol);
    kernel.six_fd = family == AF_INET6 ? fd : -1;
    return fd;
}

int __wrap_ioctl(int fd, unsigned long code, ...)
{
    va_list args;
    va_start(args, code);
    void *data = va_arg(args, void *);
    va_end(args);
    const bool six = fd == kernel.six_fd && (code == SIOCSIFADDR || code == SIOCDIFADDR);
    return six ? serve_ipv6(names.at(code), *static_cast<in6_ifreq *>(data))
               : serve(names.at(code), static_cast<ifreq *>(data));
}
}

class IoctlTest : public FipTest
{
protected:
    vdevinfo four = {}, six = {};

    void SetUp() override
    {
        FipTest::SetUp();
        kernel = {"", nullptr, -1, ""};
        copy_text(four.ifname, "eth0");
        copy_text(four.vdevname, "eth0:1");
        copy_text(four.sipel.addr, "10.0.0.1");
        copy_text(four.sipel.mask, "255.0.0.0");
        copy_text(four.bcast, "10.255.255.255");
        four.nipel = {{inet_addr("10.0.0.1")}, {inet_addr("255.0.0.0")}};
        copy_text(six.ifname, "eth0");
        copy_text(six.sipel.addr, "fd00::5");
        six.sipel.masklen = 64;
        six.nipel6.addr = {{{0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}}};
        copy_text(info.ifname, "eth0:1");
        copy_text(info.addr, "fd00::5");
        info.masklen = 48;
    }

    // Runs one of the two with a command of this body: the outcome, and behind it what the command was called
    // with.
    std::string command(bool add, int v6, const std::string &body)
    {
        ipv6flag = v6;
        fs::remove(home / "called");
        copy_text(info.ifconfcmd,
                  script("if config", "printf '<%s>' \"$@\" > $HERE/called\n" + body).c_str());
        const vdevinfo &dev = v6 != 0 ? six : four;
        const std::string left = outcome(add ? fip_act_ipaddr(&dev, &info) : fip_deact_ipaddr(&dev, &info));
        return left + read_file(home / "called");
    }
};

TEST_F(IoctlTest, UndoesWhatFailsHalfWay)
{
    const std::string addr = "ADDR eth0:1 0a000001;", mask = addr + "MASK eth0:1 ff000000;",
                      brd = mask + "BRD eth0:1 0affffff;", up = "SFLAGS eth0:1 67;",
                      down = "SFLAGS eth0:1 2;", clear = "ADDR eth0:1 00000000;", up6 = "SFLAGS eth0 67;",
                      six6 = " fd000000000000000000000000000005 64 7;", add6 = "ADDR" + six6,
                      del6 = "DEL6" + six6;
    // v6, add, refused, present, outcome, asked, whether "Delete IP successfully." is traced
    const std::tuple<int, int, std::string, const char *, std::string, std::string, bool> cases[] = {
        {0, 1, "", nullptr, "0", brd + up, false},
        {0, 1, "socket", nullptr, "9 [scoket failed.(errno=5)]", "", false},
        {0, 1, "ADDR", nullptr, "10 [SIOCSIFADDR failed.(errno=5)]", addr, false},
        {0, 1, "MASK", nullptr, "11 [SIOCSIFNETMASK failed.(errno=5)]", mask + down, true},
        {0, 1, "BRD", nullptr, "12 [SIOCSIFBRDADDR failed.(errno=5)]", brd + down, true},
        {0, 1, "BRD", "10.0.0.1", "12 [SIOCSIFBRDADDR failed.(errno=5)]", brd + down + clear, true},
        {0, 1, "GFLAGS", nullptr, "15 [SIOCGIFFLAGS failed.(errno=5)]", brd, false},
        {0, 1, "SFLAGS", nullptr, "13 [SIOCSIFFLAGS failed.(errno=5)]", brd + up + down, false},
        {1, 1, "", nullptr, "0", add6 + up6, false},
        {1, 1, "socket", nullptr, "9 [scoket failed.(errno=5)]", "", false},
        {1, 1, "INDEX", nullptr, "14 [SIOCGIFINDEX failed.(errno=5)]", "", false},
        {1, 1, "ADDR", nullptr, "10 [SIOCSIFADDR failed.(errno=5)]", add6, false},
        {1, 1, "GFLAGS", nullptr, "15 [SIOCGIFFLAGS failed.(errno=5)]", add6 + del6, true},
        {1, 1, "SFLAGS", nullptr, "13 [SIOCSIFFLAGS failed.(errno=5)]", add6 + up6 + del6, true},
        {0, 0, "", nullptr, "0", down, true},
        {0, 0, "socket", nullptr, "9 [socket failed.(errno=5)]", "", false},
        {0, 0, "GFLAGS", nullptr, "15 [SIOCGIFFLAGS failed.(errno=5)]", "", false},
        {0, 0, "SFLAGS", nullptr, "13 [SIOCSIFFLAGS failed.(errno=5)]", down, false},
        {0, 0, "GADDR", nullptr, "15 [SIOCGIFADDR failed.(errno=5)]", down, false},
        {0, 0, "", "10.0.0.1", "0", down + clear, true},
        {0, 0, "", "10.0.0.2", "0", down, false},
        {0, 0, "ADDR", "10.0.0.1", "10 [SIOCSIFADDR [0.0.0.0] failed.]", down + clear, false},
        {1, 0, "", nullptr, "0", del6, true},
        {1, 0, "INDEX", nullptr, "14 [SIOCGIFINDEX failed.(errno=5)]", "", false},
        {1, 0, "DEL6", nullptr, "16 [SIOCDIFADDR failed.(errno=5)]", del6, false},
    };
    const auto files = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto open_before = files();
    for (const auto &[v6, add, refused, present, expected, asked, gone] : cases) {
        SCOPED_TRACE(join(v6, add, refused));
        kernel = {refused, present, -1, ""};
        const vdevinfo &dev = v6 != 0 ? six : four;
        const int code = add != 0 ? nic_act_ipaddr_ioctl(&dev) : nic_deact_ipaddr_ioctl(&dev);
        EXPECT_EQ(traced("nic_deact_ipaddr_ioctl | Delete IP successfully."), gone);
        EXPECT_EQ(outcome(code), expected);
        EXPECT_EQ(kernel.asked, asked);
    }
    EXPECT_EQ(files(), open_before);
}

TEST_F(IoctlTest, RefusesName_TooLongForKernel)
{
    copy_text(four.vdevname, "sixteen-letters:");
    copy_text(six.ifname, "sixteen-letters:");
    EXPECT_EQ(nic_act_ipaddr_ioctl(&four), 10);
    EXPECT_EQ(nic_deact_ipaddr_ioctl(&four), 15);
    EXPECT_EQ(nic_act_ipaddr_ioctl(&six), 14);
    EXPECT_EQ(nic_deact_ipaddr_ioctl(&six), 14);
    EXPECT_EQ(kernel.asked, "");
    copy_text(four.vdevname, "fifteen-letters");
    EXPECT_EQ(nic_deact_ipaddr_ioctl(&four), 0);
    EXPECT_EQ(kernel.asked, "SFLAGS fifteen-letters 2;");
}

TEST_F(IoctlTest, NamesAddress_InResultMessage)
{
    IsIfconfig = 0;
    EXPECT_EQ(outcome(fip_act_ipaddr(&four, &info)) + outcome(fip_deact_ipaddr(&four, &info)), "00");
    kernel.refused = "GFLAGS";
    EXPECT_EQ(outcome(fip_act_ipaddr(&four, &info)),
              "39 [SIOCGIFFLAGS failed.(errno=5)] Add ip(10.0.0.1) failed.");
    EXPECT_EQ(outcome(fip_deact_ipaddr(&four, &info)),
              "40 [SIOCGIFFLAGS failed.(errno=5)] Delete ip(10.0.0.1) failed.");
}

TEST_F(IoctlTest, RunsCommand)
{
    EXPECT_EQ(command(true, 0, ""), "0<eth0:1><10.0.0.1><netmask><255.0.0.0><broadcast><10.255.255.255><up>");
    EXPECT_EQ(command(true, 1, ""), "0<eth0><add><fd00::5/64>");
    EXPECT_EQ(command(false, 0, ""), "0<eth0:1><down>");
    EXPECT_EQ(command(false, 1, ""), "0<eth0:1><del><fd00::5/48>");
    const std::string line = "\"~/if config\" eth0:1 down > /dev/null 2>&1";
    EXPECT_EQ(command(false, 0, "exit 1"),
              "3 [" + line + " failed. (ret=1)] Internal error. (status=3)<eth0:1><down>");
    EXPECT_EQ(command(false, 0, "kill -9 0"),
              "11 [system(" + line + ") failed. (ret=0)] Internal error. (status=11)<eth0:1><down>");
    info.checkloopc = 100;
    EXPECT_EQ(command(false, 0, hanging),
              "23 [thread timeout. command :ifconfig] Internal error. (status=23)<eth0:1><down>");
    expect_ended();
    copy_text(info.ifname, "$(touch x);'`&|");
    EXPECT_EQ(command(false, 0, ""), "0<$(touch x);'`&|><down>");
    copy_text(info.ifconfcmd, std::string(1000, '/').c_str()); // cut, it could change another interface
    EXPECT_EQ(fip_act_ipaddr(&four, &info) * 100 + fip_deact_ipaddr(&four, &info), 1111);
    EXPECT_STREQ(shmbuf, "Internal error. (status=11)");
}
