// The inventory from ifconfig's output.

#include "fip/address_text.h"
#include "fip/ifconfig_output.h"
#include "fip/inventory.h"
#include "fip_fixture.h"

struct InventoryTest : FipTest {
    // Takes an inventory with a command of this body: the outcome, and behind it "; NAME ADDRESS MASK BITS
    // TEXT BYTES" for each row, the bytes without the zeros at their end.
    std::string take(const std::string &body, bool v6 = false)
    {
        ipv6flag = v6 ? 1 : 0;
        copy_text(info.ifconfcmd, script("if$config", body).c_str());
        inventory rows;
        std::string result = outcome(fip_ifconfig_mkth(&rows, &info));
        for (const ipaddrinfo &row : rows) {
            vdevinfo read = {};
            static_cast<void>(fip_parse_addr(row.sipel.addr, &read.nipel.addr, &read.nipel6.addr));
            static_cast<void>(fip_parse_addr(row.sipel.mask, &read.nipel.mask, &read.nipel6.mask));
            EXPECT_EQ(hex(&row.nipel, 8), hex(&read.nipel, 8));
            EXPECT_EQ(hex(&row.nipel6, 32), hex(&read.nipel6, 32));
            const std::string bytes = std::regex_replace(hex(row.macaddr, 20), std::regex("0*$"), "");
            EXPECT_EQ(row.index, &row - rows.data());
            result +=
                join(";", row.ifname, row.sipel.addr, row.sipel.mask, row.sipel.masklen, row.smac, bytes);
        }
        return result;
    }
};

TEST_F(InventoryTest, ReadsOlderLayout)
{
    const std::string ib = "80:00:00:48:FE:80:00:00:00:00:00:00:00:02:C9:03:00:0E:0F:11", pad(1100, ' ');
    const std::string bad_mac = "18 [mac adderss is invalid.] Internal error. (status=18)";
    const std::string mac = "00:50:56:9A:1B:2C 0050569a1b2c";
    std::string many, many_rows = "0";
    for (int i = 0; i < 50; ++i) { // room for more is made for an address and, at row 48, for an interface
        many += i % 3 == 0 ? "e\n" : "";
        many += " inet6 addr: fd00::" + std::to_string(i + 1) + "/16\n";
        many_rows += join("; e", "fd00::" + std::to_string(i + 1), "ffff:: 16  ");
    }
    const std::tuple<bool, std::string, std::string> cases[] = {
        // WHETHER IPV6, OUTPUT OF THE COMMAND, WHAT IS TAKEN
        {true,
         "e HWaddr 00:50:56:9A:1B:2C\n inet6 addr: fe80::1/16 Scope:Link\n INET6 ADDR: fd01::1/0\n\nf\n",
         "0; e fe80::1 ffff:: 16 " + mac + "; e fd01::1 :: 0 " + mac + "; f   0  "},
        {true, many, many_rows},
        {false, "ib0 HWADDR " + ib + "\n", "0; ib0   0 " + ib + " 80000048fe800000000000000002c903000e0f11"},
        {false, "a inet Mask:255.0.0.0 addr:1.2.3.4\n HWaddr 1FF:2:3:4:5:6\n",
         "0; a  255.0.0.0 0 1FF:2:3:4:5:6 ff0203040506"},
        {true, "a inet6 addr: fd00::1/16%a:1\n", "0; a fd00::1 ffff:: 16  "},
        {true, "a inet6 addr:  ::1/8\n inet6 fe80::1/64\n inet6 addr:\n", "0; a   0  "},
        {false, "eth0 HWaddr 01:02:03:04:05:06:07:08\n", bad_mac},
        {true, "eth0\n inet6 addr: fe80::1/129\n", "31 [over max mask bit num.(mask bit=129)]"},
        {false, "\n\n   inet addr:1.2.3.4\n\tHWaddr x\n", "0"},
        {false, std::string(40, 'n') + " x\n", "0; " + std::string(31, 'n') + "   0  "},
        // What a line has behind the buffer's end is passed over, and a token cut there too.
        {false, "eth0" + pad + "inet addr:1.2.3.4\neth1\n", "0; eth0   0  ; eth1   0  "},
        {false, "eth0" + pad.substr(0, 1000) + " inet addr:192.168.0.10\neth1\n",
         "0; eth0   0  ; eth1   0  "},
        {false, "eth0" + pad.substr(0, 997) + "inet addr:192.168.0.10\n", "0; eth0 192.168.0.10  0  "},
        {false, "eth0" + pad.substr(0, 1002) + " HWaddr 1:2:3:4:5:6\n inet addr:1.2.3.4\n",
         "0; eth0 1.2.3.4  0  "},
        {false, std::string("e inet\0 addr:1.2.3.4\n inet addr:5.6.7.8\n\0\0\n", 42), "0; e 5.6.7.8  0  "},
    };
    for (const auto &[v6, output, expected] : cases) {
        write("output", output);
        EXPECT_EQ(take("cat $HERE/output", v6), expected) << output;
    }
    EXPECT_EQ(fullnotation, 0); // what an interface carries says nothing of the run's own address
}

TEST_F(InventoryTest, JudgesHowCommandEnds)
{
    EXPECT_EQ(take("kill -9 0").substr(0, 45), "11 [pclose('~/if$config' -a) error. (ret=0,er");
    EXPECT_EQ(take("exec yes eth0").substr(0, 12), "10 [realloc(");
    EXPECT_EQ(take("head -c 100000000 /dev/zero"), "0");
}
