// The inventory from ifconfig's output, and whether that command is used at all.

#include "fip/inventory.h"
#include "fip_fixture.h"

class InventoryTest : public FipTest
{
protected:
    // Takes an inventory with a command of this body: the outcome, and behind it ";NAME ADDRESS MASK BITS
    // TEXT=BYTES" for each row, the bytes without the zeros at their end.
    std::string take(const std::string &body, int v6 = 0)
    {
        ipv6flag = v6;
        if (!body.empty()) {
            copy_text(info.ifconfcmd, script("if$config", body).c_str());
        }
        ipaddrinfo *list = nullptr;
        int num = 0;
        std::string result = outcome(fip_ifconfig_mkth(&list, &num, &info));
        const inventory_rows rows(list);
        for (int i = 0; i < num; ++i) {
            const ipaddrinfo &row = rows[static_cast<std::size_t>(i)];
            vdevinfo read = {};
            EXPECT_TRUE(row.sipel.addr[0] == '\0' ||
                        fip_parse_addr(row.sipel.addr, &read.nipel.addr, &read.nipel6.addr));
            EXPECT_TRUE(row.sipel.mask[0] == '\0' ||
                        fip_parse_addr(row.sipel.mask, &read.nipel.mask, &read.nipel6.mask));
            EXPECT_EQ(hex(&row.nipel, 8) + hex(&row.nipel6, 32), hex(&read.nipel, 8) + hex(&read.nipel6, 32));
            EXPECT_EQ(row.index, static_cast<unsigned>(i));
            const std::string bytes = hex(row.macaddr, 20),
                              mac = bytes.substr(0, bytes.find_last_not_of('0') + 1);
            result.append(";").append(
                join(row.ifname, row.sipel.addr, row.sipel.mask, row.sipel.masklen, row.smac));
            result.append("=").append(mac);
        }
        return result;
    }
};

constexpr char ethernet[] = "eth0      Link encap:Ethernet  HWaddr 00:50:56:9A:1B:2C\n"
                            "          inet addr:192.168.0.10  Bcast:192.168.0.255  Mask:255.255.255.0\n"
                            "          inet6 addr: fe80::1/64 Scope:Link\n"
                            "          INET6 ADDR: fd01::1/128 Scope:Global\n"
                            "          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1\n"
                            "\n"
                            "eth0:1    Link encap:Ethernet  HWaddr 00:50:56:9A:1B:2D\n"
                            "          inet addr:192.168.0.11  Bcast:192.168.0.255  Mask:255.255.255.0\n"
                            "lo        Link encap:Local Loopback\n"
                            "          inet addr:127.0.0.1  Mask:255.0.0.0";

TEST_F(InventoryTest, ReadsOlderLayout)
{
    const std::string mac = "00:50:56:9A:1B:2C=0050569a1b2c", mac1 = "00:50:56:9A:1B:2D=0050569a1b2d";
    const std::string ib = "80:00:00:48:FE:80:00:00:00:00:00:00:00:02:C9:03:00:0E:0F:11", pad(1100, ' ');
    const std::string bad_mac = "18 [mac adderss is invalid.] Internal error. (status=18)";
    std::string many, many_rows = "0", many6 = "e\n", many6_rows = "0";
    for (int i = 11; i < 44; ++i) { // the rows grow twice
        const std::string n = std::to_string(i);
        many.append("e").append(n).append(" inet addr:10.0.0.").append(n).append(" Mask:255.0.0.0\n");
        many_rows.append(";e").append(n).append(" 10.0.0.").append(n).append(" 255.0.0.0 0 =");
        many6.append(" inet6 addr: fd00::").append(n).append("/16\n");
        many6_rows.append(";e fd00::").append(n).append(" ffff:: 16 =");
    }
    const std::tuple<int, std::string, std::string> cases[] = {
        {0, ethernet,
         "0;eth0 192.168.0.10 255.255.255.0 0 " + mac + ";eth0:1 192.168.0.11 255.255.255.0 0 " + mac1 +
             ";lo 127.0.0.1 255.0.0.0 0 ="},
        {1, ethernet,
         "0;eth0 fe80::1 ffff:ffff:ffff:ffff:: 64 " + mac +
             ";eth0 fd01::1 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 128 " + mac + ";eth0:1   0 " + mac1 +
             ";lo   0 ="},
        {0, many, many_rows},
        {1, many6, many6_rows},
        {0, "ib0 HWADDR " + ib + "\n", "0;ib0   0 " + ib + "=80000048fe800000000000000002c903000e0f11"},
        {0, "a HWaddr 1:2:3:4:5:6 inet addr:1.2.3.4\tmask:255.0.0.0\n",
         "0;a 1.2.3.4 255.0.0.0 0 1:2:3:4:5:6=010203040506"},
        {0, "a inet Mask:255.0.0.0 addr:1.2.3.4\n  inet\n  inet HWaddr 1FF:2:3:4:5:6\n",
         "0;a  255.0.0.0 0 1FF:2:3:4:5:6=ff0203040506"},
        {0, "a inet  addr:1.2.3.4 inet addr:5.6.7.8\n", "0;a 5.6.7.8  0 ="},
        {1,
         "a inet6 addr:  ::1/8\n inet6 fe80::1/64\n inet6 addr:\n inet6 addr:x fe80::2/10 mask:255.0.0.0\n",
         "0;a fe80::2 ffc0:: 10 ="},
        {0, "eth0 HWaddr 01:02:03:04:05:06:07:08\n", bad_mac},
        {0, "eth0 HWaddr 00-50-56-9A-1B-2C\n", bad_mac},
        {1, "eth0\n inet6 addr: " + std::string(46, '1') + "/64\n", "29 [FIP address is invalid]"},
        {1, "eth0\n inet6 addr: fe80::1/129\n", "31 [over max mask bit num.(mask bit=129)]"},
        {0, "", "0"},
        {0, "\n\n   inet addr:1.2.3.4\n\tHWaddr x\n", "0"},
        {0, std::string(40, 'n') + " x\n", "0;" + std::string(31, 'n') + "   0 ="},
        // What a line has behind the buffer's end is passed over, and a token cut there too.
        {0, "eth0" + pad + "inet addr:1.2.3.4\neth1\n", "0;eth0   0 =;eth1   0 ="},
        {0, "eth0" + pad.substr(0, 1000) + " inet addr:192.168.0.10\neth1\n", "0;eth0   0 =;eth1   0 ="},
        {0, std::string("e inet\0 addr:1.2.3.4\n inet addr:5.6.7.8\n\0\0\n", 42), "0;e 5.6.7.8  0 ="},
    };
    for (const auto &[v6, output, expected] : cases) {
        write("output", output);
        EXPECT_EQ(take("cat $HERE/output", v6), expected) << output;
    }
    unsigned char mac20[20];
    EXPECT_EQ(outcome(fip_crt_macaddr(nullptr, mac20)),
              "18 [mac address is null.] Internal error. (status=18)");
    EXPECT_EQ(fip_crt_macaddr("1:2:3:4:5:6", nullptr), 18);
}

