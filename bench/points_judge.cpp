#include "points_judge.h"

#include <algorithm>
#include <fnmatch.h>
#include <iterator>
#include <map>
#include <sys/syscall.h>

const std::string previous_message = "Option was invalid.";

namespace
{

const std::string internal = "Internal error. (status=";
const std::string undo_failed = "Delete ip(*) failed.";

/// The messages that an exit status may leave, as patterns of fnmatch(3); "-": the internal error's, with the
/// status. A run that leaves none has "Success." filed.
const std::map<int, lines> messages = {
    {0, {"Success."}},
    {2, {"-"}},
    {3, {"-", "Command failed. (*"}},
    {4, {"Option was invalid."}},
    {5, {}},
    {6, {}},
    {7, {"Success."}},
    {8, {"-", "Success."}},
    {9, {"-"}},
    {10, {"-", "Success."}},
    {11, {"-", "Command failed. (*"}},
    {12, {"-"}},
    {13, {"-"}},
    {14, {"IP address did not exist."}},
    {15,
     {"IP address was already used.", "This ip address was already used.  IP=*",
      "The device has another IP *"}},
    {17, {"Fip interface was not found."}},
    {18, {"-"}},
    {19, {"-"}},
    {22, {"-"}},
    {23, {"-"}},
    {24, {"-"}},
    {25, {"-"}},
    {28, {"Success."}},
    {29, {"-", "Success."}},
    {30, {"Success."}},
    {31, {"Success."}},
    {32, {"-"}},
    {33, {"Success."}},
    {35, {"Detected NIC Link Down."}},
    {36, {"Failed to get NIC status."}},
    {38, {"Get nic info failed."}},
    {39, {"Add ip(*) failed."}},
    {40, {"Delete ip(*) failed."}},
    {99, {"-", "Success."}},
};

// Failures that do not stop a run, but leave their message: of the announcement, and of the ping
// after a removal.
const lines not_announced = {internal + "10)", internal + "19)", internal + "21)", internal + "34)"};
const lines not_pinged = {internal + "2)",  internal + "10)", internal + "11)",
                          internal + "12)", internal + "13)", internal + "22)"};

bool is_kill(const point &at)
{
    return at.what.what == fault::kill || at.what.what == fault::step;
}

struct judgement {
    const site &here;
    const point &at;
    const outcome &came;
    findings found = {};
    lines standing = {};   ///< the resource's address, as often as it stands
    state_row state = {};  ///< the resource's
    bool recorded = false; ///< it has one
    lines unread = {};     ///< parameters that this run could not read
};

bool activates(const site &here)
{
    return here.mode == "--active" || here.mode == "--dactive" || here.mode == "--add";
}

bool has(const site &here, char option)
{
    return here.options.find(option) != std::string::npos;
}

/// Whether the run itself told how it ended.
bool has_status(const judgement &j)
{
    return !is_kill(j.at) && !j.came.late && j.came.status >= 0;
}

std::string joined(const lines &list)
{
    std::string text;
    for (const std::string &line : list) {
        text += "[" + line + "]";
    }
    return text;
}

/// What two sorted lists do not have in common.
lines difference(const lines &one, const lines &other)
{
    lines only;
    std::set_symmetric_difference(one.begin(), one.end(), other.begin(), other.end(),
                                  std::back_inserter(only));
    return only;
}

void wrong(judgement *j, const std::string &what, const lines &evidence = {})
{
    j->found.violations.push_back(what + (evidence.empty() ? "" : ": " + joined(evidence)));
}

void wrong_unless_equal(judgement *j, const std::string &what, const lines &before, const lines &after)
{
    if (before != after) {
        wrong(j, what, difference(before, after));
    }
}

bool is_one_of(const std::string &message, const lines &patterns, int status)
{
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
        return pattern == "-" ? message == internal + std::to_string(status) + ")"
                              : fnmatch(pattern.c_str(), message.c_str(), 0) == 0;
    });
}

bool is_known(const std::string &message)
{
    return message.empty() || message.compare(0, internal.size(), internal) == 0 ||
           std::any_of(messages.begin(), messages.end(),
                       [&](const auto &entry) { return is_one_of(message, entry.second, entry.first); });
}

void judge_end(judgement *j)
{
    const int status = j->came.status;
    if (j->came.late) {
        wrong(j, "does not end in 30 s");
    } else if (status < 0 && !is_kill(j->at)) {
        wrong(j, "ended by signal " + std::to_string(-status));
    } else if (j->at.what.number == SYS_clone3 && status == j->at.what.error) {
        j->found.notes.push_back("no thread could be started: the error number is the exit status");
    } else if (status >= 0 && (j->here.mode == "--test" ? status > 1 : !messages.contains(status))) {
        wrong(j, "undocumented exit status " + std::to_string(status));
    }
    if (j->came.orphans != 0) {
        wrong(j, std::to_string(j->came.orphans) + " processes are left after 3 s");
    }
}

