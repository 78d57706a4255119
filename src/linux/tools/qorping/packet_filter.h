/// Filters by which the kernel drops what can't be an answer before it is queued (linux/filter.h): a flood of
/// foreign packets would fill the queue, and the answer would find no room. They only save room: packets may
/// arrive before the filter does, and who reads them judges all the same.
#ifndef PACKET_FILTER_H
#define PACKET_FILTER_H

#include <cstdint>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <sys/socket.h>

#include "host_address.h"

using packet_filter = std::vector<sock_filter>;

/// Adds: drop the packet unless the loaded value is this.
inline void require_loaded(packet_filter *filter, std::uint32_t value)
{
    filter->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 1, 0));
    filter->push_back(BPF_STMT(BPF_RET | BPF_K, 0));
}

/// Adds: drop the packet unless the address stands at the offset; `mode` is BPF_ABS, or BPF_IND for an offset
/// from the index register.
inline void require_address(packet_filter *filter, std::uint16_t mode, std::uint32_t offset,
                            const host_address &address)
{
    if (address.any.sa_family == AF_INET) {
        filter->push_back(BPF_STMT(static_cast<std::uint16_t>(BPF_LD | BPF_W | mode), offset));
        require_loaded(filter, ntohl(address.v4.sin_addr.s_addr));
        return;
    }
    for (const std::uint32_t word : address.v6.sin6_addr.s6_addr32) {
        filter->push_back(BPF_STMT(static_cast<std::uint16_t>(BPF_LD | BPF_W | mode), offset));
        require_loaded(filter, ntohl(word));
        offset += sizeof(word);
    }
}

/// Passes whatever the filter has not dropped, and hands it to the kernel.
inline void attach_filter(int fd, packet_filter filter)
{
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, 0xffffffff));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    (void)setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program));
}

#endif
