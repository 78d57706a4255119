// qorstat: shows the node's resource states and flags to the operator.

#include "qoripc.h"

#include <algorithm>
#include <array>
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

constexpr char usage_text[] = "Usage: qorstat [--plain]\n"
                              "       qorstat --npsimu on|off\n"
                              "       qorstat --help | --version\n";

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
            make_printable(state.group);
            make_printable(state.type);
            make_printable(state.rscname);
            make_printable(state.rscfree);
            make_printable(state.descript);
            states->push_back(state);
        }
    }
    shmrm_detach();
    return ret == SHMRM_ERR_NOTFOUND ? 0 : ret;
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

int show_plain()
{
    std::vector<shmrm_state> states;
    if (const int ret = read_states(&states); ret != 0) {
        return fail("cannot read the resource states", ret);
    }
    print_plain(states);
    return exit_ok;
}

int show_table()
{
    std::vector<shmrm_state> states;
    if (const int ret = read_states(&states); ret != 0) {
        return fail("cannot read the resource states", ret);
    }
    int npsimu = 0;
    int ret = shmnm_attach();
    if (ret == 0) {
        ret = shmnm_getnpsimuflag(&npsimu);
        shmnm_detach();
    }
    if (ret != 0) {
        return fail("cannot read the node's flags", ret);
    }
    print_table(states, npsimu);
    return exit_ok;
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

int run(int argc, char *const argv[])
{
    const auto is = [argc, argv](int index, const char *word) {
        return index < argc && strcmp(argv[index], word) == 0;
    };
    if (argc == 2 && is(1, "--help")) {
        printf("%s\nShows the node's resource states and flags; see qorstat(8).\n\n"
               "  --plain          one line per resource, its fields separated by tabs, no header\n"
               "  --npsimu on|off  set or clear the node's npsimu flag\n",
               usage_text);
        return exit_ok;
    }
    if (argc == 2 && is(1, "--version")) {
        puts("qorstat " QOR_VERSION);
        return exit_ok;
    }
    const bool npsimu = argc == 3 && is(1, "--npsimu") && (is(2, "on") || is(2, "off"));
    const bool plain = argc == 2 && is(1, "--plain");
    if (argc != 1 && !npsimu && !plain) {
        return usage_error();
    }
    if (geteuid() != 0) {
        fputs("qorstat: must be run by root\n", stderr);
        return exit_unreadable;
    }
    if (npsimu) {
        return set_npsimu(is(2, "on") ? 1 : 0);
    }
    return plain ? show_plain() : show_table();
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
