// The configuration check's tables, and the log of what it finds.

#include "chklog.h"
#include "chkutil.h"
#include "fip/conf_check.h"
#include "fip_fixture.h"

using ChkTest = FipTest;

std::string seen; // the values judged

int judge(const char *value)
{
    seen.append("<").append(value).append(">");
    return *value == '\0' ? 1 : 0;
}

TEST_F(ChkTest, JudgesCommonValueAndServersOwn)
{
    constexpr char common[] = "/root/resource/fip@%s/p", special[] = "/root/resource/fip@%s/server@%s/p";
    const std::string one = "<server name='a'/>", two = one + "<server name='b'/>",
                      own = "<server name='b'><p>w</p></server>";
    const auto judged = [&](const std::string &servers, const std::string &values, int required) {
        start_config("<fip name='r1'><p>v</p>" + values + "</fip>", servers);
        const property prop = {"P", QOR_XMLTYPE_TEXT, 4, common, special, judge, judge, required};
        seen.clear();
        const int code = check_properties("r1", &prop, 1);
        return join(code, seen);
    };
    EXPECT_EQ(judged(one, own, 0), "0 <v>");
    EXPECT_EQ(judged(one, own, 1), "0 <v>");
    EXPECT_EQ(judged(two, own, 0), "0 <v><w>");
    EXPECT_EQ(judged(two, own, 1), "1 <v><><w>");
    EXPECT_EQ(judged("", own, 1), "0 <v>");
    EXPECT_EQ(judged(two, "<server name='a'><p>too long</p></server>", 1), "99 <v>");
}

TEST_F(ChkTest, WritesLog_CutWhereLineIsTooLong)
{
    const std::string file = home / "check.log", long_name(2000, 'n'), frame = " [type : fip][rscname : ";
    ASSERT_EQ(chk_log_init("fip", "r1", file.c_str()), 0);
    fs::resize_file(file, 0);
    EXPECT_EQ(chk_log_write(CHK_LEVEL_INFO, 123, "%s", "four"), 0);
    EXPECT_EQ(chk_log_write(CHK_LEVEL_INFO + 1, 7, "ß\n%s", "\x1b[2J"), 0); // no such level: an error's
    EXPECT_EQ(chk_log_write(CHK_LEVEL_ERROR, 7, "%2000s", ""), 0);          // leaves no room for a newline
    EXPECT_EQ(chk_log_term("fip", long_name.c_str()), 0);
    EXPECT_EQ(read_file(file), "I [123] four\nE [007] ß\\n\\x1b[2J\nE [007] " + std::string(1023, ' ') +
                                   "*****END" + frame + long_name.substr(0, 1021 - 8 - frame.size()) + "]\n");
}

TEST_F(ChkTest, TakesDraftsAddressApart_WithoutEffectOnTheRun)
{
    fullnotation = 0;
    EXPECT_EQ(fip_fipaddr_check("fd00::1/64%eth0:1"), 0);
    EXPECT_EQ(ipv6flag, 0);
    EXPECT_EQ(fullnotation, 0);
}
