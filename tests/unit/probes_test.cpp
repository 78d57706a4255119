// The probes around an activation: duplicate address, and the source address of the routes; with scripts in
// place of the commands.

#include "fip/ping.h"
#include "fip/srcip.h"
#include "fip_fixture.h"

#include <poll.h>

// Time that passes as soon as somebody waits for it: a limit of seconds is over at once, and what has none
// waits as long as ever.
std::atomic<long long> hurry_ms = -1; // how far the clock went ahead; -1: it does not

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __real_poll(pollfd *fds, nfds_t count, int timeout);

int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    const int ret = __real_clock_gettime(clock, now);
    now->tv_sec += hurry_ms > 0 ? hurry_ms / 1000 : 0;
    return ret;
}

int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    if (hurry_ms < 0 || timeout < 0)
        return __real_poll(fds, count, timeout);
    hurry_ms += timeout + 1000;
    return 0;
}

FILE *__real_fopen(const char *path, const char *mode);

// A route table that can be opened, but not read.
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return __real_fopen(strcmp(path, "/proc/net/route") == 0 ? "/proc" : path, mode);
}
}

using lines = std::multiset<std::string>; // workers run at the same time: their order is nobody's business

struct PingTest : FipTest {
    lines called; // what the tool was called with
    std::string events;

    // Probes with a tool of this body: the outcome.
    std::string ping(const std::string &body)
    {
        script("bin/ping tool", "echo $(printf '<%s>' \"$@\") >> $HERE/called\n" + body);
        copy_text(info.pingcmd, body == "none" ? "none" : "bin/ping tool");
        copy_text(info.arpcmd, script("arp", "echo \"? ($2) at 0:A:b:c:d:ff\"").c_str());
        fs::remove(home / "called");
        const int code = fip_ping(&info);
        called.clear();
        std::ifstream lines_of(home / "called");
        for (std::string line; std::getline(lines_of, line);)
            called.insert(line);
        events = traced("_retry | address 10.0.0.1 is in use") ? " used" : "";
        events += traced("fip_ping_mkth | address 10.0.0.1 was activated by force") ? " forced" : "";
        return outcome(code);
    }
};

constexpr char results[] = R"(
TOOL | DEACTIVATION FORCE FAMILY RETRIES | CALLS, EVENTS | OUTCOME
exit 0 | 0 0 6 1 | 2 used | 15 [10.0.0.1 is already exist. (ret=1)] IP address was already used.
exit 0 | 1 1 4 0 | 1 | 15<exists> IP address was already used.
exit 2 | 0 0 4 2 | 3 | 2 [ping to 10.0.0.1 failed (after system()).] Internal error. (status=2)
exit 2 | 0 1 4 0 | 1 forced | 0 [ping to 10.0.0.1 failed (after system()).]
test $(wc -l < $HERE/called) -eq 1 | 0 0 4 5 | 2 | 0<exists>
kill -9 0 | 0 0 4 0 | 1 | 11 [ping to 10.0.0.1 failed (before system()).] Internal error. (status=11)
none | 1 1 4 0 | 0 | 13 [~/none: Command not found.] Internal error. (status=13)
none | 0 1 4 0 | 0 forced | 0 [~/none: Command not found.]
)";

TEST_F(PingTest, JudgesTool)
{
    const names words = {{"<exists>", " [10.0.0.1 is already exist.(macaddr : 0:A:b:c:d:ff)]"}};
    for (const auto &row : table(results, words)) {
        std::istringstream(row.at(1)) >> actflag >> info.pingforce >> ipv6flag >> info.pingretry;
        ipv6flag = ipv6flag == 6 ? 1 : 0;
        EXPECT_EQ(ping(row[0]), row.at(3)) << row[0] << row[1];
        EXPECT_EQ(std::to_string(called.size()) + events, row.at(2));
        EXPECT_EQ(called.count("<-c><0><10.0.0.1>"), called.size());
    }
}

TEST_F(PingTest, GivesUpTools_ThatDoNotEnd)
{
    hurry_ms = 0;
    EXPECT_EQ(ping("exec sleep 2"),
              "11 [ping to 10.0.0.1 failed (before system()).] Internal error. (status=11)");
    char found[MACTEXT_SIZE] = "";
    EXPECT_EQ(fip_get_macaddr_v4(script("arp", "exec sleep 2").c_str(), "10.0.0.1", found), FIP_ERR_ABNORMAL);
    hurry_ms = -1;
}

TEST(Pause, LastsItsSeconds)
{
    const std::time_t start = std::time(nullptr);
    fip_pause(2);
    EXPECT_GT(std::time(nullptr), start);
}

