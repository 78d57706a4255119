/// qorping: does anybody answer on an address?
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <net/if.h>

#include "probe.h"

namespace
{

constexpr unsigned SECONDS_MAX = 86400;

constexpr char USAGE[] =
    "Usage: qorping -c SECONDS ADDRESS\n"
    "Probe ADDRESS with ICMP echo requests, once a second for at most SECONDS (1 to 86400).\n"
    "\n"
    "ADDRESS is a numeric IPv4 or IPv6 address; IPv6 may carry a zone (fe80::1%eth0).\n"
    "Exit status: 0 the address answered, 1 nobody answered, 2 bad argument or failure.\n";

struct arguments {
    const char *seconds = nullptr;
    const char *address = nullptr;
};

/// A base-10 number that fills the whole text.
std::optional<unsigned> parse_number(std::string_view text)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// An interface by name, else by number (RFC 4007, 11.2); 0 when there is no such interface.
unsigned zone_index(const char *zone)
{
    const unsigned index = if_nametoindex(zone);
    if (index != 0)
        return index;
    char name[IF_NAMESIZE];
    const unsigned number = parse_number(zone).value_or(0);
    return if_indextoname(number, name) != nullptr ? number : 0;
}

/// An address whose replies could never come from itself has no business here: that nobody answers would be
/// taken as "free".
bool names_one_host(const host_address &address)
{
    if (address.any.sa_family == AF_INET) {
        const in_addr_t host = ntohl(address.v4.sin_addr.s_addr);
        return host != INADDR_ANY && host != INADDR_BROADCAST && !IN_MULTICAST(host);
    }
    const in6_addr &host = address.v6.sin6_addr;
    return !IN6_IS_ADDR_UNSPECIFIED(&host) && !IN6_IS_ADDR_MULTICAST(&host) && !IN6_IS_ADDR_V4MAPPED(&host);
}

/// @return null, or what is wrong with the text
const char *parse_address(const std::string &text, probe_target *target)
{
    *target = {};
    const std::size_t percent = text.find('%');
    const std::string bare = text.substr(0, percent);
    host_address &address = target->address;
    if (percent == std::string::npos && inet_pton(AF_INET, bare.c_str(), &address.v4.sin_addr) == 1)
        address.any.sa_family = AF_INET;
    else if (inet_pton(AF_INET6, bare.c_str(), &address.v6.sin6_addr) == 1)
        address.any.sa_family = AF_INET6;
    else
        return "not a numeric address";
    if (!names_one_host(address))
        return "not the address of one host";
    if (percent == std::string::npos)
        return nullptr;

    target->interface = zone_index(text.c_str() + percent + 1);
    if (target->interface == 0)
        return "no such interface";
    if (IN6_IS_ADDR_LINKLOCAL(&address.v6.sin6_addr))
        address.v6.sin6_scope_id = target->interface;
    return nullptr;
}

/// Exactly "-c SECONDS" and one ADDRESS, in either order.
bool split_arguments(int argc, char **argv, arguments *args)
{
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "-c") == 0 && i + 1 < argc && args->seconds == nullptr)
            args->seconds = argv[++i];
        else if (argv[i][0] != '-' && args->address == nullptr)
            args->address = argv[i];
        else
            return false;
    }
    return args->seconds != nullptr && args->address != nullptr;
}

probe_outcome refuse(const char *what, const char *argument)
{
    std::fprintf(stderr, "qorping: %s: '%s'\n", what, argument);
    return PROBE_FAILED;
}

probe_outcome probe_and_tell(const arguments &args)
{
    const unsigned seconds = parse_number(args.seconds).value_or(0);
    if (seconds < 1 || seconds > SECONDS_MAX)
        return refuse("SECONDS must be a number from 1 to 86400", args.seconds);
    probe_target target{};
    if (const char *wrong = parse_address(args.address, &target))
        return refuse(wrong, args.address);

    probe_report report{};
    const probe_outcome outcome = qorping_probe(target, seconds, &report);
    const std::string why = std::system_category().message(report.error);
    switch (outcome) {
    case PROBE_ANSWERED:
        std::printf("%s: reply in %.1f ms\n", args.address,
                    static_cast<double>(report.elapsed.count()) / 1000);
        break;
    case PROBE_SILENT:
        std::printf("%s: no reply in %u s%s\n", args.address, seconds,
                    report.error == 0 ? "" : (" (" + why + ")").c_str());
        break;
    case PROBE_FAILED:
        std::fprintf(stderr, "qorping: cannot probe %s: %s: %s\n", args.address, report.step, why.c_str());
        break;
    }
    return outcome;
}

} // namespace

int main(int argc, char **argv)
{
    // The answer is the exit status: a reader of the text that goes away must not replace it by a signal.
    (void)std::signal(SIGPIPE, SIG_IGN);

    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("qorping " QOR_VERSION);
        return 0;
    }
    arguments args;
    if (!split_arguments(argc, argv, &args)) {
        std::fputs(USAGE, stderr);
        return PROBE_FAILED;
    }
    return probe_and_tell(args);
}
