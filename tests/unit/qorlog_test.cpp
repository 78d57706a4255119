#include "qorlog.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

namespace
{
const char *no_format = nullptr;
struct sockaddr_un syslog_here = {AF_UNIX, ""}; // stands in for the system's log
std::string syslog_asked;
std::function<void()> before_flock = [] {};
} // namespace

extern "C" ssize_t __real_sendto(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
extern "C" ssize_t __wrap_sendto(int fd, const void *data, size_t len, int flags, const struct sockaddr *to,
                                 socklen_t)
{
    syslog_asked = reinterpret_cast<const struct sockaddr_un *>(to)->sun_path;
    return __real_sendto(fd, data, len, flags, reinterpret_cast<struct sockaddr *>(&syslog_here),
                         sizeof(syslog_here));
}

extern "C" int __real_flock(int, int);
extern "C" int __wrap_flock(int fd, int operation)
{
    before_flock();
    return __real_flock(fd, operation);
}

class QorLog : public testing::Test
{
protected:
    fs::path home, log, log1;
    void *handle = nullptr;

    void SetUp() override
    {
        char name[] = "/tmp/qorlog.XXXXXX";
        home = mkdtemp(name);
        log = home / "log/fip.log";
        log1 = home / "log/fip.log.1";
        setenv("QOR_HOME", home.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    }
    void TearDown() override
    {
        log_term(handle);
        fs::remove_all(home);
    }
    int open_log(int level = 8, int size = 0) { return log_init("fip", &handle, level, size, nullptr); }
    int say(const std::string &text) { return log_write(handle, 1, 0, "f", 7, "go", "%s", text.c_str()); }
    static Texts lines(const fs::path &path)
    {
        Texts all;
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);) {
            if (!line.empty()) { // may follow a line that seemed torn
                all.push_back(line);
            }
        }
        return all;
    }
    /// The TEXT of each line; a line of another form fails the test.
    static Texts texts(const fs::path &path)
    {
        Texts all = lines(path);
        for (std::string &line : all) {
            std::string date = line.substr(0, 27);
            std::replace_if(
                date.begin(), date.end(), [](char c) { return isdigit(c) != 0; }, '9');
            const std::size_t bar = line.find(" | ");
            EXPECT_TRUE(date == "9999-99-99 99:99:99.999999 " && bar != std::string::npos) << line;
            line.erase(0, bar + 3);
        }
        return all;
    }
};

TEST_F(QorLog, WritesHeaderInLocalTime)
{
    setenv("TZ", "XXX-05:30", 1); // NOLINT(concurrency-mt-unsafe)
    ASSERT_EQ(open_log(), 0);
    const time_t now = time(nullptr);
    ASSERT_EQ(log_write(handle, 8, 0, "src/fip.c", 42, "fip_go", "%s=%d%%", "ret", 3), 0);
    const std::string line = lines(log).at(0);
    const std::string who = std::to_string(getpid()) + "/" + std::to_string(gettid());
    EXPECT_EQ(texts(log), Texts{"ret=3%"});
    EXPECT_EQ(line.substr(27), who + " 8 src/fip.c:42 fip_go | ret=3%");
    struct tm written = {};
    ASSERT_NE(strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &written), nullptr);
    EXPECT_EQ((timegm(&written) - now) / 600, 5 * 6 + 3);
}

TEST_F(QorLog, FollowsLevelRuleAndKeepsEveryTextOnOneVisibleLine)
{
    ASSERT_EQ(open_log(4), 0);
    for (const int level : {1, 4, 5, 0x4000, 0x8000}) {
        EXPECT_EQ(log_write(handle, level, 0, "f", 1, "f", "%d", level), 0);
    }
    for (const auto &text : Texts{"50% of %s", "a\nb\n", "\x1b[2J\x7f\r\t", "\xc2\x9b",
                                  std::string(5000, 'x'), "y" + std::string(3000, '\n') + "\x1b"}) {
        ASSERT_EQ(say(text), 0);
    }
    Texts got = texts(log);
    const std::string cut = got.back();
    got.pop_back();
    EXPECT_EQ(got, (Texts{"1", "4", "32768", "50% of %s", "a\\nb\\n", "\\x1b[2J\\x7f\\x0d\\x09", "\\xc2\\x9b",
                          std::string(2047, 'x')}));
    EXPECT_TRUE(cut.starts_with("y\\n\\n") && cut.ends_with("\\n") && cut.size() % 2 == 1);
}

