// What the agent makes of the kernel's interface list: the inventory, and the announcement of an address.

#include "fip/arp.h"
#include "fip/inventory.h"
#include "fip_fixture.h"

#include <deque>
#include <ifaddrs.h>
#include <regex>
#include <sys/socket.h>

namespace
{

struct list_entry {
    ifaddrs ifa = {};
    std::string name;
    alignas(sockaddr_ll) unsigned char addr[64] = {};
    alignas(sockaddr_ll) unsigned char other[64] = {}; // netmask or broadcast address
};

// The kernel: its list, and how many packets it takes; then one falls short by `cut` bytes, or fails when 0.
struct {
    std::deque<list_entry> list; // never moves its elements
    bool list_fails, socket_fails;
    int lent, sends;
    std::size_t cut;
    std::string sent; // "PACKET > DESTINATION" in hexadecimal
} kernel;

list_entry &add(const char *name, int family)
{
    list_entry &added = kernel.list.emplace_back();
    added.name = name;
    added.ifa.ifa_name = added.name.data();
    added.ifa.ifa_addr = family == AF_UNSPEC ? nullptr : reinterpret_cast<sockaddr *>(added.addr);
    added.addr[0] = static_cast<unsigned char>(family);
    return added;
}

// An address and its netmask; IPv6 when they look like it.
void add_address(const char *name, const char *addr, const char *mask)
{
    const bool six = strchr(addr, ':') != nullptr;
    list_entry &added = add(name, six ? AF_INET6 : AF_INET);
    const std::size_t at = six ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr);
    inet_pton(added.addr[0], addr, added.addr + at);
    added.ifa.ifa_netmask = inet_pton(added.addr[0], mask, added.other + at) == 1
                                ? reinterpret_cast<sockaddr *>(added.other)
                                : nullptr;
}

// A hardware address of `length` bytes A1, A2, A3 ...; its broadcast address is all ones.
void add_link(const char *name, unsigned char length, bool broadcast = true)
{
    list_entry &added = add(name, AF_PACKET);
    auto *sll = reinterpret_cast<sockaddr_ll *>(added.addr);
    sll->sll_hatype = length > 8 ? 32 : 1;
    sll->sll_ifindex = 7;
    sll->sll_halen = length;
    memcpy(added.other, added.addr, sizeof(added.other));
    for (unsigned i = 0; i < length; ++i) {
        added.addr[offsetof(sockaddr_ll, sll_addr) + i] = static_cast<unsigned char>(0xa1 + i);
        added.other[offsetof(sockaddr_ll, sll_addr) + i] = 0xff;
    }
    added.ifa.ifa_broadaddr = broadcast ? reinterpret_cast<sockaddr *>(added.other) : nullptr;
}

} // namespace

extern "C" {
int __wrap_getifaddrs(ifaddrs **list)
{
    errno = ENOBUFS;
    *list = nullptr;
    for (auto entry = kernel.list.rbegin(); entry != kernel.list.rend(); ++entry) {
        entry->ifa.ifa_next = *list;
        *list = &entry->ifa;
    }
    kernel.lent += kernel.list_fails ? 0 : 1;
    return kernel.list_fails ? -1 : 0;
}

void __wrap_freeifaddrs(ifaddrs * /*list*/)
{
    --kernel.lent;
}

int __real_socket(int family, int type, int protocol);

int __wrap_socket(int family, int type, int protocol)
{
    EXPECT_EQ(join(family, type & ~SOCK_CLOEXEC, protocol), join(AF_PACKET, SOCK_DGRAM, 0));
    return kernel.socket_fails ? -1 : __real_socket(AF_UNIX, type, 0);
}

ssize_t __wrap_sendto(int /*sock*/, const void *data, std::size_t size, int /*flags*/, const sockaddr *to,
                      socklen_t tosize)
{
    errno = ENETDOWN;
    if (kernel.sends-- <= 0) {
        return kernel.cut != 0 ? static_cast<ssize_t>(size - kernel.cut) : -1;
    }
    kernel.sent += join(hex(data, size), ">", hex(to, tosize), "");
    return static_cast<ssize_t>(size);
}
}

class IfaddrsTest : public FipTest
{
protected:
    vdevinfo dev = {};
    ipaddrinfo *list = nullptr;
    int num = -1;

    void SetUp() override
    {
        FipTest::SetUp();
        kernel = {{}, false, false, 0, 100, 0, ""};
        IsIfconfig = 0;
        copy_text(dev.ifname, "eth0:2");
        dev.nipel.addr = {inet_addr("192.168.0.100")};
    }
};

