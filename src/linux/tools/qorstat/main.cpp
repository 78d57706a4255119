// qorstat: shows the node's resource states and flags to the operator.

#include "json.h"
#include "resource.h"

#include "bounded_text.h"
#include "fip.h"
#include "qoripc.h"
#include "textline.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

enum exit_code { exit_ok = 0, exit_unreadable = 1, exit_usage = 2 };

constexpr std::size_t columns = 5;
using row = std::array<std::string, columns>;

constexpr char usage_text[] = "Usage: qorstat [--plain | --json] [-r RESOURCE [-g GROUP]]\n"
                              "       qorstat --npsimu on|off\n"
                              "       qorstat --help | --version\n";

enum class form { table, plain, json };

/// What the command line asks for.
struct request {
    form shape = form::table;
    const char *rscname = nullptr; ///< null: all resources
    const char *group = nullptr;
};

const char *reason(int ret)
{
    switch (ret) {
    case SHMRM_ERR_FTOK:
        return "the suite home has no directory run";
    case SHMRM_ERR_SHMGET:
        return "the file in run cannot be opened, or others than root could write it";
    case SHMRM_ERR_NOTENOUGH:
        return "no room on the disk";
    case SHMRM_ERR_LOADINFO:
        return "the file in run is damaged or of another version";
    case SHMRM_ERR_SHMCTL:
        return "another process holds it";
    default:
        return "the library failed";
    }
}

int fail(const char *what, int ret)
{
    fprintf(stderr, "qorstat: %s: %s (%d)\n", what, reason(ret), ret);
    return exit_unreadable;
}

/// A text of a state as it is shown: it comes from outside, and could disturb the columns or
/// command the terminal.
std::string printable(const char *text)
{
    char shown[sizeof("\\xNN") * SHMRM_DESCRIPT_SIZE]; // of the longest field
    textline_copy(shown, sizeof(shown), text);
    return shown;
}

