// The parameters of one resource, from the suite home's files.

#include "fip/log.h"
#include "fip_fixture.h"

#include <climits>

namespace
{
const char *host_name; // null: the call fails
std::string log_opened;
} // namespace

extern "C" {
int __real_log_init(const char *type, void **handle, int level, int size, const char *path);

int __wrap_gethostname(char *name, std::size_t size)
{
    return host_name != nullptr && copy_text(name, size, host_name) ? 0 : -1;
}

int __wrap_log_init(const char *type, void **handle, int level, int size, const char *path)
{
    log_opened = join(type, level, size);
    return __real_log_init(type, handle, level, size, path);
}
}

class ConfigTest : public FipTest
{
protected:
    std::string read(const std::string &parameters, int act = 0, const std::string &spoiled = "")
    {
        info = {};
        copy_text(info.rscname, "fip1");
        start_config("<fip name='fip1'><parameters>" + parameters + "</parameters></fip>");
        fs::remove(home / "etc/policy" / (spoiled + ".xml"));
        if (spoiled == "path") {
            write("etc/policy/all.xml", "<root/>");
        }
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
    <defmethod>31</defmethod><monmii>32</monmii></parameters></fip>
    <fip><parameters><ping><path>p</path></ping>
    <arp><path>a</path></arp><ifconfig><path>i</path></ifconfig>)";

TEST_F(ConfigTest, ReadsParameters_ByRunMode)
{
    const std::string none = "<ip>1.2.3.4</ip>", tools = "bin/qorping arp ifconfig ";
    const std::tuple<std::string, int, std::string> cases[] = {
        {none, 0, tools + "1 0 1 0 0 0 1 1 60 0 0 0 0 0 0 0 0 10000 6000 0 0 0 0"},
        {none, 1, tools + "1 0 1 0 0 0 1 1 60 1 3 1 0 1 3 1 0 10000 6000 0 0 0 0"},
        {all_set, 0, "p a i 11 12 13 14 15 16 18 19 22 0 0 0 0 0 0 0 0 1000 22000 31 32 21 20"},
        {all_set, 1, "p a i 1 0 1 0 0 17 18 19 22 23 24 25 26 27 28 29 30 1000 22000 31 32 0 20"},
    };
    for (const auto &[parameters, act, expected] : cases) {
        EXPECT_EQ(read(parameters, act).substr(0, 2), "0 ");
        const FIP_INFO &i = info;
        EXPECT_EQ(join(i.pingcmd, i.arpcmd, i.ifconfcmd, i.pingtout, i.pingretry, i.pinginterval, i.pingforce,
                       i.pingallip, i.pingnpsimu, i.arpnum, i.arpopcode, i.ifconftout, i.checkifexec,
                       i.checkifretry, i.checkifinterval, i.checkiferror, i.checkpiexec, i.checkpiretry,
                       i.checkpiinterval, i.checkpierror, i.checkstime, i.checkloopc, i.miiw_method, i.isMiiw,
                       i.ifconfuse, i.srcipuse),
                  expected);
    }
    EXPECT_EQ(join(info.addr, info.mask, info.masklen, info.ifname, fullnotation, inspath),
              "10.0.0.1 255.255.255.0 24 eth0:1 1 /opt/suite");
}

TEST_F(ConfigTest, CorrectsPollPeriod)
{
    const std::tuple<std::string, std::string, int, int> cases[] = {
        {"60", "0", 10'000, 6000},      {"60", "-1", 10'000, 6000},         {"60", "none", 10'000, 6000},
        {"2", "2000000", 2'000'000, 1}, {"2", "2000001", 10'000, 200},      {"3", "2000000", 2'000'000, 1},
        {"0", "10000", 10'000, 0},      {"2148", "2147483647", INT_MAX, 1}, {"2147483647", "1", 1, INT_MAX},
    };
    for (const auto &[timeout, sleeptime, checkstime, checkloopc] : cases) {
        std::string xml = "<ip>10.0.0.1</ip><ifconfig><timeout>";
        xml.append(timeout).append("</timeout></ifconfig><check><ifconfig><sleeptime>").append(sleeptime);
        read(xml.append("</sleeptime></ifconfig></check>"));
        EXPECT_EQ(join(info.checkstime, info.checkloopc), join(checkstime, checkloopc))
            << timeout << sleeptime;
    }
}

TEST_F(ConfigTest, TakesAddressOfThisServer_OrTellsWhyNot)
{
    const std::string ip = "<ip>10.0.0.1</ip>", servers = ip + R"(</parameters>
        <server name='node1'><parameters><ip>10.0.0.7</ip></parameters></server>
        <server name='node1.example.com'><parameters><ip>1.1.1.1</ip></parameters></server><parameters>)";
    const std::tuple<std::string, std::string, int, const char *> cases[] = {
        {servers, "", 0, "0 10.0.0.7"},
        {ip, "", 0, "0 10.0.0.1"},
        {ip, "host", 0, "33 [get_hostname() failed. (errno=0)] "},
        {ip, "fip", 1, "8 [xmllib_load_policy(fip) failed. (ret=4)] "},
        {"", "", 0,
         "9 [xmllib_get_srvsep_value(/root/resource/fip@fip1/parameters/ip,ip) failed. (ret=4)] Internal "
         "error. "
         "(status=9) "},
        {"<ip>10.0.0.1%eth0/24</ip>", "", 0, "29 [FIP address is invalid] 10.0.0.1%eth0"},
        {"<ip>::1/129</ip>", "", 0, "31 [over max mask bit num.(mask bit=129)] ::1"},
        {ip, "all", 0, "8 [xmllib_load_policy(all) failed. (ret=4)] 10.0.0.1"},
        {ip, "all", 1, "8 [xmllib_load_policy(all) failed. (ret=4)] Internal error. (status=8) 10.0.0.1"},
        {ip, "path", 0, "32 10.0.0.1"},
        {ip, "path", 1, "32 Internal error. (status=32) 10.0.0.1"},
    };
    for (const auto &[parameters, spoiled, attached, expected] : cases) {
        shmrmflag = attached;
        EXPECT_EQ(read(parameters, 0, spoiled), expected);
        EXPECT_EQ(xmllib_unload_policy("fip"), QOR_XMLERR_NOTEXIST_PATH); // nothing stays loaded
        EXPECT_EQ(xmllib_unload_policy("all"), QOR_XMLERR_NOTEXIST_PATH);
    }
    read(ip);
    host_name = nullptr; // the address is known: nobody asks
    copy_text(info.addr, "1.2.3.4");
    EXPECT_EQ(join(fip_xml_get_config(&info), info.addr), "0 1.2.3.4");
    EXPECT_TRUE(traced("| xmllib_get_value(/root/resource/fip@fip1/parameters/arp/retry) failed. (ret=4)"));
    EXPECT_TRUE(traced("| xmllib_get_value(/root/resource/fip/parameters/ping/path) failed.\n"));
}

TEST_F(ConfigTest, StartsAndStopsLibraryAndLog)
{
    EXPECT_EQ(outcome(fip_xml_init()), "7 Internal error. (status=7)");
    EXPECT_EQ(join(fip_log_init(), loginiflag), "0 0"); // no configuration, no log
    EXPECT_EQ(fip_xml_term() + fip_xml_term() + xmliniflag + xmlconflag, 0);
    EXPECT_TRUE(traced("| Not executed xmllib_load_config()") && traced("| Not executed xmllib_init()"));
    start_config("");
    for (const auto &[policy, opened] :
         {std::pair{"<root/>", "fip 4 1000000"},
          {"<root><fip><log><level>8</level><size>99</size></log></fip></root>", "fip 8 99"}}) {
        traceclose();
        write("etc/policy/fip.xml", policy);
        EXPECT_EQ(join(fip_log_init(), loginiflag, log_opened), join("0 1", opened));
        EXPECT_EQ(join(fip_log_term(), loginiflag), "0 0");
    }
    fs::remove(home / "etc/policy/fip.xml");
    EXPECT_EQ(outcome(fip_log_init()), "8 Internal error. (status=8)");
}
