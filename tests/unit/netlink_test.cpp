// The kernel by rtnetlink: the advertisement of a link, and a removal that is disturbed.

#include "fip/address_change.h"
#include "fip/nd.h"
#include "fip_fixture.h"

#include <net/if_arp.h>

// What happens right before a request of the type is sent; with the command "-" the request fails.
struct {
    int type;
    std::string command;
} disturbance;

std::string shell(const std::string &command)
{
    char output[512] = "";
    const std::unique_ptr<FILE, decltype(&pclose)> pipe(popen(command.c_str(), "re"), pclose);
    return {output, fread(output, 1, sizeof(output), pipe.get())};
}

extern "C" {
decltype(sendto) __real_sendto;

ssize_t __wrap_sendto(int fd, const void *data, std::size_t size, int flags, const sockaddr *to,
                      socklen_t length)
{
    const bool meant = static_cast<const nlmsghdr *>(data)->nlmsg_type == disturbance.type;
    if (meant && disturbance.command == "-") {
        errno = EIO;
        return -1;
    }
    shell(meant ? disturbance.command : ":");
    return __real_sendto(fd, data, size, flags, to, length);
}
}

using NetlinkTest = FipTest;

TEST_F(NetlinkTest, AdvertisesHardwareAddress_HoweverLong)
{
    const std::tuple<std::size_t, int, std::string> cases[] = {
        // BYTES OF THE ADDRESS, LINK TYPE, OPTION
        {8, ARPHRD_IEEE1394, "0202a1a2a3a4a5a6a7a8000000000000"},
        {20, ARPHRD_INFINIBAND, "02030000a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4"},
    };
    for (const auto &[maclen, type, option] : cases) {
        nl_link link = {1, type, true, false, maclen, {}};
        std::iota(link.mac, link.mac + maclen, 0xa1);
        unsigned char pkt[NA_PACKET_SIZE] = {};
        const std::size_t size = make_na(pkt, in6_addr{{{0xfd, 1}}}, link);
        EXPECT_EQ(hex(pkt, size), "8800000020000000fd01" + std::string(28, '0') + option);
    }
}

constexpr char disturbances[] = R"(
REQUEST | COMMAND | OUTCOME | WHAT IS LEFT: v, WHICH IS UP, AND ITS ADDRESSES
DEL | ip address delete 10.0.0.9/24 dev v | 0 | v 10.0.0.8
NEW | ip address add 10.0.0.8/24 dev v | 0 | v 10.0.0.8 10.0.0.9
NEW | - | 0 [10.0.0.9 (v) went with 10.0.0.1 and is lost. (errno=5)] IP address 10.0.0.8 was lost with 10.0.0.1. | v
DEL | ip address delete 10.0.0.1/24 dev v | <refused>99)] Delete ip(10.0.0.1) failed. | v
DUMP | - | <refused>5)] Delete ip(10.0.0.1) failed. | v 10.0.0.1 10.0.0.9 10.0.0.8
)";

TEST_F(NetlinkTest, PutsBackWhatItsRemovalTook_AndNothingElse)
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    shell("ip link add v up type bridge; echo 0 >/proc/sys/net/ipv4/conf/v/promote_secondaries");
    practice.guardif = 1;
    vdevinfo dev = {};
    copy_text(dev.sipel.addr, "10.0.0.1");
    dev.nipel.addr = {inet_addr(dev.sipel.addr)};
    copy_text(info.ifname, "v");
    const std::map<std::string, int> types = {
        {"DEL", RTM_DELADDR}, {"NEW", RTM_NEWADDR}, {"DUMP", RTM_GETADDR}};
    for (const auto &row :
         table(disturbances, {{"<refused>", "40 [RTM_DELADDR(10.0.0.1 -> v) failed. (errno="}})) {
        shell("ip address flush dev v; for n in 1 9 8; do ip address add 10.0.0.$n/24 dev v; done");
        disturbance = {types.at(row[0]), row.at(1)};
        EXPECT_EQ(outcome(fip_deact_ipaddr(&dev, &info)), row.at(2));
        disturbance = {};
        EXPECT_EQ(shell("ip -4 -o address show v | sed 's|/.*||; s|.* ||' | xargs echo $(ip -br link show v "
                        "up | cut -c 1)"),
                  row.at(3) + "\n")
            << row.at(1);
    }
    practice.guardif = 0;
}
