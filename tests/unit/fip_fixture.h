// What the agent's unit tests share: a run's record in a suite home, and what a call left behind.
#ifndef FIP_FIXTURE_H
#define FIP_FIXTURE_H

#include "fip.h"
#include "fip/config.h"
#include "home_fixture.h"
#include "text.h"
#include "tracersc.h"

#include "qorxml.h"

#include <arpa/inet.h>

inline const char *host_name = "node1.example.com"; // null: gethostname fails

extern "C" [[gnu::used]] inline int __wrap_gethostname(char *name, std::size_t size)
{
    return host_name != nullptr && copy_text(name, size, host_name) ? 0 : -1;
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

inline const auto open_files = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };

using names = std::vector<std::pair<std::string, std::string>>;

// The rows of a table, one per line, with fields between " | "; the first line, which names the columns, is
// none. A <name> stands for the text given for it.
inline std::vector<std::vector<std::string>> table(std::string text, const names &meanings = {})
{
    for (const auto &[name, meaning] : meanings)
        text = std::regex_replace(text, std::regex(name), meaning);
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text.substr(text.find('\n', 1) + 1));
    const std::regex bar(" \\| ");
    using fields = std::sregex_token_iterator;
    for (std::string line; std::getline(lines, line);)
        rows.emplace_back(fields(line.begin(), line.end(), bar, -1), fields());
    return rows;
}

struct FipTest : HomeTest {
    FIP_INFO info = {}; // a worker may take a minute: 6000 polls of 10 ms

    void SetUp() override
    {
        actflag = ipv6flag = 0;
        copy_text(inspath, home.c_str());
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
        const std::string lines = read_file(home / "trace");
        std::smatch error;
        if (std::regex_search(lines, error, std::regex(" 1 src/[^|]*\\| (.*)")))
            left.append(" [").append(error.str(1)).append("]");
        left.append(shmbuf[0] != '\0' ? " " : "").append(shmbuf);
        fip_set_message("%s", "");
        fs::resize_file(home / "trace", 0);
        return std::regex_replace(left, std::regex(home.string()), "~");
    }
};

#endif
