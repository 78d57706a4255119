#include "arp.h"

#include "../fip.h"
#include "../text.h"
#include "../unique_fd.h"
#include "trace_source.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <linux/io_uring.h>
#include <memory>
#include <net/ethernet.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

/// The name that these lines carry.
constexpr char self[] = "sendarp";

constexpr std::size_t ip_length = sizeof(in_addr);

/// How long a send may wait for room in the device's queue, seconds: a stuck device must not hang the run.
constexpr int send_limit_s = 1;

/// The packet socket of all announcements of the run. Closing it waits for an RCU grace period, 10 ms or so,
/// and the announcement is made inside the critical section: with fifty addresses to take over, the last of
/// them would be up half a second later.
unique_fd packet_socket;

/// Holds that socket at the end, for the kernel to close it.
unique_fd closing_ring;

const unsigned char *mac_of(const sockaddr_ll *sll)
{
    return reinterpret_cast<const unsigned char *>(sll) + offsetof(sockaddr_ll, sll_addr);
}

unsigned char *put(unsigned char *at, const void *bytes, std::size_t len)
{
    memcpy(at, bytes, len);
    return at + len;
}

/// The interface's link-layer entry. *known tells whether the interface has any entry at all.
/// Only a packet entry is a link-layer address: read as one, an IPv6 address would seem to have a length.
const ifaddrs *find_link_entry(const ifaddrs *list, const char *ifnamebase, bool *known)
{
    *known = false;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || strcmp(entry->ifa_name, ifnamebase) != 0) {
            continue;
        }
        *known = true;
        if (entry->ifa_addr->sa_family == AF_PACKET &&
            reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr)->sll_halen != 0) {
            return entry;
        }
    }
    return nullptr;
}

void record_mac(vdevinfo *dev, const sockaddr_ll *sll)
{
    const unsigned char *mac = mac_of(sll);
    memset(dev->macaddr, 0, sizeof(dev->macaddr));
    memcpy(dev->macaddr, mac, sll->sll_halen);
    memset(dev->smac, 0, sizeof(dev->smac));
    std::size_t len = 0;
    for (std::size_t i = 0; i < sll->sll_halen; ++i) {
        len += static_cast<std::size_t>(
            snprintf(dev->smac + len, sizeof(dev->smac) - len, i == 0 ? "%02X" : ":%02X", mac[i]));
    }
}

int send_packets(int sock, const unsigned char *pkt, std::size_t pktsz, const void *dst, socklen_t dstsz,
                 int count)
{
    for (int i = 0; i < count; ++i) {
        const ssize_t sent = sendto(sock, pkt, pktsz, 0, static_cast<const sockaddr *>(dst), dstsz);
        if (sent < 0) {
            TRACE_AS(self, TRACE_ERROR, "sendto(%d) failed. (errno=%d)", sock, errno);
            return fip_internal_error(FIP_ERR_SEND);
        }
        if (static_cast<std::size_t>(sent) != pktsz) {
            TRACE_AS(self, TRACE_ERROR, "send_arp: Sent [%d]byte. expected to send [%d]byte.\n",
                     static_cast<int>(sent), static_cast<int>(pktsz));
            return fip_internal_error(FIP_ERR_SEND);
        }
    }
    return FIP_SUCCESS;
}

/// Builds the packet for the link entry and sends it to the entry's broadcast address.
int announce(const vdevinfo &dev, const ifaddrs &entry, int count, int opcode)
{
    const auto *sll = reinterpret_cast<const sockaddr_ll *>(entry.ifa_addr);
    char ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &dev.nipel.addr, ip, sizeof(ip));
    unsigned char pkt[ARP_PACKET_SIZE] = {};
    const unsigned int pktsz = make_arp(pkt, ip, sll, opcode);
    const socklen_t dstsz = sll->sll_halen <= sizeof(sll->sll_addr)
                                ? static_cast<socklen_t>(sizeof(sockaddr_ll))
                                : static_cast<socklen_t>(offsetof(sockaddr_ll, sll_addr) + sll->sll_halen);
    TRACE_AS(self, TRACE_DEBUG, "make_arp()  completes...pktsz = %d, dstsz = %d", static_cast<int>(pktsz),
             static_cast<int>(dstsz));

    alignas(sockaddr_ll) unsigned char dst[sizeof(sockaddr_ll) + MAC_SIZE];
    memcpy(dst, entry.ifa_broadaddr, dstsz);
    reinterpret_cast<sockaddr_ll *>(dst)->sll_protocol = htons(ETHERTYPE_ARP);

    if (packet_socket.fd < 0) {
        packet_socket.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    if (packet_socket.fd < 0) {
        TRACE_AS(self, TRACE_ERROR, "socket() failed. (sock=%d)", packet_socket.fd);
        return fip_internal_error(FIP_ERR_SOCKET);
    }
    const timeval limit = {send_limit_s, 0};
    setsockopt(packet_socket.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    return send_packets(packet_socket.fd, pkt, pktsz, dst, dstsz, count);
}

} // namespace