TEST_F(QorLog, SendsEventsToSyslogToo_NeverWaitingForIt)
{
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (home / "syslog").string().copy(syslog_here.sun_path, sizeof(syslog_here.sun_path) - 1);
    ASSERT_EQ(bind(sock, reinterpret_cast<struct sockaddr *>(&syslog_here), sizeof(syslog_here)), 0);
    ASSERT_EQ(open_log(0), 0);
    EXPECT_EQ(log_write(handle, 0x8000, 10, "f", 1, "f", no_format, "192.0.2.1"), 0);
    EXPECT_EQ(log_write(handle, 0x8000, 11, "f", 1, "f", no_format, "2001:db8::1"), 0);
    EXPECT_EQ(log_write(handle, 0x8000, 99, "f", 1, "f", no_format, "x"), 0);
    EXPECT_EQ(log_write(handle, 0x8000, 10, "f", 1, "f", "own %s", "text\n"), 0);
    EXPECT_EQ(log_write(handle, 1, 10, "f", 1, "f", "dropped"), 0);
    EXPECT_EQ(log_write(handle, 0x8000, 0, "f", 1, "f", no_format, "x"), EINVAL);
    const Texts want = {
        "address 192.0.2.1 is in use by another host",
        "address 2001:db8::1 was activated by force although the duplicate-address check failed", "event 99",
        "own text\\n"};
    EXPECT_EQ(texts(log), want);
    EXPECT_EQ(syslog_asked, "/dev/log");
    const std::string tag =
        std::string("<28>") + program_invocation_short_name + "[" + std::to_string(getpid()) + "]: ";
    char datagram[512] = "";
    for (const std::string &text : want) {
        EXPECT_EQ(std::string(datagram, static_cast<std::size_t>(recv(sock, datagram, 512, 0))), tag + text);
    }
    for (int i = 0; i < 1000; ++i) { // a daemon that reads no more, its queue full
        ASSERT_EQ(log_write(handle, 0x8000, 10, "f", 1, "f", no_format, "192.0.2.1"), 0);
    }
    EXPECT_EQ(texts(log).size(), 1004U);
    close(sock);
}

TEST_F(QorLog, RefusesUnsafeNamesAndFiles)
{
    for (const char *type : {"", "..", "a/b", "a.b", "012345678901234567890123456789012"}) {
        EXPECT_EQ(log_init(type, &handle, 8, 0, nullptr), EINVAL) << type;
    }
    EXPECT_EQ(log_init("fip", &handle, 8, 0, std::string(5000, 'x').c_str()), ENAMETOOLONG);
    fs::create_directory(home / "log");
    fs::create_symlink(home / "elsewhere", log);
    EXPECT_EQ(open_log(), ELOOP);
    EXPECT_FALSE(fs::exists(home / "elsewhere"));
    fs::remove(log);
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    EXPECT_EQ(open_log(), EINVAL);
    fs::remove_all(home);
    EXPECT_EQ(open_log(), ENOENT);
    EXPECT_EQ(say("x"), EINVAL) << "a failed open must leave the handle null";
}

TEST_F(QorLog, LosesAndTearsNoLine_WhenManyWritersCrossTheSize)
{
    constexpr std::size_t each = 300; // lines of each thread; in all about 1.9 MB
    for (const int size : {1200000, 4000}) {
        for (int p = 0; p < 8; ++p) {
            if (fork() == 0) {
                const bool opened = open_log(8, size) == 0;
                std::array<std::thread, 3> team;
                for (std::size_t t = 0; t < team.size(); ++t) {
                    team[t] = std::thread([this, p, t] {
                        for (int i = 0; i < static_cast<int>(each); ++i) {
                            log_write(handle, 1, 0, "f", 1, "f", "%d-%zu %d %*s.", p, t, i, 40 + i % 300, "");
                        }
                    });
                }
                std::for_each(team.begin(), team.end(), [](std::thread &one) { one.join(); });
                _exit(opened ? 0 : 1);
            }
        }
        for (int status = 0; wait(&status) > 0;) {
            EXPECT_EQ(status, 0);
        }
        std::set<std::string> seen;
        for (const fs::path &path : {log1, log}) {
            for (const std::string &text : texts(path)) {
                const std::size_t i = std::stoul(text.substr(4));
                EXPECT_EQ(text, text.substr(0, 4) + std::to_string(i) + std::string(41 + i % 300, ' ') + ".");
                EXPECT_TRUE(seen.insert(text).second) << "twice: " << text;
            }
        }
        // The larger size is crossed once, so that nothing has been dropped with a file renamed over.
        EXPECT_TRUE(size == 4000 || (seen.size() == each * 3 * 8 && fs::file_size(log1) >= 1200000));
        fs::remove_all(home / "log");
    }
}

