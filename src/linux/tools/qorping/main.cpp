/// qorping: does anybody answer on an address?
#include "probe.h"

#include <cerrno>
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

namespace
{

constexpr unsigned rounds_max = 86400;

constexpr char usage[] =
    "Usage: qorping [-v] -c ROUNDS ADDRESS\n"
    "Ask who has ADDRESS, once a second for ROUNDS seconds (1 to 86400): by an ICMP echo request and, where\n"
    "it is on a link, there by ARP probes or neighbour solicitations. A link that keeps silent decides: the\n"
    "last round then ends after 0.4 s. Called as qorping-icmp, it asks by echo requests only.\n"
    "\n"
    "ADDRESS is a numeric IPv4 or IPv6 address; IPv6 may carry a zone (fe80::1%eth0).\n"
    "-v tells on standard error which links are asked, or why none is.\n"
    "Exit status: 0 the address answered, 1 nobody answered, 2 bad argument or failure.\n";

/// The name under which the program leaves the links alone.
constexpr std::string_view echo_only_name = "qorping-icmp";

struct arguments {
    const char *rounds = nullptr;
    const char *address = nullptr;
    bool verbose = false;
};

/// A base-10 number that fills the whole text.
std::optional<unsigned> parse_number(std::string_view text)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

/// An interface by name, else by number (RFC 4007, 11.2); 0 when there is no such interface.
unsigned zone_index(const char *zone)
{
    const unsigned index = if_nametoindex(zone);
    if (index != 0) {
        return index;
    }
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
    if (percent == std::string::npos && inet_pton(AF_INET, bare.c_str(), &address.v4.sin_addr) == 1) {
        address.any.sa_family = AF_INET;
    } else if (inet_pton(AF_INET6, bare.c_str(), &address.v6.sin6_addr) == 1) {
        address.any.sa_family = AF_INET6;
    } else {
        return "not a numeric address";
    }
    if (!names_one_host(address)) {
        return "not the address of one host";
    }
    if (percent == std::string::npos) {
        return nullptr;
    }

    target->interface = zone_index(text.c_str() + percent + 1);
    if (target->interface == 0) {
        return "no such interface";
    }
    if (IN6_IS_ADDR_LINKLOCAL(&address.v6.sin6_addr)) {
        address.v6.sin6_scope_id = target->interface;
    }
    return nullptr;
}

/// "-c ROUNDS" and one ADDRESS, perhaps "-v", in any order.
bool split_arguments(int argc, char **argv, arguments *args)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-c") == 0 && i + 1 < argc && args->rounds == nullptr) {
            args->rounds = argv[++i];
        } else if (std::strcmp(argv[i], "-v") == 0) {
            args->verbose = true;
        } else if (argv[i][0] != '-' && args->address == nullptr) {
            args->address = argv[i];
        } else {
            return false;
        }
    }
    return args->rounds != nullptr && args->address != nullptr;
}

probe_outcome refuse(const char *what, const char *argument)
{
    std::fprintf(stderr, "qorping: %s: '%s'\n", what, argument);
    return PROBE_FAILED;
}

void tell_outcome(const char *address, probe_outcome outcome, const probe_report &report)
{
    const std::string why = std::system_category().message(report.error);
    switch (outcome) {
    case PROBE_ANSWERED:
        std::printf("%s: reply in %.1f ms\n", address, static_cast<double>(report.elapsed.count()) / 1000);
        break;
    case PROBE_SILENT:
        std::printf("%s: no reply in %g s%s\n", address, static_cast<double>(report.waited.count()) / 1000,
                    report.error == 0 ? "" : (" (" + why + ")").c_str());
        break;
    case PROBE_FAILED:
        std::fprintf(stderr, "qorping: cannot probe %s: %s: %s\n", address, report.step, why.c_str());
        break;
    }
}

probe_outcome probe_and_tell(const arguments &args)
{
    probe_options options = {};
    options.rounds = parse_number(args.rounds).value_or(0);
    options.echo_only = program_invocation_short_name == echo_only_name;
    options.verbose = args.verbose;
    if (options.rounds < 1 || options.rounds > rounds_max) {
        return refuse("ROUNDS must be a number from 1 to 86400", args.rounds);
    }
    probe_target target = {};
    if (const char *wrong = parse_address(args.address, &target)) {
        return refuse(wrong, args.address);
    }
    probe_report report = {};
    const probe_outcome outcome = qorping_probe(target, options, &report);
    tell_outcome(args.address, outcome, report);
    return outcome;
}

} // namespace

int main(int argc, char **argv)
{
    // The answer is the exit status: a reader of the text that goes away must not replace it by a signal.
    std::signal(SIGPIPE, SIG_IGN);

    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(usage, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("qorping " QOR_VERSION);
        return 0;
    }
    arguments args;
    if (!split_arguments(argc, argv, &args)) {
        std::fputs(usage, stderr);
        return PROBE_FAILED;
    }
    return probe_and_tell(args);
}
