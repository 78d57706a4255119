// Source-address routing: the route table's reader, and the check against the other resources.

#include "fip/srcip.h"
#include "fip_fixture.h"

namespace
{
const char *host_name = nullptr; // null: the call fails
} // namespace

extern "C" int __wrap_gethostname(char *name, std::size_t size)
{
    return host_name != nullptr && copy_text(name, size, host_name) ? 0 : -1;
}

using SrcipTest = FipTest;

TEST_F(SrcipTest, ReadsDefaultRoute)
{
    const std::pair<std::string, std::string> cases[] = {
        {"eth1\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0   \n", "192.168.1.1"},
        {"eth1 00000000 fe01000a 0003 0 0 0 00000000" + std::string(2000, ' '), "10.0.1.254"},
        {"eth10 00000000 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"ETH1 00000000 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 0000A8C0 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 0101A8C0 0003 0 0 0 000000FF 0 0 0\n", ""},
        {"eth1 xyz 0101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 101A8C0 0003 0 0 0 00000000 0 0 0\n", ""},
        {"eth1 00000000 0101A8C0 0003 0 0 0\n", ""},
        {"", ""},
    };
    for (const auto &[text, expected] : cases) {
        std::string line = text;
        char gateway[INET_ADDRSTRLEN] = "";
        EXPECT_NE(fip_read_default_route(line.data(), "eth1", gateway, sizeof(gateway)), expected.empty())
            << text;
        EXPECT_EQ(gateway, expected) << text;
    }
}

TEST_F(SrcipTest, ChecksOtherResources)
{
    vdevinfo dev = {};
    copy_text(dev.ifname, "eth1:5");
    ipaddrinfo rows[3] = {};
    copy_text(rows[0].ifname, "eth1:1");
    rows[0].nipel.addr = {inet_addr("10.0.0.5")};
    copy_text(rows[1].ifname, "eth10");
    rows[1].nipel.addr = {inet_addr("10.0.0.6")};
    copy_text(rows[2].ifname, "eth1:2"); // only the first row of an address counts
    rows[2].nipel.addr = {inet_addr("10.0.0.6")};
    const std::string attached = "15 [10.0.0.5 has already been attached to eth1.]";
    const std::string b = "/root/resource/fip@b/parameters/";
    const struct {
        const char *ip, *use, *node1, *host;
        std::string outcome;
    } cases[] = {
        {"10.0.0.5", "0", "", "n", "0"},
        {"10.0.0.5/24%eth0:3", "1", "", "n", attached},
        {"10.0.0.5%eth1:1", "1", "", "n", attached},
        {"10.0.0.6", "1", "", "n", "0"},
        {"10.0.0.55", "1", "", "n", "0"},
        {"10.0.0.7", "1", "10.0.0.5", "node1.example.com", attached},
        {"10.0.0.5", "1", "10.0.0.7", "node1.example.com", "0"},
        {"10.0.0.5", "1", "", nullptr, "33 [get_hostname() failed. (errno=0)]"},
        {"10.0.0.5", "x", "", "n", "9 [xmllib_get_value(" + b + "srcip/use, 1) failed. (ret=9)]"},
        {nullptr, "1", "", "n", "9 [xmllib_get_srvsep_value(" + b + "ip,ip) failed. (ret=4)]"},
    };
    const std::string own =
        "<fip name='fip1'><parameters><srcip><use>1</use></srcip><ip>10.0.0.5</ip></parameters>";
    for (const auto &row : cases) {
        std::ostringstream xml;
        xml << own << "</fip><fip name='b'><parameters><srcip><use>" << row.use << "</use></srcip>"
            << (row.ip == nullptr ? "" : join("<ip>", row.ip, "</ip>"))
            << "</parameters><server name='node1'>"
            << (*row.node1 == '\0' ? "" : join("<parameters><ip>", row.node1, "</ip></parameters>"));
        start_config(xml.str() + "</server></fip>");
        host_name = row.host;
        errno = 0;
        EXPECT_EQ(outcome(fip_srcip_check(rows, 3, &dev, "fip1")), row.outcome) << xml.str();
    }
    start_config(own + "</fip>");
    fs::remove(home / "etc/policy/fip.xml");
    EXPECT_EQ(outcome(fip_srcip_check(rows, 3, &dev, "fip1")), "8 [xmllib_load_policy(fip) failed. (ret=4)]");
    start_config("");
    EXPECT_EQ(outcome(fip_srcip_check(rows, 3, &dev, "fip1")),
              "99 [xmllib_enum_value(/root/resource/fip) failed. (ret=4)]");
}
