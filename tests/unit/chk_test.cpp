// The configuration check's tables, and the log of what it finds.

#include "chklog.h"
#include "chkutil.h"
#include "fip_fixture.h"

namespace
{

std::string seen; // the values judged

int judge(const char *value)
{
    seen.append("<").append(value).append(">");
    return *value == '\0' ? 1 : 0;
}

} // namespace

using ChkTest = FipTest;

TEST_F(ChkTest, JudgesCommonValueAndServersOwn)
{
    constexpr char common[] = "/root/resource/fip@%s/p", special[] = "/root/resource/fip@%s/server@%s/p";
    const std::string one = "<server name='a'/>", two = one + "<server name='b'/>",
                      own = "<server name='b'><p>w</p></server>";
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {"", own, 1, "0 <v>"},       {one, own, 0, "0 <v>"},
        {one, own, 1, "0 <v>"},      {two, own, 0, "0 <v><w>"},
        {two, own, 1, "1 <v><><w>"}, {two, "<server name='a'><p>too long</p></server>", 1, "99 <v>"},
    };
    for (const auto &[servers, values, required, expected] : cases) {
        start_config("<fip name='r1'><p>v</p>" + values + "</fip>", servers);
        const property prop = {"P", QOR_XMLTYPE_TEXT, 4, common, special, judge, judge, required};
        seen.clear();
        const int code = check_properties("r1", &prop, 1);
        EXPECT_EQ(join(code, seen), expected) << servers << required;
    }
}

TEST_F(ChkTest, ChecksNumbers_AndWritesLines)
{
    const numeric_param params[] = {{"A", "/root/resource/fip@%s/a", "1"},
                                    {"B", "/root/resource/fip@%s/b", "1"},
                                    {"C", "/root/resource/fip@%s/c", nullptr}};
    const std::tuple<const char *, int, std::string> cases[] = {
        {"<a>-5</a><b>10</b><c>1</c>", 0, ""},
        {"<a>0</a><b>0</b><c>2</c>", 1, "E [004] Value of C is out of range. (value=2)\n"},
        {"<a>-6</a><b>11</b><c>soon</c>", 99,
         "E [004] Value of A is out of range. (value=-6)\nE [004] Value of B is out of range. (value=11)\n"},
    };
    const std::string file = home / "check.log";
    ASSERT_EQ(chk_log_init("fip", "r1", file.c_str()), 0);
    for (const auto &[values, code, lines] : cases) {
        start_config(std::string("<fip name='r1'>") + values + "</fip>");
        write("etc/policy/fip.xml", "<root><resource><fip><param1><type>1</type><minimum>-5</minimum>"
                                    "<maximum>10</maximum></param1></fip></resource></root>");
        ASSERT_EQ(xmllib_load_policy("fip"), 0);
        fs::resize_file(file, 0);
        EXPECT_EQ(check_numeric_values("r1", params, 3, 4), code) << values;
        EXPECT_EQ(read_file(file), lines);
        fs::resize_file(file, 0);
    }
    EXPECT_EQ(chk_log_write(2, 7, "%s", "two") + chk_log_write(CHK_LEVEL_INFO, 123, "%s", "four"), 0);
    EXPECT_EQ(chk_log_write(8, 7, "%s", std::string(2000, 'x').c_str()), 0);
    EXPECT_EQ(chk_log_term("fip", "r1"), 0);
    EXPECT_EQ(read_file(file), "E [007] two\nI [123] four\nE [007] " + std::string(1023, 'x') +
                                   "*****END [type : fip][rscname : r1]\n");
}
