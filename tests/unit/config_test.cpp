// The parameters of one resource, from the suite home's files.

#include "fip_fixture.h"

struct ConfigTest : FipTest {
    std::string read(const std::string &parameters, int act = 0, const std::string &spoiled = "")
    {
        info = {};
        practice = {}; // as at the start of a run
        copy_text(info.rscname, "fip1");
        start_config("<fip name='fip1'><parameters>" + parameters + "</parameters></fip>");
        fs::remove(home / "etc/policy" / (spoiled + ".xml"));
        host_name = spoiled == "host" ? nullptr : "node1.example.com";
        actflag = act;
        errno = 0;
        return join(outcome(fip_xml_get_config(&info)), info.addr);
    }
};

// Every number differs, so that a value in another's field shows.
const std::string all_set = R"(<ip>10.0.0.1/24%eth0:1</ip>
    <ping><timeout>11</timeout><retry>12</retry><interval>13</interval><force>14</force><allip>15</allip>
    <execute_in_npsimu_on_act>16</execute_in_npsimu_on_act>
    <execute_in_npsimu_on_deact>17</execute_in_npsimu_on_deact></ping>
    <arp><retry>18</retry><opcode>19</opcode></arp><srcip><use>20</use></srcip>
    <ifconfig><use>21</use><timeout>22</timeout></ifconfig><check><ifconfig><sleeptime>1000</sleeptime>
    <execute>23</execute><retry>24</retry><interval>25</interval><error>26</error></ifconfig>
    <ping><execute>27</execute><retry>28</retry><interval>29</interval><error>30</error></ping></check>
    <nd><retry>33</retry><dad>34</dad><timeout>35</timeout></nd><guard><interface>36</interface></guard>
    <defmethod>31</defmethod><monmii>32</monmii></parameters></fip>
    <fip><parameters><ping><path>p</path></ping>
    <arp><path>a</path></arp><ifconfig><path>i</path></ifconfig>)";

TEST_F(ConfigTest, ReadsParameters_ByRunMode)
{
    const std::string none = "<ip>1.2.3.4</ip>";
    const auto taken = [this](const std::string &parameters, int deactivation) {
        EXPECT_TRUE(read(parameters, deactivation).starts_with("0 "));
        const FIP_INFO &i = info;
        return join(i.pingcmd, i.pingtout, i.pingretry, i.pinginterval, i.pingforce, i.pingallip,
                    i.pingnpsimu, i.arpcmd, i.arpnum, i.arpopcode, i.ifconfcmd, i.ifconfuse, i.ifconftout,
                    "poll", i.checkstime, i.checkloopc, "list", i.checkifexec, i.checkifretry,
                    i.checkifinterval, i.checkiferror, "ping", i.checkpiexec, i.checkpiretry,
                    i.checkpiinterval, i.checkpierror, "srcip", i.srcipuse, "link", i.miiw_method, i.isMiiw,
                    "nd", practice.ndretry, practice.nddad, practice.ndtimeout, "guard", practice.guardif);
    };
    // The order is the one above; "list" and "ping" are the checks.
    EXPECT_EQ(taken(none, 0), "bin/qorping 1 0 1 0 0 0 arp 1 1 ifconfig 0 60 poll 10000 6000 "
                              "list 0 0 0 0 ping 0 0 0 0 srcip 0 link 0 0 nd 0 1 5 guard 0");
    EXPECT_EQ(taken(none, 1), "bin/qorping 1 0 1 0 0 0 arp 1 1 ifconfig 0 60 poll 10000 6000 "
                              "list 1 3 1 0 ping 1 3 1 0 srcip 0 link 0 0 nd 0 1 5 guard 0");
    EXPECT_EQ(taken(all_set, 0), "p 11 12 13 14 15 16 a 18 19 i 21 22 poll 1000 22000 "
                                 "list 0 0 0 0 ping 0 0 0 0 srcip 20 link 31 32 nd 33 34 35 guard 36");
    EXPECT_EQ(taken(all_set, 1), "p 1 0 1 0 0 17 a 18 19 i 0 22 poll 1000 22000 "
                                 "list 23 24 25 26 ping 27 28 29 30 srcip 20 link 31 32 nd 0 1 5 guard 36");
    EXPECT_EQ(join(info.addr, info.mask, info.masklen, info.ifname, fullnotation, inspath),
              "10.0.0.1 255.255.255.0 24 eth0:1 1 /opt/suite");
}

constexpr char polls[] = R"(
TIMEOUT, S | SLEEPTIME, US | PERIOD, US | POLLS
60 | -1 | 10000 | 6000
60 | 0 | 10000 | 6000
0 | 10000 | 10000 | 0
2 | 2000000 | 2000000 | 1
2 | 2000001 | 10000 | 200
2148 | 2147483647 | 2147483647 | 1
2147483647 | 1 | 1 | 2147483647
)";

TEST_F(ConfigTest, CorrectsPollPeriod)
{
    for (const auto &row : table(polls)) {
        read("<ip>10.0.0.1</ip><ifconfig><timeout>" + row[0] +
             "</timeout></ifconfig><check><ifconfig><sleeptime>" + row[1] +
             "</sleeptime></ifconfig></check>");
        EXPECT_EQ(join(info.checkstime, info.checkloopc), join(row.at(2), row.at(3)))
            << row[0] << ' ' << row[1];
    }
}

TEST_F(ConfigTest, TakesAddressOfThisServer_OrTellsWhyNot)
{
    const std::string ip = "<ip>10.0.0.1</ip>", servers = ip + R"(</parameters>
        <server name='node1'><parameters><ip>10.0.0.7</ip></parameters></server>
        <server name='node1.example.com'><parameters><ip>1.1.1.1</ip></parameters></server><parameters>)";
    EXPECT_EQ(read(servers), "0 10.0.0.7");
    EXPECT_EQ(read(ip, 0, "host"), "33 [get_hostname() failed. (errno=0)] ");
    EXPECT_EQ(read("<ip>::1/129</ip>"), "31 [over max mask bit num.(mask bit=129)] ::1");
    EXPECT_EQ(read(ip, 0, "all"), "8 [xmllib_load_policy(all) failed. (ret=4)] 10.0.0.1");
    for (const char *policy : {"fip", "all"}) // nothing stays loaded
        EXPECT_EQ(xmllib_unload_policy(policy), QOR_XMLERR_NOTEXIST_PATH);
}
