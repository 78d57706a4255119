// qorstat: shows the node's resource states and flags to the operator.

#include "json.h"
#include "resource.h"

#include "fip.h"
#include "qoripc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>
#include <vector>

namespace
{

enum exit_code { exit_ok = 0, exit_unreadable = 1, exit_usage = 2 };

constexpr std::size_t columns = 5;
using row = std::array<const char *, columns>;

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

/// The texts come from outside: what is not printable ASCII could disturb the columns or command the
/// terminal.
template <std::size_t N>
void make_printable(char (&text)[N])
{
    for (std::size_t i = 0; i < N && text[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c >= 0x7f) {
            text[i] = '?';
        }
    }
}

void make_printable(shmrm_state *state)
{
    make_printable(state->group);
    make_printable(state->type);
    make_printable(state->rscname);
    make_printable(state->rscfree);
    make_printable(state->descript);
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
    return {state.group, state.type, state.rscname, state.rscfree, state.descript};
}

void print_table(const std::vector<shmrm_state> &states, int npsimu)
{
    std::vector<row> rows = {{"GROUP", "TYPE", "RESOURCE", "DEVICE", "LAST MESSAGE"}};
    std::transform(states.begin(), states.end(), std::back_inserter(rows), to_row);
    std::array<int, columns> width = {};
    for (const row &r : rows) {
        for (std::size_t i = 0; i < columns; ++i) {
            width[i] = std::max(width[i], static_cast<int>(strlen(r[i])));
        }
    }
    for (const row &r : rows) {
        printf("%-*s  %-*s  %-*s  %-*s  %s\n", width[0], r[0], width[1], r[1], width[2], r[2], width[3], r[3],
               r[4]);
    }
    printf("\nnpsimu: %s\n", npsimu != 0 ? "on" : "off");
}

void print_plain(const std::vector<shmrm_state> &states)
{
    for (const shmrm_state &state : states) {
        const row r = to_row(state);
        printf("%s\t%s\t%s\t%s\t%s\n", r[0], r[1], r[2], r[3], r[4]);
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
    for (shmrm_state &state : states) {
        make_printable(&state);
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
    snprintf(found->rscname, sizeof(found->rscname), "%s", rscname);
    return ret;
}

void print_resource(form shape, const shmrm_state &raw, const resource_report &report)
{
    const char *status = status_word(report.status);
    const char *address = report.address.c_str();
    const char *interface = report.interface.c_str();
    const char *label = report.label.c_str();
    const char *note = report.note.c_str();
    if (shape == form::json) {
        puts(json_object({{"group", raw.group},
                          {"resource", raw.rscname},
                          {"status", status},
                          {"address", address},
                          {"interface", interface},
                          {"label", label},
                          {"device", raw.rscfree},
                          {"message", raw.descript},
                          {"note", note}})
                 .c_str());
        return;
    }
    shmrm_state state = raw;
    make_printable(&state);
    if (shape == form::plain) {
        printf("%s\t%s\t%s\t%s\t%s\t%s\n", status, address, interface, label, state.rscfree, state.descript);
        return;
    }
    printf("Resource:      %s\nGroup:         %s\nStatus:        %s%s%s\nAddress:       %s\n"
           "Interface:     %s\nLabel:         %s\nDevice:        %s\nLast message:  %s\n",
           state.rscname, state.group, status, *note != '\0' ? ": " : "", note, address, interface, label,
           state.rscfree, state.descript);
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