TEST_F(QorLog, GoesOn_WhenRivalsRotateDieOrStop)
{
    ASSERT_EQ(open_log(8, 300), 0);
    ASSERT_EQ(say("first"), 0);
    fs::remove(log); // two rotations by others
    ASSERT_EQ(say("second"), 0);
    EXPECT_EQ(texts(log), Texts{"second"});
    fs::rename(log, log1); // a rival killed between its rename and the new file
    ASSERT_EQ(say(std::string(300, 'x')), 0);
    ASSERT_EQ(say("third"), 0);
    EXPECT_EQ(texts(log1).size(), 2U);
    EXPECT_EQ(texts(log), Texts{"third"});
    const int rival = open(log.c_str(), O_RDWR | O_CLOEXEC); // stopped in the middle of a rotation
    ASSERT_EQ(flock(rival, LOCK_EX), 0);
    ASSERT_EQ(say(std::string(300, 'y')), 0);
    EXPECT_EQ(texts(log).size(), 2U);
    close(rival);
    ASSERT_EQ(say("fourth"), 0);
    EXPECT_EQ(texts(log1).size(), 3U);
    EXPECT_TRUE(texts(log).empty());
}

TEST_F(QorLog, LeavesSuccessorInPlace_WhenRivalRotatedFirst)
{
    ASSERT_EQ(open_log(8, 300), 0);
    before_flock = [this] {
        fs::rename(log, log1);
        std::ofstream(log) << "rival\n";
        before_flock = [] {};
    };
    ASSERT_EQ(say(std::string(300, 'x')), 0);
    EXPECT_EQ(lines(log), Texts{"rival"});
    EXPECT_EQ(texts(log1).size(), 1U);
}

TEST_F(QorLog, StartsNewLine_AfterTornOne)
{
    fs::create_directory(home / "log");
    std::ofstream(log) << "2026-11-22 19:2";
    ASSERT_EQ(open_log(), 0);
    ASSERT_EQ(say("first"), 0);
    void *other = nullptr; // who knows nothing of the piece that the first one will leave
    ASSERT_EQ(log_init("fip", &other, 8, 0, nullptr), 0);
    struct rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlim_t usual = std::exchange(limit.rlim_cur, fs::file_size(log) + 10);
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(say("cut off"), ENOSPC);
    EXPECT_EQ(say("refused"), EFBIG);
    limit.rlim_cur = usual;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    ASSERT_EQ(log_write(other, 1, 0, "f", 7, "go", "other"), 0);
    ASSERT_EQ(say("second"), 0);
    log_term(other);
    const Texts all = lines(log);
    ASSERT_EQ(all.size(), 5U);
    EXPECT_TRUE(all[0].size() == 15 && all[2].size() == 9); // its last byte became the newline
    EXPECT_TRUE(all[1].ends_with("| first") && all[3].ends_with("| other") && all[4].ends_with("| second"));
}

TEST_F(QorLog, FinishesLine_WhenThreadIsCancelled)
{
    ASSERT_EQ(open_log(), 0);
    std::thread([this] {
        pthread_cancel(pthread_self());
        errno = EBUSY;
        say("first");
        say(errno == EBUSY ? "errno kept" : "errno lost");
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    ASSERT_EQ(say("second"), 0);
    EXPECT_EQ(texts(log), (Texts{"first", "errno kept", "second"}));
}