TEST_F(PingTest, ProbesAllAddresses_OnActivation)
{
    const std::string own = "<parameters><ip>10.0.0.2/24%eth1</ip></parameters>", bare = "<server name='a'/>";
    const std::string servers = "<server name='a'><parameters><ip>10.0.0.3%eth1:2</ip></parameters></server>"
                                "<server name='b'><parameters><ip>fd00::4</ip></parameters></server>";
    const lines only = {"<-c><0><1.2.3.4;touch x$(id)`id`'\"|&>"};
    const lines all = {"<-c><0><10.0.0.2>", "<-c><0><10.0.0.3>", "<-c><0><fd00::4>"};
    copy_text(info.addr, "1.2.3.4;touch x$(id)`id`'\"|&"); // never runs anything
    const auto probed = [&](const std::string &parameters, int deactivation, int allip) {
        start_config("<fip name='fip1'>" + parameters + "</fip>");
        actflag = deactivation;
        info.pingallip = allip;
        // Of several results the last one that is not 0 counts.
        const std::string left = ping("case $3 in 10.0.0.3) exit 2;; fd00::4) exit 1;; esac");
        EXPECT_EQ(left[0], called == all ? '2' : '1');
        return called;
    };
    EXPECT_EQ(probed(own + servers, 0, 1), all);
    EXPECT_EQ(probed(own + servers, 0, 0), only);
    EXPECT_EQ(probed(own + servers, 1, 1), only);
    EXPECT_EQ(probed(own + bare, 0, 1), only);
    EXPECT_EQ(probed(servers, 0, 1), only);
}

TEST_F(PingTest, AsksForHardwareAddress)
{
    const std::string infiniband = "80:0:0:48:fe:80:0:0:0:0:0:0:0:2:c9:3:0:e:f:10", digits(60, '0');
    const auto asked = [this](const std::string &body) {
        char found[MACTEXT_SIZE] = "";
        const int code = fip_get_macaddr_v4(script("a r p", body).c_str(), "10.0.0.1", found);
        return join(outcome(code).substr(0, 54), found);
    };
    EXPECT_EQ(asked("printf 'a\t" + infiniband + "'"), "0 " + infiniband);
    EXPECT_EQ(asked("echo 1:2:3:4:5:6:7:8; echo 10.0.0.1 -- no entry"), "26 ");
    EXPECT_EQ(asked("echo 1:2:3:4:5:6" + digits + " 6:5:4:3:2:1"), "0 6:5:4:3:2:1")
        << "the first does not fit";
    EXPECT_EQ(asked("kill -9 0"), "11 [pclose(\"~/a r p\" -n 10.0.0.1) error. (ret=0,errno= ");
}

using SrcipTest = FipTest;

constexpr char routes[] = R"(
LINE OF THE KERNEL'S TABLE | GATEWAY
eth1 00000000 fe01000a 0003 0 0 0 00000000 0 0 0 | 10.0.1.254
eth10 00000000 0101A8C0 0003 0 0 0 00000000 0 0 0 | none
eth1 0000A8C0 0101A8C0 0003 0 0 0 00000000 0 0 0 | none
eth1 00000000 0101A8C0 0003 0 0 0 000000FF 0 0 0 | none
eth1 xyz 0101A8C0 0003 0 0 0 00000000 0 0 0 | none
eth1 00000000 101A8C0 0003 0 0 0 00000000 0 0 0 | none
eth1 00000000 0101A8C0 0003 0 0 0 | none
)";

TEST_F(SrcipTest, ReadsDefaultRoute)
{
    for (const auto &row : table(routes)) {
        char line[100], gateway[INET_ADDRSTRLEN] = "none";
        copy_text(line, row[0].c_str());
        EXPECT_NE(fip_read_default_route(line, "eth1", gateway, sizeof(gateway)), row.at(1) == "none");
        EXPECT_EQ(gateway, row.at(1)) << row[0];
    }
}

TEST_F(SrcipTest, FailsForCommandThatDoesNotEnd_AndForTableThatCannotBeRead)
{
    vdevinfo dev = {};
    const std::string search = getenv("PATH");
    setenv("PATH", (home.string() + ":" + search).c_str(), 1);
    script("ip", "exec true");
    EXPECT_EQ(outcome(fip_srcip_set(&dev)), "99 [fgets(/proc/net/route) failed. (errno=21)]");
    script("ip", "exec sleep 2");
    hurry_ms = 0;
    EXPECT_TRUE(outcome(fip_srcip_set(&dev)).starts_with("11 [pclose(ip route r"));
    hurry_ms = -1;
    setenv("PATH", search.c_str(), 1);
}

TEST_F(SrcipTest, ComparesOtherResourcesByThisServersAddress_AndWholeInterface)
{
    const inventory rows = {{"eth1:1", 0, {{inet_addr("10.0.0.5")}, {}}, {}, {}, "", {}}};
    const auto check = [&](const char *ifname, const std::string &common, const std::string &own) {
        start_config("<fip name='b'><parameters><srcip><use>1</use></srcip><ip>" + common +
                     "</ip></parameters><server name='node1'><parameters><ip>" + own +
                     "</ip></parameters></server></fip>");
        vdevinfo dev = {};
        copy_text(dev.ifname, ifname);
        return fip_srcip_check(rows, &dev, "fip1");
    };
    EXPECT_EQ(check("eth1:5", "10.0.0.7", "10.0.0.5"), FIP_ERR_INUSE);
    EXPECT_EQ(check("eth1:5", "10.0.0.5", "10.0.0.7"), FIP_SUCCESS);
    EXPECT_EQ(check("eth10", "10.0.0.7", "10.0.0.5"), FIP_SUCCESS);
}
