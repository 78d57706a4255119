/// Runs a command again and again and prints what one run costs.
///
///   measure [-n RUNS] [-r RESET] COMMAND...
///
/// RESET is a shell command that brings the state back after each run; it is not measured. Prints, separated
/// by tabs, the medians of wall time and of CPU time (the command's and of all that it waited for), both in
/// milliseconds, and the largest resident set of any of them in KiB.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

struct cost {
    double wall_ms;
    double cpu_ms;
    long peak_kib;
};

double to_ms(const timeval &time)
{
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

/// Runs the command once, its output discarded. Ends the program when it cannot be run or fails.
cost run_once(char **argv)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = vfork();
    if (pid == 0) {
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execvp(argv[0], argv);
        _exit(127);
    }
    int status = 0;
    rusage used = {};
    if (pid < 0 || wait4(pid, &status, 0, &used) != pid || status != 0) {
        fprintf(stderr, "measure: %s failed (status %#x)\n", argv[0], static_cast<unsigned>(status));
        exit(EXIT_FAILURE);
    }
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    return {wall.count(), to_ms(used.ru_utime) + to_ms(used.ru_stime), used.ru_maxrss};
}

double median(const std::vector<cost> &costs, double cost::*member)
{
    std::vector<double> values;
    for (const cost &one : costs) {
        values.push_back(one.*member);
    }
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

} // namespace

int main(int argc, char **argv)
{
    int runs = 20;
    const char *reset = nullptr;
    for (int option = getopt(argc, argv, "+n:r:"); option != -1; option = getopt(argc, argv, "+n:r:")) {
        if (option == 'n') {
            runs = std::max(1, atoi(optarg)); // NOLINT(cert-err34-c): a bench, called by our own script
        } else if (option == 'r') {
            reset = optarg;
        } else {
            return EXIT_FAILURE;
        }
    }
    if (optind >= argc) {
        fprintf(stderr, "usage: measure [-n RUNS] [-r RESET] COMMAND...\n");
        return EXIT_FAILURE;
    }
    std::vector<cost> costs;
    long peak_kib = 0;
    for (int i = 0; i < runs; ++i) {
        costs.push_back(run_once(argv + optind));
        peak_kib = std::max(peak_kib, costs.back().peak_kib);
        if (reset != nullptr && system(reset) != 0) { // NOLINT(concurrency-mt-unsafe): one thread
            fprintf(stderr, "measure: reset failed: %s\n", reset);
            return EXIT_FAILURE;
        }
    }
    printf("%.2f\t%.2f\t%ld\n", median(costs, &cost::wall_ms), median(costs, &cost::cpu_ms), peak_kib);
    return EXIT_SUCCESS;
}