TEST_F(IfaddrsTest, MakesInventory)
{
    add("noaddress", AF_UNSPEC);
    add_link("lo", 6);
    add_link("eth0", 6);
    add_link("eth0", 20); // the first entry of a name wins
    add_link("ib0", 20);
    add_link("ETH1", 6);
    add_address("lo", "127.0.0.1", "255.0.0.0");
    add_address("lo:1", "127.0.0.2", "255.0.0.0");
    add_address("eth0:1", "192.168.0.11", "255.255.255.0");
    add_address("eth1", "10.0.0.1", "none");
    add_address("ib0", "fd00::1", "fffe::");
    ASSERT_EQ(fip_ifconfig_mkth(&list, &num, &info), 0);
    const inventory_rows rows(list);
    std::string all;
    for (const ipaddrinfo *row = list; row < list + num; ++row) {
        all += join(row->index, row->ifname, row->sipel.addr, row->sipel.mask, row->sipel.masklen, row->smac,
                    "\n");
    }
    EXPECT_EQ(all, "0 lo:1 127.0.0.2 255.0.0.0 0  \n"
                   "1 eth0:1 192.168.0.11 255.255.255.0 0 A1A2A3A4A5A6 \n"
                   "2 eth1 10.0.0.1 0.0.0.0 0  \n"
                   "3 ib0 fd00::1  15 A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3B4 \n");
    EXPECT_EQ(join(hex(&list[1].nipel, 8), hex(list[1].macaddr, 7)), "c0a8000bffffff00 a1a2a3a4a5a600");
    EXPECT_EQ(join(hex(&list[3].nipel6, 18), hex(list[3].macaddr, 20)),
              "fd000000000000000000000000000001fffe a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4");
    EXPECT_EQ(hex(&list[1].nipel6, 32) + hex(&list[3].nipel, 8), std::string(80, '0'));
    EXPECT_EQ(kernel.lent, 0);
}

TEST_F(IfaddrsTest, TellsWhyThereIsNoInventory)
{
    add_link("eth0", 6);
    add_address("lo", "127.0.0.1", "255.0.0.0");
    EXPECT_EQ(outcome(nic_get_all_info(&list, &num)), "3 [no ip address found.]");
    kernel.list_fails = true;
    EXPECT_EQ(outcome(fip_ifconfig_mkth(&list, &num, &info)),
              "38 [getifaddrs() failed.(errno=105)] Get nic info failed.");
    EXPECT_EQ(join(num, list, kernel.lent), "-1 0 0");
}

TEST_F(IfaddrsTest, Announces_ToBroadcastAddress)
{
    add("eth0", AF_UNSPEC);
    add_link("eth01", 20);
    add_link("eth0", 0); // goes on behind an entry without a hardware address
    add_link("eth0", 6);
    EXPECT_EQ(fip_send_arp(&dev, 0, 2) + fip_send_arp(&dev, -1, 2) + fip_send_arp(&dev, 1, 2), 0);
    EXPECT_EQ(kernel.sent, "0001080006040002a1a2a3a4a5a6c0a80064a1a2a3a4a5a6c0a80064 > "
                           "110008060700000001000006ffffffffffff0000 ");
    EXPECT_EQ(join(dev.smac, hex(dev.macaddr, 7)), "A1:A2:A3:A4:A5:A6 a1a2a3a4a5a600");

    kernel = {{}, false, false, 0, 100, 0, ""};
    add_link("eth0", 20);
    EXPECT_EQ(fip_send_arp(&dev, 1, 1), 0);
    const std::string mac = "a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4";
    EXPECT_EQ(kernel.sent, "0020080014040001" + mac + "c0a80064" + mac +
                               "c0a80064 > 110008060700000020000014" + std::string(40, 'f') + " ");
    EXPECT_EQ(join(dev.smac, hex(dev.macaddr, 20)),
              join("A1:A2:A3:A4:A5:A6:A7:A8:A9:AA:AB:AC:AD:AE:AF:B0:B1:B2:B3:B4", mac));
}

TEST_F(IfaddrsTest, TellsWhyNothingIsAnnounced)
{
    const std::string device =
        "17 [send_arp: No such device [eth0:2], ifnamebase [eth0]] Fip interface was not found.";
    const std::string mac = "17 [send_arp: No MAC Address [eth0:2]]", internal = "] Internal error. (status=";
    const std::tuple<void (*)(), std::string, std::size_t> cases[] = {
        {[] { kernel.list_fails = true; }, "34 [getifaddrs(-1) failed. (errno=105)" + internal + "34)", 0},
        {[] { add_link("ETH0", 6); }, device, 0},
        {[] { add("eth0", AF_UNSPEC); }, device, 0},
        {[] { add_link("eth0", 0); }, mac, 0},
        {[] { // read as a hardware address, its byte 11 would be the length
             add_address("eth0", "fd00:a06::1", "ffff::");
             kernel.list.back().ifa.ifa_broadaddr = kernel.list.back().ifa.ifa_netmask;
         },
         mac, 0},
        {[] { add_link("eth0", 6, false); }, mac, 0},
        {[] { add_link("eth0", 21); }, mac, 0},
        {[] { kernel.socket_fails = true; }, "19 [socket() failed. (sock=-1)" + internal + "19)", 0},
        {[] { kernel.sends = 2; }, "21 [sendto(N) failed. (errno=100)" + internal + "21)", 2},
        {[] { kernel.sends = 0, kernel.cut = 1; },
         "21 [send_arp: Sent [27]byte. expected to send [28]byte.\\n" + internal + "21)", 0},
    };
    for (const auto &[setup, expected, sent] : cases) {
        kernel = {{}, false, false, 0, 100, 0, ""};
        setup();
        if (kernel.list.empty()) {
            add_link("eth0", 6);
        }
        const std::string left = outcome(fip_send_arp(&dev, 5, 1));
        EXPECT_EQ(std::regex_replace(left, std::regex("sendto.[0-9]+"), "sendto(N"), expected);
        EXPECT_EQ(join(kernel.sent.size(), kernel.lent), join(sent * 100, 0));
    }
}