void judge_addresses(judgement *j)
{
    lines now = addresses();
    for (const std::string &line : now) {
        if (line.find(" " + j->here.address + "/") != std::string::npos) {
            j->standing.push_back(line);
        }
    }
    std::erase_if(now, [&](const std::string &line) {
        return std::find(j->standing.begin(), j->standing.end(), line) != j->standing.end();
    });
    wrong_unless_equal(j, "the node's own addresses changed", j->here.addresses, now);
    if (j->standing.size() > 1) {
        wrong(j, "the address stands more than once", j->standing);
    }
}

/// Whether a row is one that some run may leave. A new resource's row is there by half for a moment: its
/// device is recorded before the rest.
bool is_sound(const site &here, const state_row &row)
{
    const bool half = row.group.empty() && row.message.empty();
    return row.type == "fip" && (row.name.empty() || row.name == "fip1") && is_known(row.message) &&
           (row.device.empty() || row.device == here.device) &&
           (half || row.group == (row.name.empty() ? "" : "g1"));
}

/// A run that was killed leaves a row as it was in between: the device is recorded first, the rest
/// in the end.
bool is_in_between(const site &here, const state_row &row)
{
    state_row halfway = here.row_before;
    halfway.type = here.row_after.type;
    halfway.name = here.row_after.name;
    halfway.device = here.row_after.device;
    return row == here.row_before || row == halfway || row == here.row_after;
}

/// Finds the resource's row, and judges those that no run may leave.
void read_state(judgement *j)
{
    std::vector<state_row> rows;
    if (!read_states(&rows)) {
        wrong(j, "qorstat fails");
    }
    j->recorded = false;
    for (const state_row &row : rows) {
        if (!is_sound(j->here, row)) {
            wrong(j, "odd row", {row.group, row.type, row.name, row.device, row.message});
        } else if (row.name == (j->here.take_down[1] == "--del" ? "" : "fip1")) {
            if (j->recorded) {
                wrong(j, "two rows of the resource");
            }
            j->state = row;
            j->recorded = true;
        }
    }
    if (!j->recorded && j->here.start != "bare") {
        wrong(j, "the resource's row is gone");
    }
}

void judge_check(judgement *j)
{
    const std::string log = contents(j->here.home + "/log/check.log");
    const bool success = log.find("I [001] Success in a composition check.") != std::string::npos;
    // A check log that could not be written to its end gives 1, whatever stands in it.
    const bool unwritten = j->at.what.number == SYS_write || j->at.what.number == SYS_close;
    if (j->came.status == 0 && (j->here.status != 0 || !success)) {
        wrong(j, "exit 0 without success in the check log", {log});
    } else if (j->came.status == 1 && success && !unwritten) {
        wrong(j, "exit 1 with success in the check log", {log});
    }
    if (!j->standing.empty()) {
        wrong(j, "the check brought the address up");
    }
    if (j->recorded && j->state.message != previous_message) {
        wrong(j, "the check recorded something", {j->state.message});
    }
}

bool is_unread(const judgement &j, const std::string &parameter)
{
    return std::any_of(j.unread.begin(), j.unread.end(),
                       [&](const std::string &path) { return path.ends_with(parameter); });
}

void judge_routes(judgement *j)
{
    const lines now = routes();
    for (const std::string begin : {"198.51.100.0/24 ", "default "}) {
        if (std::none_of(now.begin(), now.end(), [&](const std::string &line) {
                return line.starts_with(begin) &&
                       line.find(" src " + j->here.address + " ") != std::string::npos;
            })) {
            wrong(j, "exit 0, but no route to " + begin + "from the address");
        }
    }
}

/// An activation that failed, with the address up. A few cases are documented.
void judge_left_up(judgement *j)
{
    const int status = j->came.status;
    if (!has_status(*j)) {
        wrong(j, "and leaves the address up");
    } else if (status == 39 && j->at.what.on) {
        j->found.notes.push_back("39, and the kernel refuses the undo as well: the address is up");
    } else if (status != 19 && !(has(j->here, 'i') && (status == 3 || status == 11 || status == 23)) &&
               !is_one_of(j->state.message, {undo_failed}, 0)) {
        wrong(j, "exit " + std::to_string(status) + ", but the address is up", {j->state.message});
    }
}

