// The address argument, taken apart, and the interface and alias chosen for it.

#include "fip/address_text.h"
#include "fip/target.h"
#include "fip_fixture.h"

using AddressTest = FipTest;

// "-" for a field that is untouched, "." for an empty one.
std::string shown(const char *field)
{
    return *field == '#' ? "-" : *field == '\0' ? "." : field;
}

// <15> and <45> are texts of this length.
constexpr char arguments[] = R"(
ARGUMENT | OUTCOME | ADDRESS MASK LENGTH INTERFACE FAMILY WHETHER-IT-NAMES-AN-ALIAS
1.2.3.4/0 | 0 | 1.2.3.4 0.0.0.0 0 - 4 0
1.2.3.4/-1 | 31 [Mask is invalid.(mask=-1)] | 1.2.3.4 - -1 - 4 0
1.2.3.4/4294967320 | 31 [over max mask bit num.(mask bit=2147483647)] | 1.2.3.4 - 2147483647 - 4 0
1.2.3.4/000000000000024 | 0 | 1.2.3.4 255.255.255.0 24 - 4 0
1.2.3.4/0000000000000024 | 31 [Mask is invalid.(mask=0000000000000024)] | 1.2.3.4 - - - 4 0
10.0.0.1%eth0:1:2 | 30 [IP alias is invalid.(alias=1:2)] | 10.0.0.1 - - eth0:1:2 4 0
10.0.0.1%eth0:9999 | 0 | 10.0.0.1 - - eth0:9999 4 1
10.0.0.1%e:10000 | 30 [over max IP alias num.(alias=10000)] | 10.0.0.1 - - e:10000 4 0
10.0.0.1%<15> | 0 | 10.0.0.1 - - <15> 4 0
10.0.0.1%<15>x | 30 [Interface name is too long.] | 10.0.0.1 - - <15>x 4 0
10.0.0.1%<15>:000000000000001 | 0 | 10.0.0.1 - - <15>:000000000000001 4 1
10.0.0.1%<15>:0000000000000001 | 30 [Interface name is too long.] | 10.0.0.1 - - - 4 0
10.0.0.1%et<tab>h0 | 30 [Interface name is invalid.] | 10.0.0.1 - - et<tab>h0 4 0
10.0.0.1/xx%eth0:1 | 31 [Mask is invalid.(mask=xx)] | 10.0.0.1 - 0 eth0:1 4 1
10.0.0.1/xx%eth0:x | 30 [IP alias is invalid.(alias=x)] | 10.0.0.1 - - eth0:x 4 0
<45> | 0 | <45> - - - 4 0
<45>1 | 29 [FIP address is invalid] | - - - - 4 0
fd00::5/0 | 0 | fd00::5 :: 0 - 6 0
fd00::5/33%eth0:1 | 0 | fd00::5 ffff:ffff:8000:: 33 eth0:1 6 1
fd00::5/129 | 31 [over max mask bit num.(mask bit=129)] | fd00::5 - 129 - 6 0
)";

TEST_F(AddressTest, IsTakenApart)
{
    for (const auto &row :
         table(arguments, {{"<15>", "fifteen-letters"}, {"<45>", std::string(45, '1')}, {"<tab>", "\t"}})) {
        FIP_INFO out;
        memset(&out, '#', sizeof(out));
        fullnotation = fip_ipck(row[0].c_str());
        EXPECT_EQ(nic_ipck(row[0].c_str()), ipv6flag);
        const int code = fip_div_ipmask(row[0].c_str(), out.addr, out.mask, &out.masklen, out.ifname);
        EXPECT_EQ(outcome(code), row.at(1)) << row[0];
        const std::string length = out.masklen == 0x23232323 ? "-" : std::to_string(out.masklen);
        const std::string flags = join(4 + 2 * ipv6flag, fullnotation);
        EXPECT_EQ(join(shown(out.addr), shown(out.mask), length, shown(out.ifname), flags), row.at(2));
    }
}

struct TargetTest : FipTest {
    // Both forms of "ADDRESS[/BITS]"; sets ipv6flag.
    static vdevinfo parse(const std::string &text)
    {
        vdevinfo to = {};
        fip_ipck(text.c_str());
        EXPECT_EQ(fip_div_ipmask(text.c_str(), to.sipel.addr, to.sipel.mask, &to.sipel.masklen, nullptr), 0);
        EXPECT_TRUE(fip_parse_addr(to.sipel.addr, &to.nipel.addr, &to.nipel6.addr));
        static_cast<void>(fip_parse_addr(to.sipel.mask, &to.nipel.mask, &to.nipel6.mask));
        return to;
    }

