/// Disturbs one mode of the agent at every point of one kind, one point a run, and judges what each run left.
///
///   points NAME=VALUE...     called by points.sh, which has the table of modes and makes the stage
///
/// Prints a line for each violation, and appends "MODE KIND POINTS VIOLATIONS MISSED UNTRIED" to a file of
/// totals, and lines "note COUNT TEXT". Exits with 2 when it could not do its work.

#include "points_judge.h"
#include "points_plan.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

namespace
{

std::map<std::string, std::string> given;

[[noreturn]] void give_up(const std::string &why)
{
    std::cout << "BROKEN " << given["name"] << ' ' << given["kind"] << ": " << why << std::endl;
    exit(2);
}

/// The command lines of a mode, and what brings its address about and takes it down.
void fill_commands(site *here)
{
    const std::string agent = given["bin"] + "/qorfip";
    const auto of_resource = [&](const char *mode) { return lines{agent, mode, "-r", "fip1", "-g", "g1"}; };
    here->bring_up = of_resource("--active");
    here->take_down = of_resource("--deactive");
    here->command = of_resource(here->mode.c_str());
    if (here->mode == "--add" || here->mode == "--del") {
        here->bring_up = {agent, "--add", "-a", here->address + "/" + given["bits"] + "%veth"};
        here->take_down = {agent, "--del", "-a", here->address};
        here->command = here->mode == "--add" ? here->bring_up : here->take_down;
    } else if (here->mode == "--test") {
        here->command = {agent, "--test", "fip1"};
    }
}

site describe()
{
    site here;
    here.home = getenv("QOR_HOME"); // NOLINT(concurrency-mt-unsafe): one thread
    here.mode = given["mode"];
    here.options = given["options"];
    here.start = given["start"];
    here.address = given["address"];
    here.device = given["device"];
    here.status = std::stoi(given["status"]);
    here.route_batch = given["routes"];
    const bool v6 = here.address.find(':') != std::string::npos;
    here.up = here.device + " " + here.address + "/" + given["bits"] + " " +
              (v6 ? "-" : here.address.substr(0, here.address.rfind('.')) + ".255");
    fill_commands(&here);
    return here;
}

void must_end(const lines &command, int status)
{
    const int got = run_disturbed(command, {}).status;
    if (got != status) {
        give_up(command[1] + " ends with " + std::to_string(got) + " undisturbed");
    }
}

/// Takes the address down, and sets the routes again that go with it.
void take_down(const site &here)
{
    must_end(here.take_down, 0);
    if (!change_network(here.route_batch)) {
        give_up("no routes");
    }
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

state_row only_row()
{
    std::vector<state_row> rows;
    if (!read_states(&rows) || rows.size() > 1) {
        give_up("qorstat does not show one row");
    }
    return rows.empty() ? state_row{} : rows[0];
}

void drop_logs(const site &here)
{
    for (const char *name : {"/fip.log", "/fip.log.1", "/check.log"}) {
        std::filesystem::remove(here.home + "/log" + name);
    }
}

/// Brings the start of a point about.
void reset(const site &here)
{
    if (here.start == "up") {
        must_end(here.bring_up, 0);
    }
    drop_logs(here);
    if (here.start == "bare") {
        std::filesystem::remove_all(here.home + "/run");
        std::filesystem::remove_all(here.home + "/log");
        return;
    }
    write_file(here.home + "/run/resource.shm", here.table);
    if (here.start == "full") {
        std::string log;
        while (log.size() + 100 < 150000) { // the size in soak_stage.sh
            log += "2026-01-01 00:00:00.000000 1/1 8 src/fip.c:1 filler | as long as any other line of the "
                   "trace\n";
        }
        write_file(here.home + "/log/fip.log", log);
    }
}

/// Takes the first look at the home: each run after this one finds what each other found.
std::vector<made_call> prepare(site *here)
{
    must_end(here->take_down, 0);
    if (here->start == "up") {
        must_end(here->bring_up, 0);
    }
    lines refused = here->take_down; // with an option that lacks its value
    if (refused.size() == 4) {
        refused.pop_back();
    } else {
        refused.emplace_back("-i");
    }
    must_end(refused, 4);
    here->table = contents(here->home + "/run/resource.shm");
    must_end(here->take_down, 0);

    reset(*here);
    if (here->start != "bare") { // qorstat would make the table
        here->row_before = only_row();
    }
    disturbance listing_calls;
    listing_calls.what = fault::list;
    const outcome clean = run_disturbed(here->command, listing_calls);
    if (clean.status != here->status) {
        give_up("the mode ends with " + std::to_string(clean.status) + " undisturbed");
    }
    here->row_after = only_row();
    here->unread = unread_parameters(trace(here->home));
    take_down(*here);
    here->addresses = addresses();
    here->routes = routes();
    here->configuration = listing(here->home + "/etc", true);
    here->files = listing(here->home, false);
    return clean.calls;
}

struct tally {
    int points = 0, violations = 0, missed = 0, untried = 0;
    std::map<std::string, int> notes = {};
};

void report(const site &here, const point &at, const outcome &came, const findings &found, tally *count)
{
    const std::string name = given["name"] + " " + given["kind"] + " " + at.name;
    std::string text;
    for (const std::string &violation : found.violations) {
        text += "VIOLATION " + name + ": " + violation + " (exit " + std::to_string(came.status) + ")\n";
    }
    for (const std::string &note : found.notes) {
        ++count->notes[note];
    }
    if (!text.empty()) {
        count->violations += static_cast<int>(found.violations.size());
        std::cout << text << std::flush;
        write_file(given["evidence"] + "/" + given["name"] + "." + given["kind"] + given["part"] + "." +
                       std::to_string(count->points),
                   text + trace(here.home));
    }
}

/// Disturbs and judges one point.
void visit(site *here, const point &at, tally *count)
{
    reset(*here);
    const outcome came = run_disturbed(here->command, at.what);
    count->missed += came.hit || !at.what.environment.empty() ? 0 : 1;
    const findings found = judge(*here, at, came);
    ++count->points;
    report(*here, at, came, found, count);
    here->configuration = listing(here->home + "/etc", true);
    if ((addresses() != here->addresses || routes() != here->routes) &&
        (!change_network(given["network"]) || addresses() != here->addresses)) {
        give_up("the network cannot be mended after " + at.name);
    }
}

long allocations(const site &here)
{
    const std::string file = here.home + ".count";
    disturbance counting;
    counting.environment = {"LD_PRELOAD=" + given["nomem"], "NOMEM_COUNT=" + file};
    reset(here);
    run_disturbed(here.command, counting);
    take_down(here);
    return std::stol(contents(file));
}

/// Kills while a table is locked for a change: the device, the message, and what a new resource
/// or table takes.
void add_steps(const site &here, std::vector<point> *points)
{
    for (long lock = 1;; ++lock) {
        disturbance counting;
        counting.what = fault::step;
        counting.number = lock;
        reset(here);
        const outcome came = run_disturbed(here.command, counting);
        take_down(here);
        if (came.steps == 0) {
            return;
        }
        const std::vector<point> more = plan_steps(lock, came.steps);
        points->insert(points->end(), more.begin(), more.end());
    }
}

std::vector<point> plan(const site &here, const std::vector<made_call> &calls)
{
    if (given["kind"] == "kill") {
        std::vector<point> points = plan_kills(calls, given["name"] == "active");
        if (here.start == "bare" || given["name"] == "active" || given["name"] == "add") {
            add_steps(here, &points);
        }
        return points;
    }
    if (given["kind"] == "error") {
        return plan_errors(calls);
    }
    return plan_allocations(allocations(here), given["nomem"]);
}

/// The points that fall to this process, and to those that were asked for.
std::vector<point> own_points(const std::vector<point> &all)
{
    const unsigned long part = std::stoul(given["part"]);
    const unsigned long parts = std::stoul(given["parts"]);
    std::vector<point> own;
    unsigned long turn = 0;
    for (const point &one : all) {
        if (one.name.find(given["only"]) != std::string::npos && turn++ % parts == part) {
            own.push_back(one);
        }
    }
    return own;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        given[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    }
    const long until = std::stol(given["until"]);
    site here = describe();
    const std::vector<made_call> calls = prepare(&here);
    tally count;
    for (const point &one : own_points(plan(here, calls))) {
        if (!given["list"].empty()) {
            std::cout << given["name"] << ' ' << given["kind"] << ' ' << one.name << '\n';
        } else if (time(nullptr) >= until) {
            ++count.untried;
        } else {
            visit(&here, one, &count);
        }
    }
    std::ofstream totals(given["totals"], std::ios::app);
    std::string text = given["name"] + " " + given["kind"] + " " + std::to_string(count.points) + " " +
                       std::to_string(count.violations) + " " + std::to_string(count.missed) + " " +
                       std::to_string(count.untried) + "\n";
    for (const auto &[note, times] : count.notes) {
        text += "note " + std::to_string(times) + " " + note + "\n";
    }
    totals << text;
    return 0;
}