void judge_activation(judgement *j)
{
    if (!has_status(*j) || j->came.status != 0) {
        if (!j->standing.empty() && j->here.start != "up" && !is_kill(j->at)) {
            judge_left_up(j);
        }
        return;
    }
    if (j->here.status != 0) {
        wrong(j, "exit 0 in place of " + std::to_string(j->here.status));
    } else if (j->standing != lines{j->here.up}) {
        wrong(j, "exit 0, but the address is not up as it should be", j->standing);
    }
    if (j->state.device != j->here.device) {
        wrong(j, "exit 0, but another device is recorded", {j->state.device});
    }
    if (has(j->here, 's') && !is_unread(*j, "/srcip/use")) {
        judge_routes(j);
    }
}

/// Whether the fault is one of the table of resource states, which then can't be written.
bool hurts_states(const judgement &j)
{
    const long number = j.at.what.number;
    return j.came.about.find("resource.shm") != std::string::npos ||
           (j.at.what.on && (number == SYS_fcntl || number == SYS_mmap || number == SYS_openat ||
                             number == SYS_newfstatat || number == SYS_pread64));
}

void judge_message(judgement *j)
{
    const int status = j->came.status;
    const std::string &message = j->state.message;
    const auto known = messages.find(status);
    if (message == previous_message || (message.empty() && j->here.start == "bare")) {
        if (hurts_states(*j)) {
            j->found.notes.push_back("the states could not be written: the row has the former message");
        } else if (status != 6 && status != 7 && status != 8 && status != 10) {
            wrong(j, "exit " + std::to_string(status) + " is not recorded");
        }
    } else if (known != messages.end() && !is_one_of(message, known->second, status) &&
               !(status == 0 && activates(j->here) && is_one_of(message, not_announced, 0)) &&
               !(status == 0 && has(j->here, 'q') && is_one_of(message, not_pinged, 0)) &&
               !(status != 0 && activates(j->here) && is_one_of(message, {undo_failed}, 0))) {
        wrong(j, "exit " + std::to_string(status) + " with another's message", {message});
    }
}

void judge_files(judgement *j)
{
    wrong_unless_equal(j, "etc/ was changed", j->here.configuration, listing(j->here.home + "/etc", true));
}

/// The agent runs as if nothing had been, and leaves all as it was.
void judge_next_runs(judgement *j)
{
    const int wanted = activates(j->here) && !j->standing.empty() ? 15 : j->here.status;
    const int next = run_disturbed(j->here.command, {}).status;
    if (next != wanted) {
        wrong(j, "the next run ends with " + std::to_string(next) + ", not " + std::to_string(wanted));
    }
    const int down = run_disturbed(j->here.take_down, {}).status;
    if (down != 0) {
        wrong(j, "the next " + j->here.take_down[1] + " ends with " + std::to_string(down));
    }
    read_state(j);
    if (!j->recorded || j->state.message != "Success." ||
        j->state.group != (j->state.name.empty() ? "" : "g1")) {
        wrong(j, "odd row after the next runs", {j->state.group, j->state.name, j->state.message});
    }
    if (has(j->here, 's') && !change_network(j->here.route_batch)) {
        wrong(j, "the routes cannot be set again");
    }
    wrong_unless_equal(j, "addresses are not as before", j->here.addresses, addresses());
    wrong_unless_equal(j, "routes are not as before", j->here.routes, routes());
    wrong_unless_equal(j, "files are not as before", j->here.files, listing(j->here.home, false));
    const lines torn = torn_lines(trace(j->here.home));
    const bool may_tear = is_kill(j->at) || j->at.what.what == fault::cut;
    if (torn.size() > (may_tear ? 1 : 0)) {
        wrong(j, "lines of the trace are torn", torn);
    }
    wrong_unless_equal(j, "lines of the trace have another in them", {},
                       swallowing_lines(trace(j->here.home)));
}

} // namespace

findings judge(const site &here, const point &at, const outcome &came)
{
    judgement j{here, at, came};
    judge_end(&j);
    judge_addresses(&j);
    read_state(&j);
    const lines unread = unread_parameters(trace(here.home));
    std::set_difference(unread.begin(), unread.end(), here.unread.begin(), here.unread.end(),
                        std::back_inserter(j.unread));
    if (is_kill(at) && j.recorded && !is_in_between(here, j.state)) {
        wrong(&j, "no run has such a row", {j.state.device, j.state.message});
    }
    if (here.mode == "--test" && has_status(j)) {
        judge_check(&j);
    } else if (activates(here)) {
        judge_activation(&j);
    } else if (has_status(j) && came.status == 0 && !j.standing.empty()) {
        wrong(&j, "exit 0, but the address is up", j.standing);
    }
    if (here.mode != "--test" && has_status(j) && j.recorded) {
        judge_message(&j);
    }
    if (has_status(j) && came.status == 0 && !j.unread.empty()) {
        j.found.notes.push_back("a parameter that could not be read took its default");
    }
    judge_files(&j);
    judge_next_runs(&j);
    return j.found;
}
