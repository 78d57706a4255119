#include "probe.h"

#include "echo_socket.h"
#include "link_choice.h"
#include "link_socket.h"
#include "route.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include <poll.h>

namespace
{

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds round_length_ms{1000};

/// A link is asked that often, because a broadcast may get lost and nobody repeats it.
constexpr int questions_per_round = 3;
constexpr milliseconds question_interval_ms{100};
/// How long the answer to the last question may take.
constexpr milliseconds answer_limit_ms{200};

constexpr milliseconds last_round_ms = (questions_per_round - 1) * question_interval_ms + answer_limit_ms;

/// The state of a run.
struct prober {
    probe_target target;
    probe_options options;
    echo_socket echo = {};
    echo_errors errors = {};
    link_socket link = {};
    link_choice choice = {};
    std::string told = {}; ///< last on standard error

    unsigned round = 0;        ///< from 1 on
    int question = 0;          ///< of the round, from 1 on
    bool any_asked = false;    ///< some question of this run went out
    int link_error = 0;        ///< errno of the last that did not
    bool all_asked = false;    ///< every question of this round went out
    bool link_decides = false; ///< the last round's did, on the only link where the address can be

    clock_type::time_point round_start = {};
    clock_type::time_point next = {}; ///< something is to be sent
    clock_type::time_point end = {};
};

void tell(prober *p, const std::string &text)
{
    if (p->options.verbose && text != p->told) {
        std::fprintf(stderr, "qorping: %s\n", text.c_str());
        p->told = text;
    }
}

std::string error_text(const char *what, int error)
{
    return std::string(what) + ": " + std::system_category().message(error);
}

/// Chooses the links of a round, and opens the socket for them when it is needed first.
void choose(prober *p)
{
    if (p->options.echo_only) {
        tell(p, "asking by echo only");
        return;
    }
    p->choice = choose_links(p->target);
    if (p->choice.links.empty()) {
        tell(p, "asking by echo only: " + p->choice.why_none);
        return;
    }
    const int error = p->link.socket.fd < 0 ? open_link_socket(p->target.address, &p->link) : 0;
    if (error != 0) {
        p->choice.links.clear();
        tell(p, "asking by echo only: " + error_text("link socket", error));
        return;
    }
    std::string names;
    for (const network_link &link : p->choice.links) {
        names += " " + link.name;
    }
    tell(p, (p->choice.decisive ? "asking on the link too:" : "asking on every link too:") + names);
}

void begin_round(prober *p)
{
    ++p->round;
    p->round_start = clock_type::now();
    p->all_asked = true;
    // The request before the questions: it makes the kernel look for the address, so that an answer to us
    // also fills its neighbour table.
    choose(p);
    send_echo(&p->echo, &p->errors);
}

void ask_links(prober *p)
{
    for (const network_link &link : p->choice.links) {
        const int error = ask_link(p->link, link);
        if (error == 0) {
            p->any_asked = true;
        } else {
            p->all_asked = false;
            p->link_error = error;
            tell(p, error_text(("cannot ask on " + link.name).c_str(), error));
        }
    }
}

/// Sends what is due, and sets when the next is, and after the last question the end.
void send_due(prober *p)
{
    if (p->question == 0) {
        begin_round(p);
    }
    ask_links(p);
    const auto now = clock_type::now();
    if (!p->choice.links.empty() && ++p->question < questions_per_round) {
        p->next = now + question_interval_ms;
        return;
    }
    p->question = 0;
    p->next = p->round_start + round_length_ms;
    if (p->round == p->options.rounds && p->choice.decisive && !p->choice.links.empty() && p->all_asked) {
        p->link_decides = true;
        p->end = std::min(p->end, now + answer_limit_ms);
    }
}

bool answer_arrived(const prober &p)
{
    if (read_echo_reply(p.echo)) {
        return true;
    }
    if (p.link.socket.fd < 0) {
        return false;
    }
    hardware_address owner = {};
    const network_link *link = read_link_answer(p.link, p.choice.links, &owner);
    if (link != nullptr && p.target.address.any.sa_family == AF_INET) {
        note_neighbour(*link, p.target.address.v4.sin_addr, owner);
    }
    return link != nullptr;
}

/// Waits for a packet until something is due; false when the wait itself fails.
bool wait_for_packet(const prober &p)
{
    const auto until = std::min(p.next, p.end);
    const auto left = std::chrono::ceil<milliseconds>(until - clock_type::now()).count();
    pollfd events[] = {{p.echo.socket.fd, POLLIN, 0}, {p.link.socket.fd, POLLIN, 0}};
    return poll(events, std::size(events), static_cast<int>(std::max<decltype(left)>(left, 0))) >= 0 ||
           errno == EINTR;
}

probe_outcome fail(probe_report *report, const char *step, int error)
{
    report->step = step;
    report->error = error;
    return PROBE_FAILED;
}

probe_outcome judge_silence(const prober &p, probe_report *report)
{
    report->waited = p.options.rounds * round_length_ms;
    if (p.link_decides) {
        report->waited += last_round_ms - round_length_ms;
        return PROBE_SILENT;
    }
    // The kernel takes an echo request, and keeps it until the link has told where to send it: that must have
    // been asked, too, and there was no room for any question.
    if (p.choice.decisive && !p.any_asked && p.link_error == ENOBUFS) {
        return fail(report, "send", p.link_error);
    }
    if (p.echo.expected.sent == 0) {
        if (p.errors.failed != 0) {
            return fail(report, "send", p.errors.failed);
        }
        report->error = p.errors.unreachable;
    }
    return PROBE_SILENT;
}

} // namespace

probe_outcome qorping_probe(const probe_target &target, const probe_options &options, probe_report *report)
{
    *report = {};
    prober p = {target, options};
    const char *step = nullptr;
    const int error = open_echo_socket(target, &p.echo, &step);
    if (error != 0) {
        return fail(report, step, error);
    }
    const auto start = clock_type::now();
    p.next = start;
    p.end = start + options.rounds * round_length_ms;
    for (;;) {
        // What has arrived counts, even if this process was not scheduled until after the end.
        if (answer_arrived(p)) {
            report->elapsed =
                std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - start);
            return PROBE_ANSWERED;
        }
        const auto now = clock_type::now();
        if (now >= p.end) {
            return judge_silence(p, report);
        }
        if (now >= p.next) {
            send_due(&p);
        }
        if (!wait_for_packet(p)) {
            return fail(report, "poll", errno);
        }
    }
}