    // Rows from "NAME[=ADDRESS/BITS] ...", at most ten; the hardware address of row N is N.
    static inventory rows_of(const std::string &text)
    {
        inventory rows;
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            const std::size_t equals = word.find('=');
            const vdevinfo from = equals < word.size() ? parse(word.substr(equals + 1)) : vdevinfo{};
            const auto n = static_cast<unsigned char>(rows.size());
            rows.push_back({"", n, from.nipel, from.nipel6, from.sipel, {static_cast<char>('0' + n)}, {n}});
            copy_text(rows.back().ifname, word.substr(0, equals).c_str());
        }
        return rows;
    }

    // As in the last column of the targets.
    std::string choose(const inventory &rows, const std::string &address, const char *ifname)
    {
        vdevinfo dev = parse(address);
        copy_text(dev.ifname, ifname);
        const std::string left = outcome(fip_crt_vdevinfo(rows, &dev));
        EXPECT_EQ(atoi(dev.smac), dev.macaddr[0]); // NOLINT(cert-err34-c)
        return join(left + ":", shown(dev.ifname), shown(dev.vdevname), shown(dev.sipel.mask),
                    dev.sipel.masklen, shown(dev.bcast), shown(dev.smac));
    }
};

// IPv4 by subnet, then on a configured interface; IPv6; an interface with rows of the other family.
constexpr char targets[] = R"(
INVENTORY | ADDRESS | CONFIGURED INTERFACE | OUTCOME: INTERFACE DEVICE MASK LENGTH BROADCAST HARDWARE-ADDRESS
e=10.1.0.1/24 f=10.1.2.1/24 f:0=10.1.2.2/24 | 10.1.2.3 |  | 0: f f:1 255.255.255.0 0 10.1.2.255 1
e=10.1.0.1/16 E:0=1.1.1.1/8 e:2=1.1.1.2/8 | 10.1.2.3 |  | 0: e e:1 255.255.0.0 0 10.1.255.255 0
e=10.1.0.1/16 e:00=1.1.1.1/8 ee:0=1.1.1.3/8 | 10.1.2.3 |  | 0: e e:0 255.255.0.0 0 10.1.255.255 0
e f=10.1.2.3/32 g=0.0.0.0/0 | 10.1.2.3 |  | <lost>10.1.2.3<in> . . . 0 . .
13-characters=1.1.1.1/8 | 1.2.3.4 |  | 0: 13-characters 13-characters:0 255.0.0.0 0 1.255.255.255 0
14--characters=1.1.1.1/8 | 1.2.3.4 |  | <long> 14--characters 14--characters:0 255.0.0.0 0 1.255.255.255 0
eth10=10.1.0.1/16 eth1=1.0.0.1/8 | 10.1.2.3 | eth1 | 0: eth1 eth1:0 255.0.0.0 0 10.255.255.255 1
eth10=10.1.0.1/16 | 10.1.2.3 | eth1 | 0: eth1 eth1 255.255.255.0 0 10.1.2.255 .
ETH1=10.1.0.1/24 | 10.1.2.3/16 | eth1:7 | 0: eth1:7 eth1:7 255.255.0.0 16 10.1.255.255 .
eth1 | 10.1.2.3 | eth1 | 0: eth1 eth1:0 0.0.0.0 0 255.255.255.255 0
e=fd01::1/56 e=10.1.0.1/16 | 10.1.2.3 | e | 0: e e:0 255.255.0.0 0 10.1.255.255 1
lo=fd00::5/128 e f=fd00::1/0 g=fd00::1/64 | fd00::5 |  | 0: g . . 64 . 3
e=fd00:0:0:1::1/64 | fd00::5/48 |  | <lost>fd00::5<in> . . ffff:ffff:ffff:: 48 . .
eth10=fd01::1/64 eth1=fd01::2/56 | fd00::5 | eth1 | 0: eth1 . . 56 . 1
e=10.1.0.1/16 e=fd01::1/56 | fd00::5 | e | 0: e . . 56 . 1
f=10.1.0.1/16 e=10.1.0.1/16 | fd00::5 | e | 0: e . . 64 . 1
e=fd01::1/56 e:0=10.3.0.1/8 | 10.1.2.3/16 | e:7 | 0: e:7 e:7 255.255.0.0 16 10.1.255.255 0
e=fd01::1/56 e=fd02::1/56 | 10.1.2.3 | e | 0: e e:0 255.255.255.0 0 10.1.2.255 0
e=fd01::1/64 | fd00::5 | e:1 | 0: e:1 e:1 . 64 . .
)";

TEST_F(TargetTest, IsChosen)
{
    const names words = {{"<lost>", "17 [Not found fip interface. [IP: "},
                         {"<in>", "]] Fip interface was not found.:"},
                         {"<long>", "30 [Interface name is too long.]:"}};
    for (const auto &row : table(targets, words))
        EXPECT_EQ(choose(rows_of(row[0]), row.at(1), row.at(2).c_str()), row.at(3)) << row[0];
    inventory rows = rows_of("e=10.1.0.1/16");
    for (int alias = 0; alias <= 9999; ++alias) {
        rows.push_back(rows[0]);
        copy_text(rows.back().ifname, ("e:" + std::to_string(alias)).c_str());
    }
    EXPECT_TRUE(choose(rows, "10.1.2.3", "").starts_with("17 "));
    EXPECT_EQ(fip_chk_ifname(rows, "E:9999"), 1);
    rows.pop_back();
    EXPECT_EQ(choose(rows, "10.1.2.3", ""), "0: e e:9999 255.255.0.0 0 10.1.255.255 0");
}
