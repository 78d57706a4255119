// Hardware addresses in the kernel's list: the announcement's, and the inventory's.

#include "fip/arp.h"
#include "fip_fixture.h"
#include "nicInventory.h"

#include <ifaddrs.h>
#include <sys/syscall.h>

// The kernel's list: an IPv6 address, and a hardware address A1 A2 A3 ... with a broadcast address of ones.
alignas(sockaddr_ll) unsigned char inet6[64] = {AF_INET6}, addr[64] = {}, broadcast[64] = {};
ifaddrs link_entry = {}, list = {};
int sends;  // that the kernel takes until one falls short by a byte
bool rings; // whether it gives an io_uring
std::string sent;

extern "C" {
int __real_socket(int family, int type, int protocol);
long __real_syscall(long number, long a, long b, long c, long d);

int __wrap_getifaddrs(ifaddrs **head)
{
    *head = &list;
    return 0;
}

void __wrap_freeifaddrs(ifaddrs * /*list*/) {}

int __wrap_socket(int family, int type, int protocol)
{
    EXPECT_EQ(join(family, type & ~SOCK_CLOEXEC, protocol), join(AF_PACKET, SOCK_DGRAM, 0));
    return __real_socket(AF_UNIX, type, 0);
}

long __wrap_syscall(long number, long a, long b, long c, long d)
{
    return rings || number != SYS_io_uring_setup ? __real_syscall(number, a, b, c, d) : -1;
}

ssize_t __wrap_sendto(int fd, const void *data, std::size_t size, int, const sockaddr *to, socklen_t tosize)
{
    timeval limit = {};
    socklen_t limit_size = sizeof(limit);
    getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &limit_size);
    EXPECT_EQ(limit.tv_sec, 1); // a stuck device does not hang the run
    sent += hex(data, size) + ">" + hex(to, tosize);
    return static_cast<ssize_t>(size) - (sends-- > 0 ? 0 : 1);
}
}

using IfaddrsTest = FipTest;

static long open_sockets()
{
    std::error_code gone;
    long sockets = 0;
    for (const auto &fd : fs::directory_iterator("/proc/self/fd"))
        sockets += fs::read_symlink(fd, gone).string().starts_with("socket:") ? 1 : 0;
    return sockets;
}

TEST_F(IfaddrsTest, AnnouncesAndLists)
{
    const std::string mac = "a1a2a3a4a5a6", ip = "c0a80064", mac20 = mac + "a7a8a9aaabacadaeafb0b1b2b3b4";
    const std::string six =
        "0001080006040002" + mac + ip + mac + ip + ">110008060700000001000006ffffffffffff0000";
    const std::string twenty =
        "0020080014040002" + mac20 + ip + mac20 + ip + ">110008060700000020000014" + std::string(40, 'f');
    const std::string none = "17 [send_arp: No MAC Address [eth0:2]]";
    char name[] = "eth0", other[] = "eth01";
    const struct {
        char *ifname;
        unsigned char length;
        bool broadcast, rings;
        int sends;
        std::string outcome, sent, listed;
    } cases[] = {
        {name, 6, true, true, 2, "0", six + six, mac},
        {name, 6, true, true, 0, "21 [send_arp: Sent [27]byte. expected to send [28]byte.", six, mac},
        {name, 20, true, false, 2, "0", twenty + twenty, mac20},
        {name, 6, false, true, 2, none, "", mac},
        {name, 0, true, true, 2, none, "", ""},
        {name, 21, true, true, 2, none, "", mac20},
        {other, 6, true, true, 2, none, "", ""}, // what is left has no hardware address, but could be read so
    };
    const auto open_before = open_files();
    for (const auto &row : cases) {
        const auto type = static_cast<unsigned short>(row.length > 8 ? 32 : 1);
        const sockaddr_ll sll = {AF_PACKET, 0, 7, type, 0, row.length, {}};
        memcpy(addr, &sll, sizeof(sll));
        memcpy(broadcast, &sll, sizeof(sll));
        std::iota(addr + offsetof(sockaddr_ll, sll_addr), addr + sizeof(sll) + 12, 0xa1);
        memset(broadcast + offsetof(sockaddr_ll, sll_addr), 0xff, row.length);
        inet6[offsetof(sockaddr_ll, sll_halen)] = 6;
        auto *to = reinterpret_cast<sockaddr *>(row.broadcast ? broadcast : nullptr);
        link_entry = {nullptr, row.ifname, 0, reinterpret_cast<sockaddr *>(addr), nullptr, {to}, nullptr};
        list = {&link_entry, name, 0, reinterpret_cast<sockaddr *>(inet6), nullptr, {to}, nullptr};
        sends = row.sends;
        rings = row.rings;
        sent.clear();
        vdevinfo dev = {};
        copy_text(dev.ifname, "eth0:2");
        dev.nipel.addr = {inet_addr("192.168.0.100")};
        EXPECT_TRUE(outcome(fip_send_arp(&dev, 2, 2)).starts_with(row.outcome)) << row.outcome;
        EXPECT_EQ(sent, row.sent);
        fip_close_arp();
        EXPECT_EQ(open_sockets(), row.rings ? 0 : 1); // which waits for the end of the process
        EXPECT_EQ(hex(dev.macaddr, 20).starts_with(row.length > 6 ? mac20 : mac), !sent.empty());
        inventory rows;
        ASSERT_EQ(nic_get_all_info(&rows), NIC_SUCCESS);
        ASSERT_EQ(rows.size(), 1);
        EXPECT_STRCASEEQ(rows[0].smac, row.listed.c_str());
        EXPECT_EQ(hex(rows[0].macaddr, row.listed.size() / 2), row.listed);
    }
    EXPECT_EQ(open_files(), open_before + 1); // the ring
}
