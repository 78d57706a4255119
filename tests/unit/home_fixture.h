// A suite home of its own for every test, owned by root like the real one; and what tests use of the system.
#ifndef HOME_FIXTURE_H
#define HOME_FIXTURE_H

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <net/if.h>
#include <numeric>
#include <regex>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

inline std::string read_file(const fs::path &file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::string hex(const void *bytes, std::size_t size)
{
    std::ostringstream out;
    for (const auto *at = static_cast<const unsigned char *>(bytes); size > 0; --size)
        out << std::hex << std::setw(2) << std::setfill('0') << int{*at++};
    return out.str();
}

struct HomeTest : testing::Test {
    char dir[20] = "/tmp/qortest.XXXXXX";
    const fs::path home = mkdtemp(dir);

    HomeTest()
    {
        umask(022);
        setenv("QOR_HOME", dir, 1); // NOLINT(concurrency-mt-unsafe)
    }
    ~HomeTest() override { fs::remove_all(home); }

    // Makes an executable file below the home.
    void write(const fs::path &relative, const std::string &contents) const
    {
        fs::create_directories((home / relative).parent_path());
        std::ofstream(home / relative) << contents;
        fs::permissions(home / relative, fs::perms::owner_all);
    }
};

#endif
