#include "qorlog.h"

#include "home_fixture.h"
#include "textline.h"

#include <ctime>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

using Texts = std::vector<std::string>;

struct sockaddr_un syslog_here = {AF_UNIX, ""}; // stands in for the system's log
std::string syslog_asked;
std::function<void()> before_flock = [] {};

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

struct QorLog : HomeTest {
    const fs::path log = home / "log/fip.log", log1 = home / "log/fip.log.1";
    void *handle = nullptr;

    ~QorLog() override { log_term(handle); }
    int open_log(int level = 8, int size = 0) { return log_init("fip", &handle, level, size, nullptr); }
    int say(const std::string &text) { return log_write(handle, 1, 0, "f", 7, "go", "%s", text.c_str()); }
    /// The TEXT of each line, a line of another form as it is; none for the empty lines that pieces leave.
    static Texts texts(const fs::path &path)
    {
        static const std::regex header(
            R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \d+/\d+ \d+ [\w./]+:\d+ \w+ \| )");
        Texts all;
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);)
            if (!line.empty())
                all.push_back(std::regex_replace(line, header, ""));
        return all;
    }
};

TEST_F(QorLog, WritesHeaderInLocalTime)
{
    setenv("TZ", "XXX-05:30", 1); // NOLINT(concurrency-mt-unsafe)
    ASSERT_EQ(open_log(), 0);
    const time_t now = time(nullptr);
    ASSERT_EQ(log_write(handle, 8, 0, "src/fip.c", 42, "fip_go", "%s=%d%%", "ret", 3), 0);
    std::string line;
    std::getline(std::ifstream(log), line);
    const std::string who = std::to_string(getpid()) + "/" + std::to_string(gettid());
    EXPECT_EQ(line.substr(27), who + " 8 src/fip.c:42 fip_go | ret=3%");
    struct tm written = {};
    ASSERT_NE(strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &written), nullptr);
    EXPECT_EQ((timegm(&written) - now) / 600, 5 * 6 + 3);
}

TEST_F(QorLog, FollowsLevelRuleAndKeepsEveryTextOnOneVisibleLine)
{
    ASSERT_EQ(open_log(4), 0);
    for (const int level : {1, 4, 5, QOR_LOG_EVENT / 2, int{QOR_LOG_EVENT}})
        EXPECT_EQ(log_write(handle, level, 0, "f", 1, "f", "%d", level), 0);
    for (const auto &text : Texts{"50% of %s", "a\nb\n", "\x1b[2J\x7f\r\t", "ß\xc2\x9b",
                                  std::string(5000, 'x'), "y" + std::string(3000, '\n') + "\x1b"})
        ASSERT_EQ(say(text), 0);
    const Texts got = texts(log);
    EXPECT_EQ(Texts(got.begin(), got.end() - 1),
              (Texts{"1", "4", "32768", "50% of %s", "a\\nb\\n", "\\x1b[2J\\x7f\\x0d\\x09", "ß\\xc2\\x9b",
                     std::string(2047, 'x')}));
    EXPECT_TRUE(std::regex_match(got.back(), std::regex(R"(y(\\n){900,})"))) << "no escape is cut";
}

TEST(TextLine, ShowsLetters_EscapesTheRest)
{
    const std::string letters =
        "%s \\n \\x1b~äЖ中😀\u00a0\u00ac\u00ae\u0800\u200a\u2010\u2027\u202f\u205f\u2070"
        "\ud7ff\ue000\U0010ffff";
    const std::string hidden =
        "\x01\x1f\x7f\u0080\u009b\u009f"                                           // controls
        "\u00ad\u061c\u180e\u200b\u200e\u200f\u2028\u202a\u202e\u2060\u2066\u206f" // invisible, or
        "\ufeff\ufff9\U000e0001\U000e0fff"                                         // turn the direction
        "\x80\xbf\xc0\xaf\xc1\xbf\xe0\x9f\xbf\xf0\x8f\xbf\xbf"                     // over-long
        "\xed\xa0\x80\xf4\x90\x80\x80\xf8\xff\xc3\xe4\xb8\xf0\x9f\x98";            // none, or half ones
    std::string expected = letters;
    for (const char c : hidden)
        expected += "\\x" + hex(&c, 1);
    char shown[1024];
    EXPECT_EQ(textline_copy(shown, sizeof(shown), (letters + hidden).c_str()), expected.size());
    EXPECT_EQ(shown, expected);
}

