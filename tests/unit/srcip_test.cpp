// Source-address routing: the route table's reader, and the check against the other resources.

#include "fip/srcip.h"
#include "fip_fixture.h"
#include "hurry.h"

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);

// A route table that can be opened, but not read.
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return __real_fopen(strcmp(path, "/proc/net/route") == 0 ? "/proc" : path, mode);
}
}

using SrcipTest = FipTest;

TEST_F(SrcipTest, ReadsDefaultRoute)
{
    const std::pair<std::string, std::string> cases[] = {
        {"eth1\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0   \n", "192.168.1.1"},
        {"eth1 00000000 fe01000a 0003 0 0 0 00000000" + std::string(2000, ' '), "10.0.1.254"},
        {"eth10 00000000 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 0000A8C0 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 0101A8C0 0003 0 0 0 000000FF 0 0 0\n", ""},
        {"eth1 xyz 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 0101A8C0 0003 0 0 0\n", ""},
    };
    for (const auto &[text, expected] : cases) {
        std::string line = text;
        char gateway[INET_ADDRSTRLEN] = "";
        EXPECT_NE(fip_read_default_route(line.data(), "eth1", gateway, sizeof(gateway)), expected.empty());
        EXPECT_EQ(gateway, expected) << text;
    }
}

TEST_F(SrcipTest, FailsForCommandThatDoesNotEnd_AndForTableThatCannotBeRead)
{
    vdevinfo dev = {};
    const std::string search = getenv("PATH");
    setenv("PATH", (home.string() + ":" + search).c_str(), 1);
    script("ip", "exec true");
    EXPECT_EQ(outcome(fip_srcip_set(&dev)), "99 [fgets(/proc/net/route) failed. (errno=21)]");
    script("ip", "exec sleep 2");
    hurry_ms = 0;
    EXPECT_EQ(outcome(fip_srcip_set(&dev)).substr(0, 21), "11 [pclose(ip route r");
    hurry_ms = -1;
    setenv("PATH", search.c_str(), 1);
}

TEST_F(SrcipTest, ChecksOtherResources)
{
    ipaddrinfo row = {"eth1:1", 0, {{inet_addr("10.0.0.5")}, {}}, {}, {}, "", {}};
    const std::tuple<const char *, const char *, std::string> cases[] = {
        {"eth1:5", "7</ip></parameters><server name='node1'><parameters><ip>10.0.0.5</ip>", "15"},
        {"eth1:5", "5</ip></parameters><server name='node1'><parameters><ip>10.0.0.7</ip>", "0"},
        {"eth1:5", "55</ip></parameters><server name='node1'><parameters>", "0"},
        {"eth10", "5</ip></parameters><server name='node1'><parameters>", "0"},
    };
    for (const auto &[ifname, ip, expected] : cases) {
        start_config("<fip name='b'><parameters><srcip><use>1</use></srcip><ip>10.0.0." + std::string(ip) +
                     "</parameters></server></fip>");
        vdevinfo dev = {};
        copy_text(dev.ifname, ifname);
        EXPECT_EQ(outcome(fip_srcip_check(&row, 1, &dev, "fip1")).substr(0, 2), expected) << ip;
    }
}
