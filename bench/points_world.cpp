#include "points_world.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <sstream>
#include <sys/stat.h>

namespace
{

std::string address_text(const sockaddr *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text, sizeof(text));
    } else {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr, text, sizeof(text));
    }
    return text;
}

int bits(const sockaddr *mask)
{
    if (mask->sa_family == AF_INET) {
        return std::popcount(reinterpret_cast<const sockaddr_in *>(mask)->sin_addr.s_addr);
    }
    int count = 0;
    for (const unsigned char byte : reinterpret_cast<const sockaddr_in6 *>(mask)->sin6_addr.s6_addr) {
        count += std::popcount(byte);
    }
    return count;
}

std::string line_of(const ifaddrs &entry)
{
    const std::string name = entry.ifa_name;
    if (entry.ifa_addr->sa_family == AF_PACKET) {
        return name + ((entry.ifa_flags & IFF_UP) != 0 ? " up" : " down");
    }
    const bool broadcasts = entry.ifa_addr->sa_family == AF_INET && (entry.ifa_flags & IFF_BROADCAST) != 0 &&
                            entry.ifa_broadaddr != nullptr;
    return name + " " + address_text(entry.ifa_addr) + "/" + std::to_string(bits(entry.ifa_netmask)) + " " +
           (broadcasts ? address_text(entry.ifa_broadaddr) : "-");
}

lines split(const std::string &text)
{
    lines all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        all.push_back(line);
    }
    return all;
}

/// A line as the trace log has it: time, process and thread, level, place, function, text.
bool is_whole(const std::string &line)
{
    unsigned n = 0;
    int end = 0;
    sscanf(line.c_str(), "%4u-%2u-%2u %2u:%2u:%2u.%6u %u/%u %u src/%*[A-Za-z].c:%u %*[a-z0-9_] | %n", &n, &n,
           &n, &n, &n, &n, &n, &n, &n, &n, &n, &end);
    return end != 0;
}

/// Its own date a second time is another line's beginning.
bool has_another(const std::string &line)
{
    return line.find(line.substr(0, sizeof("2026-11-23")), 1) != std::string::npos;
}

std::string output_of(const char *command, int *status)
{
    FILE *pipe = popen(command, "re"); // NOLINT(cert-env33-c): our own words
    std::string text;
    char part[4096];
    for (std::size_t size = 0; pipe != nullptr && (size = fread(part, 1, sizeof(part), pipe)) > 0;) {
        text.append(part, size);
    }
    *status = pipe == nullptr ? -1 : pclose(pipe);
    return text;
}

} // namespace

lines addresses()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        return {"getifaddrs failed"};
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    lines all;
    for (; list != nullptr; list = list->ifa_next) {
        if (list->ifa_addr != nullptr) {
            all.push_back(line_of(*list));
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

lines routes()
{
    int status = 0;
    lines all = split(output_of("exec ip route show table all", &status));
    std::sort(all.begin(), all.end());
    return status == 0 ? all : lines{"ip fails"};
}

bool change_network(const std::string &batch)
{
    int status = 0;
    output_of(("exec ip -force -batch " + batch).c_str(), &status);
    return status == 0;
}

bool read_states(std::vector<state_row> *rows)
{
    int status = 0;
    for (const std::string &line : split(output_of("exec qorstat --plain", &status))) {
        state_row row;
        std::istringstream text(line);
        for (std::string *field : {&row.group, &row.type, &row.name, &row.device}) {
            std::getline(text, *field, '\t');
        }
        std::getline(text, row.message);
        rows->push_back(row);
    }
    return status == 0;
}

lines listing(const std::string &directory, bool stamped)
{
    lines all;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
        struct stat info = {};
        std::string text = entry.path();
        if (stamped && lstat(entry.path().c_str(), &info) == 0) {
            char stamp[96] = "";
            snprintf(stamp, sizeof(stamp), " %lu %o %ld.%09ld", info.st_ino, info.st_mode,
                     info.st_ctim.tv_sec, info.st_ctim.tv_nsec);
            text += stamp;
        }
        all.push_back(text);
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::string contents(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string trace(const std::string &home)
{
    return contents(home + "/log/fip.log.1") + contents(home + "/log/fip.log");
}

lines torn_lines(const std::string &trace)
{
    lines torn = split(trace);
    std::erase_if(torn, [](const std::string &line) { return line.empty() || is_whole(line); });
    return torn;
}

lines swallowing_lines(const std::string &trace)
{
    lines all = split(trace);
    std::erase_if(all, [](const std::string &line) { return line.empty() || !has_another(line); });
    return all;
}

lines unread_parameters(const std::string &trace)
{
    lines unread;
    for (const std::string &line : split(trace)) {
        char name[256] = "";
        const std::size_t start = line.find("xmllib_get_");
        if (start != std::string::npos && line.find(" failed.", start) != std::string::npos &&
            sscanf(line.c_str() + start, "%*[a-z_](%255[^,)]", name) == 1) {
            unread.push_back(name);
        }
    }
    std::sort(unread.begin(), unread.end());
    return unread;
}