TEST(TextLine, IsCutBetweenLetters)
{
    const Texts whole = {"aß中\\n\\x1b", "aß中\\n", "aß中", "aß", "a", ""};
    for (std::size_t size = 1; size <= 13; ++size) {
        const auto fits = [size](const std::string &text) { return text.size() < size; };
        char shown[16];
        textline_copy(shown, size, "aß中\n\x1b");
        EXPECT_EQ(shown, *std::find_if(whole.begin(), whole.end(), fits)) << size;
    }
}

TEST_F(QorLog, SendsEventsToSyslogToo_NeverWaitingForIt)
{
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (home / "syslog").string().copy(syslog_here.sun_path, sizeof(syslog_here.sun_path) - 1);
    ASSERT_EQ(bind(sock, reinterpret_cast<struct sockaddr *>(&syslog_here), sizeof(syslog_here)), 0);
    ASSERT_EQ(open_log(0), 0);
    EXPECT_EQ(log_write(handle, 1, 10, "f", 1, "f", "dropped"), 0);
    const std::string tag = "<28>qorfip[" + std::to_string(getpid()) + "]: ";
    const auto expect_event = [&](const std::string &text, int event, const char *format,
                                  const char *argument) {
        EXPECT_EQ(log_write(handle, QOR_LOG_EVENT, event, "f", 1, "f", format, argument), 0);
        EXPECT_EQ(texts(log).back(), text);
        char datagram[512] = "";
        recv(sock, datagram, 511, 0);
        EXPECT_EQ(datagram, tag + text);
    };
    expect_event("address 192.0.2.1 is in use by another host", 10, nullptr, "192.0.2.1");
    expect_event("event 99", 99, nullptr, "x");
    expect_event("own text\\n", 10, "own %s", "text\n");
    EXPECT_EQ(syslog_asked, "/dev/log");
    const char *no_format = nullptr;
    EXPECT_EQ(log_write(handle, QOR_LOG_EVENT, 0, "f", 1, "f", no_format, "x"), EINVAL);
    for (int i = 0; i < 1000; ++i) // a daemon that reads no more, its queue full
        ASSERT_EQ(log_write(handle, QOR_LOG_EVENT, 10, "f", 1, "f", no_format, "192.0.2.1"), 0);
    EXPECT_EQ(texts(log).size(), 1003U);
    close(sock);
}

TEST_F(QorLog, RefusesUnsafeNamesAndFiles)
{
    for (const char *type : {"", "..", "a/b", "a.b", "012345678901234567890123456789012"})
        EXPECT_EQ(log_init(type, &handle, 8, 0, nullptr), EINVAL) << type;
    EXPECT_EQ(log_init("fip", &handle, 8, 0, std::string(5000, 'x').c_str()), ENAMETOOLONG);
    fs::create_directory(home / "log");
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    EXPECT_EQ(open_log(), EINVAL);
    fs::remove_all(home);
    handle = &handle;
    EXPECT_EQ(open_log(), ENOENT);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(say("x"), EINVAL);
}

TEST_F(QorLog, TearsAndLosesNoLine_OfManyWriters)
{
    for (int writer = 0; writer < 8; ++writer)
        if (fork() == 0) {
            int ret = open_log();
            for (int i = 0; ret == 0 && i < 500; ++i)
                ret = say(std::string(40 + i % 300, static_cast<char>('a' + writer)));
            _exit(ret);
        }
    for (int status = 0; wait(&status) > 0;)
        EXPECT_EQ(status, 0);
    const Texts all = texts(log);
    EXPECT_EQ(all.size(), 8U * 500);
    for (const std::string &text : all)
        ASSERT_EQ(text, std::string(text.size(), text[0])) << "of one letter";
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
    before_flock = [this] { // one that rotates first, whose new file has to stay
        fs::rename(log, log1);
        std::ofstream(log) << "rival\n";
        before_flock = [] {};
    };
    ASSERT_EQ(say(std::string(300, 'z')), 0);
    EXPECT_EQ(texts(log), Texts{"rival"});
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
    const struct rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    const struct rlimit ten_bytes_more = {fs::file_size(log) + 10, RLIM_INFINITY};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &ten_bytes_more), 0);
    EXPECT_EQ(say("cut off"), ENOSPC);
    EXPECT_EQ(say("refused"), EFBIG);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    ASSERT_EQ(log_write(other, 1, 0, "f", 7, "go", "other"), 0);
    ASSERT_EQ(say("second"), 0);
    log_term(other);
    const std::string piece = texts(log).at(2);
    EXPECT_EQ(piece.size(), 9U) << "its last byte became the newline";
    EXPECT_EQ(texts(log), (Texts{"2026-11-22 19:2", "first", piece, "other", "second"}));
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
