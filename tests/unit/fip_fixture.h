// What the agent's unit tests share: a suite home of their own, the run's globals as a fresh process has
// them, and what a call left behind.
#ifndef FIP_FIXTURE_H
#define FIP_FIXTURE_H

#include "fip.h"
#include "fip/config.h"
#include "text.h"
#include "tracersc.h"

#include "qorxml.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

inline const char *host_name = "node1.example.com"; // null: gethostname fails

extern "C" [[gnu::used]] inline int __wrap_gethostname(char *name, std::size_t size)
{
    return host_name != nullptr && copy_text(name, size, host_name) ? 0 : -1;
}

inline std::string read_file(const fs::path &file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The parts, with a blank between each two.
template <class First, class... Parts>
std::string join(const First &first, const Parts &...parts)
{
    std::ostringstream out;
    out << first;
    ((out << " " << parts), ...);
    return out.str();
}

inline std::string hex(const void *bytes, std::size_t size)
{
    std::ostringstream out;
    for (std::size_t i = 0; i < size; ++i) {
        out << std::hex << std::setw(2) << std::setfill('0')
            << int{static_cast<const unsigned char *>(bytes)[i]};
    }
    return out.str();
}

using names = std::vector<std::pair<std::string, std::string>>;

// The rows of a table, one per line, with fields between " | ". A <name> stands for the text given for it.
inline std::vector<std::vector<std::string>> table(std::string text, const names &meanings = {})
{
    for (const auto &[name, meaning] : meanings) {
        text = std::regex_replace(text, std::regex(name), meaning);
    }
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text.substr(1));
    for (std::string line; std::getline(lines, line);) {
        rows.emplace_back();
        for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = line.find(" | ", at);
            rows.back().push_back(line.substr(at, end - at));
        }
    }
    return rows;
}

class FipTest : public testing::Test
{
protected:
    fs::path home;
    FIP_INFO info = {}; // a worker may take a minute: 6000 polls of 10 ms

    void SetUp() override
    {
        umask(022);
        char name[] = "/tmp/fip.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        home = name;
        setenv("QOR_HOME", name, 1); // NOLINT(concurrency-mt-unsafe)
        actflag = ipv6flag = fullnotation = shmrmflag = shmnmflag = semflag = sementifflag = 0;
        xmliniflag = xmlconflag = loginiflag = 0;
        IsIfconfig = 1;
        copy_text(inspath, name);
        copy_text(info.rscname, "fip1");
        copy_text(info.addr, "10.0.0.1");
        info.checkstime = 10'000;
        info.checkloopc = 6000;
        traceopen("fip", TRACE_DEBUG, 0, (home / "trace").c_str());
        outcome(0);
    }

    void TearDown() override
    {
        traceclose();
        xmllib_term();
        fs::remove_all(home);
    }

    // Makes an executable file below the home.
    void write(const fs::path &relative, const std::string &contents) const
    {
        fs::create_directories((home / relative).parent_path());
        std::ofstream(home / relative) << contents;
        fs::permissions(home / relative, fs::perms::owner_all);
    }

    // Makes a shell script below the home, which it knows as $HERE. Gives its path.
    std::string script(const fs::path &relative, const std::string &body) const
    {
        write(relative, "#!/bin/sh\nHERE=" + home.string() + "\n" + body + "\n");
        return home / relative;
    }

    // Starts the configuration library with these elements below /root/resource, and others before that.
    void start_config(const std::string &resources, const std::string &others = "") const
    {
        write("etc/cluster.xml", "<root>" + others + "<resource>" + resources + "</resource></root>");
        write("etc/policy/fip.xml", "<root/>");
        write("etc/policy/all.xml", "<root><all><path>/opt/suite</path></all></root>");
        ASSERT_EQ(fip_xml_init(), 0);
        outcome(0);
    }

    bool traced(const std::string &text) const
    {
        return read_file(home / "trace").find(text) != std::string::npos;
    }

    // What a call left: "CODE [FIRST ERROR IN THE TRACE] RESULT MESSAGE", "~" for the home. Clears both.
    std::string outcome(int code) const
    {
        std::string left = std::to_string(code);
        std::ifstream in(home / "trace");
        for (std::string line; left.find('[') == std::string::npos && std::getline(in, line);) {
            if (line.find(" 1 src/") != std::string::npos) {
                left.append(" [").append(line, line.find(" | ") + 3).append("]");
            }
        }
        left.append(shmbuf[0] != '\0' ? " " : "").append(shmbuf);
        for (std::size_t at = 0; (at = left.find(home)) != std::string::npos;) {
            left.erase(at, home.string().size()).insert(at, 1, '~');
        }
        fip_set_message("%s", "");
        fs::resize_file(home / "trace", 0);
        return left;
    }

    // Body of a script that hangs together with a child and a grandchild, and tells when it runs.
    const std::string hanging =
        "ln -sf /bin/sleep $HERE/nap; ($HERE/nap 999; :) & touch $HERE/runs; $HERE/nap 999";

    // Expects that such a script ran and that nothing of it is left: a process with the home in its command
    // line. A kill takes its time.
    void expect_ended() const
    {
        EXPECT_TRUE(fs::exists(home / "runs"));
        int left = 1;
        for (int i = 0; i < 1000 && left > 0; ++i) {
            left = 0;
            for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
                left += read_file(entry.path() / "cmdline").find(home) != std::string::npos ? 1 : 0;
            }
            usleep(10'000);
        }
        EXPECT_EQ(left, 0);
    }
};

#endif
