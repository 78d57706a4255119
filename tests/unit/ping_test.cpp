// The duplicate-address check, with scripts in place of the ping tool and the arp command.

#include "fip/ping.h"
#include "fip_fixture.h"

#include <set>

using lines = std::multiset<std::string>; // workers run at the same time: their order is nobody's business

class PingTest : public FipTest
{
protected:
    // Probes with a tool of this body: the outcome. What the tool was called with is in `called`.
    std::string ping(const std::string &body)
    {
        script("bin/ping tool", "echo $(printf '<%s>' \"$@\") >> $HERE/called\n" + body);
        copy_text(info.pingcmd, body.empty() ? "none" : "bin/ping tool");
        copy_text(info.arpcmd, script("arp", "echo \"? ($2) at 0:A:b:c:d:ff\"").c_str());
        fs::remove(home / "called");
        const int code = fip_ping(&info);
        called.clear();
        std::ifstream in(home / "called");
        for (std::string line; std::getline(in, line);) {
            called.insert(line);
        }
        events = (traced("32768 src/fip.c") && traced("_retry | address 10.0.0.1 is in use") ? 10 : 0) +
                 (traced("fip_ping_mkth | address 10.0.0.1 was activated by force") ? 11 : 0);
        told = read_file(home / "trace");
        return outcome(code);
    }

    lines called;
    int events = 0; // 10 in use, 11 forced, 21 both
    std::string told;
};

TEST_F(PingTest, JudgesTool)
{
    const std::string exists = " [10.0.0.1 is already exist.(macaddr : 0:A:b:c:d:ff)]";
    const std::string used = " IP address was already used.", internal = " Internal error. (status=";
    const std::tuple<std::string, int, int, int, std::string, int> cases[] = {
        {"exit 1", 0, 1, 0, "0", 0},
        {"exit 0", 0, 0, 0, "15" + exists + used, 10},
        {"exit 0", 0, 0, 1, "15 [10.0.0.1 is already exist. (ret=1)]" + used, 10},
        {"exit 0", 1, 1, 0, "15" + exists + used, 0},
        {"exit 0", 0, 1, 0, "0" + exists, 21},
        {"exit 2", 0, 0, 0, "2 [ping to 10.0.0.1 failed (after system()).]" + internal + "2)", 0},
        {"kill -9 0", 0, 0, 0, "11 [ping to 10.0.0.1 failed (before system()).]" + internal + "11)", 0},
        {"", 1, 1, 0, "13 [~/none: Command not found.]" + internal + "13)", 0},
        {"", 0, 1, 0, "0 [~/none: Command not found.]", 11},
    };
    info.pingtout = 3;
    for (const auto &[body, act, force, v6, expected, wanted] : cases) {
        actflag = act;
        ipv6flag = v6;
        info.pingforce = force;
        EXPECT_EQ(ping(body), expected);
        EXPECT_EQ(events, wanted) << expected;
        EXPECT_EQ(called, body.empty() ? lines{} : lines{"<-c><3><10.0.0.1>"});
    }
}

TEST_F(PingTest, RetriesEveryFailure)
{
    const std::tuple<const char *, int, std::string, unsigned, const char *> cases[] = {
        {"exit 1", 2, "0", 1, "(10.0.0.1) OK."},
        {"exit 2", 2, "2", 3, "ping(10.0.0.1) retry failed."},
        {"test $(wc -l < $HERE/called) -eq 1", 5, "0", 2, "fip_chk_ip_response(10.0.0.1) succeeded."},
    };
    for (const auto &[body, retry, code, calls, line] : cases) {
        info.pingretry = retry;
        EXPECT_EQ(ping(body).substr(0, 1), code) << body;
        EXPECT_EQ(called.size(), calls) << body;
        EXPECT_NE(told.find(line), std::string::npos) << body;
    }
}

TEST_F(PingTest, ProbesAllAddresses_OnActivation)
{
    const std::string own = "<parameters><ip>10.0.0.2/24%eth1</ip></parameters>";
    const std::string servers = "<server name='a'><parameters><ip>10.0.0.3%eth1:2</ip></parameters></server>"
                                "<server name='b'><parameters><ip>fd00::4</ip></parameters></server>";
    const lines only = {"<-c><0><1.2.3.4;touch x$(id)`id`'\"|&>"};
    const lines all = {"<-c><0><10.0.0.2>", "<-c><0><10.0.0.3>", "<-c><0><fd00::4>"};
    const std::tuple<std::string, int, int, lines> cases[] = {
        {own + servers, 0, 1, all},
        {own + servers, 0, 0, only},
        {own + servers, 1, 1, only},
        {own, 0, 1, only},
        {own + "<server name='a'/>", 0, 1, only},
        {servers, 0, 1, only},
        {"<parameters><ip>" + std::string(46, '1') + "</ip></parameters>" + servers, 0, 1, only},
    };
    copy_text(info.addr, "1.2.3.4;touch x$(id)`id`'\"|&"); // never runs anything
    for (const auto &[parameters, act, allip, probed] : cases) {
        start_config("<fip name='fip1'>" + parameters + "</fip>");
        actflag = act;
        info.pingallip = allip;
        // Of several results the last one that is not 0 counts.
        EXPECT_EQ(ping("case $3 in 10.0.0.3) exit 2;; fd00::4) exit 1;; esac")[0], probed == all ? '2' : '1');
        EXPECT_EQ(called, probed) << parameters;
    }
}

TEST_F(PingTest, AsksForHardwareAddress)
{
    const std::string infiniband = "80:0:0:48:fe:80:0:0:0:0:0:0:0:2:c9:3:0:e:f:10";
    const std::string line = "\"~/a r p\" -n 10.0.0.1", digits(60, '0');
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"echo HWtype; echo '10.0.0.1 ether 00:1A:2b:3C:4d:5E C eth0'", "0", "00:1A:2b:3C:4d:5E"},
        {"printf 'a\t" + infiniband + "'", "0", infiniband},
        {"echo 1:2:3:4:5:6:7:8; echo 10.0.0.1 -- no entry", "26", ""},
        {"echo 1:2:3:4:5:6" + digits + " 6:5:4:3:2:1", "0", "6:5:4:3:2:1"}, // the first does not fit
        {"exit 4", "3 [" + line + " : failed. (ret=4)] Command failed. (" + line + ", ret=4)", ""},
        {"kill -9 0", "11 [pclose(" + line + ") error. (ret=0,errno=", ""},
    };
    for (const auto &[body, expected, mac] : cases) {
        char found[MACTEXT_SIZE] = "";
        const int code = fip_get_macaddr_v4(script("a r p", body).c_str(), "10.0.0.1", found);
        EXPECT_EQ(outcome(code).substr(0, expected.size()), expected) << body;
        EXPECT_EQ(found, mac) << body;
    }
}