unsigned int make_arp(unsigned char *pkt, const char *ip, const sockaddr_ll *sll, int opcode)
{
    TRACE(TRACE_DEBUG, "make_arp()  ENTRY...");
    in_addr addr = {};
    inet_aton(ip, &addr);
    const unsigned char *mac = mac_of(sll);
    const std::size_t hln = sll->sll_halen;

    arphdr header = {};
    header.ar_hrd = htons(sll->sll_hatype);
    header.ar_pro = htons(ETHERTYPE_IP);
    header.ar_hln = sll->sll_halen;
    header.ar_pln = ip_length;
    header.ar_op = htons(static_cast<std::uint16_t>(opcode));

    unsigned char *at = put(pkt, &header, sizeof(header));
    for (int role = 0; role < 2; ++role) { // sender, then target
        at = put(at, mac, hln);
        at = put(at, &addr, ip_length);
    }
    return static_cast<unsigned int>(at - pkt);
}

int fip_send_arp(vdevinfo *pvdevinfo, int count, int opcode)
{
    TRACE_AS(self, TRACE_DEBUG, "fip_send_arp()  ENTRY...");
    ifaddrs *head = nullptr;
    const int list_ret = getifaddrs(&head);
    if (list_ret != 0) {
        TRACE_AS(self, TRACE_ERROR, "getifaddrs(%d) failed. (errno=%d)", list_ret, errno);
        return fip_internal_error(FIP_ERR_IFLIST);
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(head, freeifaddrs);

    char ifnamebase[sizeof(pvdevinfo->ifname)];
    copy_base(ifnamebase, pvdevinfo->ifname);
    bool known = false;
    const ifaddrs *entry = find_link_entry(list.get(), ifnamebase, &known);
    if (!known) {
        TRACE_AS(self, TRACE_ERROR, "send_arp: No such device [%s], ifnamebase [%s]", pvdevinfo->ifname,
                 ifnamebase);
        fip_set_message("Fip interface was not found.");
        return FIP_ERR_NODEV;
    }
    // Without a broadcast address, or with a hardware address beyond every known type's, nothing can be sent.
    if (entry == nullptr || entry->ifa_broadaddr == nullptr ||
        reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr)->sll_halen > MAC_SIZE) {
        TRACE_AS(self, TRACE_ERROR, "send_arp: No MAC Address [%s]", pvdevinfo->ifname);
        return FIP_ERR_NODEV;
    }
    record_mac(pvdevinfo, reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr));
    return announce(*pvdevinfo, *entry, count, opcode);
}

void fip_close_arp()
{
    if (packet_socket.fd < 0) {
        return;
    }
    // The files that are registered with an io_uring (io_uring(7)) are released by a kernel thread after the
    // ring itself is closed, so that nobody waits. Before Linux 5.13, where IORING_FEAT_RSRC_TAGS came, the
    // registration would wait instead; an administrator may have switched rings off, or no descriptor be
    // free. Then it is the process's end that takes longer.
    io_uring_params params = {};
    closing_ring.reset(static_cast<int>(syscall(SYS_io_uring_setup, 1, &params)));
    if ((params.features & IORING_FEAT_RSRC_TAGS) != 0 &&
        syscall(SYS_io_uring_register, closing_ring.fd, IORING_REGISTER_FILES, &packet_socket.fd, 1) == 0) {
        packet_socket.reset();
    }
}
