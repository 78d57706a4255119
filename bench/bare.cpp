/// The least that an activation can cost: the same requests to the kernel and the same ARP frame, nothing
/// else. With "behind" it leaves the close of the packet socket to the kernel, as the agent does.
///
///   bare INTERFACE ALIAS ADDRESS NETMASK BROADCAST [behind]

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/if_packet.h>
#include <linux/io_uring.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

void check(bool good, const char *what)
{
    if (!good) {
        perror(what);
        exit(EXIT_FAILURE);
    }
}

void set(int sock, ifreq *ifr, unsigned long code, const char *address)
{
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    inet_pton(AF_INET, address, &sin.sin_addr);
    memcpy(&ifr->ifr_addr, &sin, sizeof(sin));
    check(ioctl(sock, code, ifr) == 0, "ioctl");
}

} // namespace

int main(int argc, char **argv)
{
    check(argc == 6 || argc == 7, "usage");
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq base = {};
    snprintf(base.ifr_name, IFNAMSIZ, "%s", argv[1]);
    ifreq alias = {};
    snprintf(alias.ifr_name, IFNAMSIZ, "%s", argv[2]);
    set(sock, &alias, SIOCSIFADDR, argv[3]);
    set(sock, &alias, SIOCSIFNETMASK, argv[4]);
    set(sock, &alias, SIOCSIFBRDADDR, argv[5]);
    check(ioctl(sock, SIOCGIFFLAGS, &alias) == 0, "SIOCGIFFLAGS");
    alias.ifr_flags = static_cast<short>(alias.ifr_flags | IFF_UP | IFF_RUNNING);
    check(ioctl(sock, SIOCSIFFLAGS, &alias) == 0, "SIOCSIFFLAGS");

    check(ioctl(sock, SIOCGIFHWADDR, &base) == 0, "SIOCGIFHWADDR");
    unsigned char frame[28] = {0, 1, 8, 0, 6, 4, 0, 1};
    memcpy(frame + 8, base.ifr_hwaddr.sa_data, 6);
    inet_pton(AF_INET, argv[3], frame + 14);
    memcpy(frame + 18, frame + 8, 10);
    check(ioctl(sock, SIOCGIFINDEX, &base) == 0, "SIOCGIFINDEX");
    sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETHERTYPE_ARP);
    to.sll_ifindex = base.ifr_ifindex;
    to.sll_halen = 6;
    memset(to.sll_addr, 0xff, 6);
    const int packet = socket(AF_PACKET, SOCK_DGRAM, 0);
    check(sendto(packet, frame, sizeof(frame), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) ==
              static_cast<ssize_t>(sizeof(frame)),
          "sendto");
    if (argc == 7) {
        io_uring_params params = {};
        const auto ring = static_cast<int>(syscall(SYS_io_uring_setup, 1, &params));
        check(syscall(SYS_io_uring_register, ring, IORING_REGISTER_FILES, &packet, 1) == 0, "io_uring");
    }
    return 0;
}