TEST_F(InventoryTest, JudgesHowCommandEnds)
{
    EXPECT_EQ(take("echo \"$1$2\""), "0;-a   0 =");
    const std::string command = "'~/if$config' -a"; // one word for the shell
    EXPECT_EQ(take("echo eth0; exit 1"),
              "3 [" + command + " : failed. (ret=1)] Command failed. (" + command + ", ret=1)");
    EXPECT_EQ(take("kill -9 0").substr(0, 49), "11 [pclose(" + command + ") error. (ret=0,errno=");
    EXPECT_EQ(take("head -c 100000000 /dev/zero"), "0");
    info.checkloopc = 100;
    EXPECT_EQ(take("echo eth0; " + hanging),
              "23 [thread timeout. command :ifconfig] Internal error. (status=23)");
    expect_ended();
    info.checkloopc = 6000;
    EXPECT_EQ(take("echo eth0 HWaddr 1:2; " + hanging).substr(0, 3), "18 "); // nobody waits for the rest
    expect_ended();
    const std::string longest = home.string().append(1011 - home.string().size(), '/').append("/ifconfig");
    script("ifconfig", "echo eth8");
    for (const auto &[path, code] :
         {std::pair{longest, "0"}, {"/" + longest, "11"}, {"////" + longest, "11"}}) {
        copy_text(info.ifconfcmd, path.c_str());
        EXPECT_EQ(take("").substr(0, strlen(code)), code) << path.size();
    }
}

TEST_F(InventoryTest, TellsLayoutOfOneLine)
{
    const std::pair<nic_layout, std::vector<std::string>> cases[] = {
        {NIC_LAYOUT_OPEN,
         {"eth0  Link", "eth0:1  Link", "  eth0: x", "inet addr:1", "  inet inet addr:x", "  inet  addr:1",
          "  inet"}},
        {NIC_LAYOUT_OLDER, {"\tINET6 ADDR: ::1/128", "eth0 x inet addr:1", "  inet x inet addr:x"}},
        {NIC_LAYOUT_NEWER, {"eth0: flags=4163<UP>", ":"}},
    };
    for (const auto &[layout, lines] : cases) {
        for (std::string line : lines) {
            EXPECT_EQ(nic_scan_layout(line.data()), layout) << line;
        }
    }
}

TEST_F(InventoryTest, DetectsUseOfCommand)
{
    const std::string before = "/usr/sbin:/usr/bin:/sbin:/bin", path = (home / "bin:").string() + before;
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {"printf 'eth0 Link\\n  inet addr:1.2.3.4\\n'; exit 7", 0, 60, "1 0 [ifconfig -a : failed. (ret=7)]"},
        {"printf 'eth0: flags\\n  inet addr:1.2.3.4\\n'", 0, 60, "0 0"},
        {"printf '%1100s\\neth0: x\\n inet addr:1\\n' x", 0, 60, "0 0"},
        {":", 0, 60, "0 0"},
        {"", 0, 60, "0 0 [which ifconfig > /dev/null 2>&1 failed,ifconfig does not exist.(ret=127)]"},
        {"echo ' inet addr:1'; touch $HERE/ran", 1, 60, "0 0"},
        {"echo ' inet addr:1'", 0, 0, "0 21 [thread timeout nic_cmd_chk.]"},
        {hanging, 0, 1, "0 21 [thread timeout nic_cmd_chk.]"},
    };
    for (const auto &[body, use, timeout, expected] : cases) {
        script("bin/ifconfig", body);
        setenv("PATH", body.empty() ? "/none" : path.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        const int code = nic_chk_isifconfig(&IsIfconfig, use, timeout);
        setenv("PATH", before.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        EXPECT_EQ(join(IsIfconfig, outcome(code)), expected) << body;
    }
    EXPECT_FALSE(fs::exists(home / "ran"));
    expect_ended();
}