/// Characters of a printable text; each begins with the one byte that does not continue another.
std::size_t width_of(const std::string &text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

int read_states(std::vector<shmrm_state> *states)
{
    if (const int ret = shmrm_attach(); ret != 0) {
        return ret;
    }
    int ret = 0;
    for (int i = 0; ret == 0; ++i) {
        shmrm_state state = {};
        ret = shmrm_getstate(i, &state);
        if (ret == 0) {
            states->push_back(state);
        }
    }
    shmrm_detach();
    return ret == SHMRM_ERR_NOTFOUND ? 0 : ret;
}

int read_npsimu(int *npsimu)
{
    int ret = shmnm_attach();
    if (ret == 0) {
        ret = shmnm_getnpsimuflag(npsimu);
        shmnm_detach();
    }
    return ret;
}

row to_row(const shmrm_state &state)
{
    return {printable(state.group), printable(state.type), printable(state.rscname), printable(state.rscfree),
            printable(state.descript)};
}

void print_table(const std::vector<shmrm_state> &states, int npsimu)
{
    std::vector<row> rows = {{"GROUP", "TYPE", "RESOURCE", "DEVICE", "LAST MESSAGE"}};
    std::transform(states.begin(), states.end(), std::back_inserter(rows), to_row);
    std::array<std::size_t, columns> width = {};
    for (const row &r : rows) {
        for (std::size_t i = 0; i < columns; ++i) {
            width[i] = std::max(width[i], width_of(r[i]));
        }
    }
    for (const row &r : rows) {
        std::string line;
        for (std::size_t i = 0; i + 1 < columns; ++i) {
            line.append(r[i]).append(width[i] - width_of(r[i]) + 2, ' ');
        }
        puts(line.append(r.back()).c_str());
    }
    printf("\nnpsimu: %s\n", npsimu != 0 ? "on" : "off");
}

void print_plain(const std::vector<shmrm_state> &states)
{
    for (const shmrm_state &state : states) {
        const row r = to_row(state);
        printf("%s\t%s\t%s\t%s\t%s\n", r[0].c_str(), r[1].c_str(), r[2].c_str(), r[3].c_str(), r[4].c_str());
    }
}

void print_json(const std::vector<shmrm_state> &states, int npsimu)
{
    const char *separator = "";
    printf("{\"resources\":[");
    for (const shmrm_state &state : states) {
        printf("%s\n%s", separator,
               json_object({{"group", state.group},
                            {"type", state.type},
                            {"resource", state.rscname},
                            {"device", state.rscfree},
                            {"message", state.descript}})
                   .c_str());
        separator = ",";
    }
    printf("],\n\"flags\":{\"npsimu\":%s}}\n", npsimu != 0 ? "true" : "false");
}

/// Shows all states, and the node's flags but in the plain form.
int show_all(form shape)
{
    std::vector<shmrm_state> states;
    if (const int ret = read_states(&states); ret != 0) {
        return fail("cannot read the resource states", ret);
    }
    int npsimu = 0;
    if (shape != form::plain) {
        if (const int ret = read_npsimu(&npsimu); ret != 0) {
            return fail("cannot read the node's flags", ret);
        }
    }
    if (shape == form::json) {
        print_json(states, npsimu);
        return exit_ok;
    }
    if (shape == form::plain) {
        print_plain(states);
    } else {
        print_table(states, npsimu);
    }
    return exit_ok;
}

/// The row of a resource; without one its texts are empty but for the name.
int read_state(const char *rscname, shmrm_state *found)
{
    std::vector<shmrm_state> states;
    const int ret = read_states(&states);
    for (const shmrm_state &state : states) {
        if (strcmp(state.type, "fip") == 0 && strcmp(state.rscname, rscname) == 0) {
            *found = state;
            return ret;
        }
    }
    copy_text(found->rscname, rscname);
    return ret;
}

void print_resource(form shape, const shmrm_state &state, const resource_report &report)
{
    const char *status = status_word(report.status);
    if (shape == form::json) {
        puts(json_object({{"group", state.group},
                          {"resource", state.rscname},
                          {"status", status},
                          {"address", report.address.c_str()},
                          {"interface", report.interface.c_str()},
                          {"label", report.label.c_str()},
                          {"device", state.rscfree},
                          {"message", state.descript},
                          {"guard", report.guarded ? "on" : "off"},
                          {"recorded", report.recorded ? "yes" : "no"},
                          {"note", report.note.c_str()}})
                 .c_str());
        return;
    }
    const std::string address = printable(report.address.c_str());
    const std::string interface = printable(report.interface.c_str());
    const std::string label = printable(report.label.c_str());
    const std::string note = printable(report.note.c_str());
    const row shown = to_row(state);
    const auto &[group, type, rscname, device, message] = shown;
    if (shape == form::plain) {
        printf("%s\t%s\t%s\t%s\t%s\t%s\n", status, address.c_str(), interface.c_str(), label.c_str(),
               device.c_str(), message.c_str());
        return;
    }
    printf("Resource:      %s\nGroup:         %s\nStatus:        %s%s%s\nAddress:       %s\n"
           "Interface:     %s\nLabel:         %s\nDevice:        %s\nLast message:  %s\n",
           rscname.c_str(), group.c_str(), status, note.empty() ? "" : ": ", note.c_str(), address.c_str(),
           interface.c_str(), label.c_str(), device.c_str(), message.c_str());
}

/// Shows one resource, and tells its status by the exit status.
int show_resource(const request &asked)
{
    shmrm_state state = {};
    if (const int ret = read_state(asked.rscname, &state); ret != 0) {
        return fail("cannot read the resource states", ret);
    }
    resource_report report;
    if (const int error = judge_resource(asked.group, state, &report); error != 0) {
        errno = error;
        perror("qorstat: cannot read the kernel's addresses");
        return exit_unreadable;
    }
    print_resource(asked.shape, state, report);
    return report.status;
}

int set_npsimu(int flag)
{
    int ret = shmnm_attach();
    if (ret == 0) {
        ret = shmnm_setnpsimuflag(flag);
        shmnm_detach();
    }
    return ret == 0 ? exit_ok : fail("cannot set the node's flag", ret);
}

int usage_error()
{
    fputs(usage_text, stderr);
    return exit_usage;
}

/// A name as qorfip(8) takes it.
bool is_name(const char *text)
{
    return text != nullptr && *text != '\0' && *text != '-' && strlen(text) < SHMRM_NAME_SIZE;
}

/// @return false when the arguments make no sense
bool read_request(int argc, char *const argv[], request *asked)
{
    for (int i = 1; i < argc; ++i) {
        const char *word = argv[i];
        if (strcmp(word, "--plain") == 0 && asked->shape != form::json) {
            asked->shape = form::plain;
        } else if (strcmp(word, "--json") == 0 && asked->shape != form::plain) {
            asked->shape = form::json;
        } else if (strcmp(word, "-r") == 0 && is_name(argv[i + 1]) && fip_is_resource_name(argv[i + 1])) {
            asked->rscname = argv[++i];
        } else if (strcmp(word, "-g") == 0 && is_name(argv[i + 1])) {
            asked->group = argv[++i];
        } else {
            return false;
        }
    }
    return asked->group == nullptr || asked->rscname != nullptr;
}

int run(int argc, char *const argv[])
{
    const auto is = [argc, argv](int index, const char *word) {
        return index < argc && strcmp(argv[index], word) == 0;
    };
    if (argc == 2 && is(1, "--help")) {
        printf("%s\nShows the node's resource states and flags; see qorstat(8).\n\n"
               "  -r RESOURCE      one floating IP: what it is is the exit status, too\n"
               "  -g GROUP         the group that it must be recorded in\n"
               "  --plain          one line per resource, its fields separated by tabs, no header\n"
               "  --json           one JSON object\n"
               "  --npsimu on|off  set or clear the node's npsimu flag\n",
               usage_text);
        return exit_ok;
    }
    if (argc == 2 && is(1, "--version")) {
        puts("qorstat " QOR_VERSION);
        return exit_ok;
    }
    const bool npsimu = argc == 3 && is(1, "--npsimu") && (is(2, "on") || is(2, "off"));
    request asked;
    if (!npsimu && !read_request(argc, argv, &asked)) {
        return usage_error();
    }
    if (geteuid() != 0) {
        fputs("qorstat: must be run by root\n", stderr);
        return exit_unreadable;
    }
    if (npsimu) {
        return set_npsimu(is(2, "on") ? 1 : 0);
    }
    return asked.rscname != nullptr ? show_resource(asked) : show_all(asked.shape);
}

} // namespace

int main(int argc, char *argv[])
{
    const int ret = run(argc, argv);
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        perror("qorstat: cannot write the output");
        return exit_unreadable;
    }
    return ret;
}
