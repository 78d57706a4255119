#include "qorxml.h"

#include "home_fixture.h"
#include "qorhome.h"

#include <climits>

namespace
{
using std::string_literals::operator""s;

enum { text = QOR_XMLTYPE_TEXT, number = QOR_XMLTYPE_INT, unknown, names };

// What each code says, from QOR_XMLERR_SUCCESS on.
constexpr const char *said[] = {"done",     "stopped", "not loaded", "too small",    "no path", "no value",
                                "bad path", "bad XML", "bad handle", "bad contents", "other"};

void expect_all(int expected, const std::vector<int> &codes)
{
    EXPECT_EQ(codes, std::vector<int>(codes.size(), expected));
}

// What is found there, for a server if one is given: a value, names that each end in '|', or what a code
// says.
std::string get(const std::string &path, int type = text, const char *server = nullptr)
{
    alignas(int) char buf[4 * QOR_XML_NAME_SLOT] = {};
    int size = sizeof(buf);
    const int code = type == names       ? xmllib_enum_value(path.c_str(), buf, &size)
                     : server == nullptr ? xmllib_get_value(path.c_str(), type, buf, &size)
                                         : xmllib_get_srvsep_value(server, path.c_str(), type, buf, &size);
    if (code != QOR_XMLERR_SUCCESS)
        return said[code];
    if (type != names)
        return type == number ? std::to_string(*reinterpret_cast<int *>(buf)) : buf;
    std::string all;
    for (int slot = 0; slot < size; slot += QOR_XML_NAME_SLOT)
        all += &buf[slot] + "|"s;
    return all;
}

using found = std::pair<std::string, std::string>; // a path, and what is found there
void expect(const std::vector<found> &cases, int type = text, const char *server = nullptr)
{
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(get(path, type, server), expected) << path;
}

struct XmlTest : HomeTest {
    XmlTest() { fs::current_path(home); }
    ~XmlTest() override { xmllib_term(); }

    void start(const std::string &config) const
    {
        write("etc/cluster.xml", config);
        expect_all(QOR_XMLERR_SUCCESS, {xmllib_init("fip"), xmllib_load_config()});
    }
};

TEST_F(XmlTest, FindsTheFirstOfItsName_AmongMany)
{
    const auto name = [](int i) { return std::to_string(i * 7 % 1000); };
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "<f name='" + name(i) + "'>" + std::to_string(i) + "</f>";
    start("<r>" + many + "<f name='" + name(999) + "'>twin</f><z>last</z></r>");
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(get("/r/f@" + name(i)), std::to_string(i));
    EXPECT_EQ(get("/r/z"), "last");
}

TEST_F(XmlTest, FindsTextsByPath)
{
    start("<?xml version='1.0' encoding='ISO-8859-1'?><!DOCTYPE r SYSTEM 'http://192.0.2.1/d.dtd'><r>"
          "<f name='a'><ip> 10.0.0.1/24\n</ip><e> \n </e></f><f><ip>bare</ip></f><f><ip>2nd</ip></f>"
          "<f name='x/v'><v>1</v></f><f name='a%n@c&amp;&lt;&quot;]|*'><v>2</v></f><f name=''><v>3</v></f>"
          "<f name='\xe4'><v>\xfc &#8364;</v></f><f id='i'><v>4</v></f><p:q xmlns:p='u' p:name='z'>5</p:q>"
          "<t>one<!-- c --> two<x>inner</x><![CDATA[ <3> ]]></t></r>");
    expect({{"/r/f@a/ip", "10.0.0.1/24"}, {"/r/f@a/e", ""}, {"/r/f/ip", "bare"}, {"/r/t", "one two <3>"}});
    expect({{"/r/f@ä/v", "ü €"}, {"/r/f@a%n@c&<\"]|*/v", "2"}, {"/r/f@/v", "3"}, {"/r/p:q", "5"}});
    for (const char *path : {"/r/f@a/none", "/f@a/ip", "/r/*", "/r/f@x/v/v", "/r/f@i/v"})
        EXPECT_EQ(get(path), "no path") << path;
    for (const char *path : {"", "/", "r/f", "/r//f", "/r/f/", "/r/@a/ip"})
        EXPECT_EQ(get(path), "bad path") << path;
    EXPECT_EQ(get("/r/t", unknown), "other");
}

TEST_F(XmlTest, ReadsNumbers)
{
    const auto read = [this](const std::string &content) {
        start("<r>" + content + "</r>");
        return get("/r", number);
    };
    for (const char *same : {"2147483647", "-2147483648"})
        EXPECT_EQ(read(same), same);
    EXPECT_EQ(read("+07"), "7");
    EXPECT_EQ(read("\n5 "), "5");
    EXPECT_EQ(read(" \n "), "no value");
    for (const char *bad : {"2147483648", "+-7", "0x10", "7s", "-"})
        EXPECT_EQ(read(bad), "bad contents") << bad;
}

TEST_F(XmlTest, ListsNames_ThatFitTheirSlots)
{
    const std::string longest(255, 'm'), s = "<s name='";
    start("<r>" + s + "b'/><s/><st name='no'/>" + s + "a'/>" + s + longest + "m'/>" + s + longest + "'/>" +
          s + "b'/></r>");
    EXPECT_EQ(get("/r/s", names), "b|a|" + longest + "|b|");
    expect({{"/r", "no path"}, {"/none/r", "no path"}, {"/r/s/", "bad path"}}, names);
}

TEST_F(XmlTest, TellsTheSize_AndLeavesTheBufferAlone_WhenItIsTooSmall)
{
    start("<r name='top'><s name='n'/><s name='m'/><v>1234567</v></r>");
    for (const auto &[type, needed] : {std::pair(text, 8), std::pair(number, 4)})
        for (const int capacity : {needed + 5, needed, needed - 1, -5}) {
            const int expected = capacity < needed ? QOR_XMLERR_NOTENOUGH_SIZE : QOR_XMLERR_SUCCESS;
            char buf[16] = "untouched";
            int size = capacity;
            EXPECT_EQ(xmllib_get_value("/r@top/v", type, buf, &size), expected) << type << ' ' << capacity;
            EXPECT_EQ(size, needed) << type << ' ' << capacity;
            EXPECT_EQ(std::string(buf) == "untouched", capacity < needed);
        }
    char buf[512] = "untouched";
    int size = 511;
    EXPECT_EQ(xmllib_enum_value("/r@top/s", buf, &size), QOR_XMLERR_NOTENOUGH_SIZE);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(xmllib_enum_value("/r@top/s", buf, &size), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(std::string(buf, 512), "n" + std::string(255, '\0') + "m" + std::string(255, '\0'));
    EXPECT_EQ(xmllib_enum_value("/r", nullptr, &size), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(size, 256);
    expect_all(QOR_XMLERR_OTHER,
               {xmllib_get_value(nullptr, text, buf, &size), xmllib_get_value("/r", text, buf, nullptr),
                xmllib_get_value("/r", text, nullptr, &size), xmllib_enum_value("/r", buf, nullptr),
                xmllib_get_srvsep_value(nullptr, "/r", text, buf, &size), xmllib_init(nullptr)});
}

TEST_F(XmlTest, LooksUpServer_ThenConfiguration_ThenPoliciesInTheirOrder)
{
    write("etc/policy/fip.xml",
          "<r><f><a>fip</a><b>fip</b><s name='p'/><parameters><d>default</d></parameters><server name='s'>"
          "<parameters><i>policy</i></parameters></server></f><f name='x'><b>own</b></f><o>fip</o></r>");
    write("etc/policy/all.xml", "<r><f><a>all</a></f><f name='x'><a>all own</a></f><o>all</o></r>");
    start("<r><f name='x'><parameters>all<i>common</i><e>common</e></parameters><server name='s'><parameters>"
          "<i>own</i><e/></parameters></server><server name='a/b'><parameters><i>slash</i></parameters>"
          "</server></f><f name='y'><a/><parameters><i>common</i></parameters></f></r>");
    for (const char *twice_then_all : {"fip", "fip", "all"})
        EXPECT_EQ(xmllib_load_policy(twice_then_all), QOR_XMLERR_SUCCESS);
    // The same path in any policy comes before a common default, and before both what is there, if empty.
    expect({{"/r/f@x/a", "all own"}, {"/r/f@x/b", "own"}, {"/r/f@y/b", "fip"}, {"/r/f@y/a", ""}});
    expect({{"/r/f", "x|y|"}, {"/r/f@x/s", "p|"}}, names);
    const std::string x = "/r/f@x/parameters", y = "/r/f@y/parameters";
    expect({{x + "/i", "own"}, {x + "/e", ""}, {x, "all"}, {"parameters/i", "bad path"}}, text, "s");
    expect({{y + "/i", "common"}, {y + "/d", "default"}, {y + "/none", "no path"}}, text, "s");
    EXPECT_EQ(get(x + "/i", text, "t"), "common");
    EXPECT_EQ(get(x + "/i", text, "a/b"), "slash");

    for (const std::string left : {"fip", "fip", "all"}) {
        EXPECT_EQ(get("/r/o"), left);
        EXPECT_EQ(said[xmllib_unload_policy("fip")], left == "all" ? "no path"s : "done");
    }
    expect_all(QOR_XMLERR_NOTEXIST_PATH, {xmllib_unload_policy(nullptr), xmllib_load_policy("absent")});
    for (const char *type : {"", ".", "../policy/all", "/all", static_cast<const char *>(nullptr)})
        EXPECT_EQ(xmllib_load_policy(type), QOR_XMLERR_OTHER);
}

TEST_F(XmlTest, RefusesFile_ThatIsNotRootsAlone)
{
    ASSERT_EQ(xmllib_init("fip"), QOR_XMLERR_SUCCESS);
    const int next_fd = dup(0);
    close(next_fd);
    for (const std::string spoil : {"chmod 664 p.xml", "chmod 646 p.xml", "chown 1 p.xml",
                                    "mv p.xml q.xml; ln -s q.xml p.xml", "rm p.xml; mkfifo -m 600 p.xml"}) {
        fs::remove_all(home / "etc");
        write("etc/policy/p.xml", "<r/>");
        ASSERT_EQ(system(("cd etc/policy && " + spoil).c_str()), 0); // NOLINT
        void *handle = &handle;
        expect_all(QOR_XMLERR_INVALID_XML,
                   {xmllib_load_policy("p"), xmllib_load_pathconfig("etc/policy/p.xml", &handle)});
        EXPECT_EQ(handle, nullptr) << spoil;
    }
    EXPECT_EQ(dup(0), next_fd) << "files left open";
}

TEST_F(XmlTest, KnowsNoRelativeHome)
{
    char path[PATH_MAX];
    setenv("QOR_HOME", ".", 1); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(qorhome_path("file", path, sizeof(path)), 0);
    EXPECT_STREQ(path, QOR_HOME_DEFAULT "/file");
}

TEST_F(XmlTest, RefusesHostileDocument_AndKeepsQuiet)
{
    std::string deep = "><r/>";
    for (int i = 1; i < 300; ++i)
        deep.insert(1, "<r>").append("</r>");
    const std::string behind_doctype[] = {"SYSTEM '/etc/passwd'><r>&e;</r>",
                                          "SYSTEM '/etc/passwd'><r name='a&e;'/>",
                                          "[<!ENTITY e SYSTEM '/etc/passwd'>]><r>&e;</r>",
                                          "[<!ENTITY % p SYSTEM '/etc/passwd'>%p;]><r/>",
                                          "[<!ENTITY u SYSTEM 'x' NDATA n>]><r/>",
                                          "[<!ATTLIST r a (x|y) 'x'>]><r/>",
                                          "[<!ENTITY l 'ha'><!ENTITY m '&l;&l;'>]><r/>",
                                          "><r>\xff\xfe</r>",
                                          "><r/>\0<x/>"s,
                                          "><r/>" + std::string(9000, ' ') + "\0 "s,
                                          "><p:r/>",
                                          ">",
                                          deep};
    ASSERT_EQ(xmllib_init("fip"), QOR_XMLERR_SUCCESS);
    testing::internal::CaptureStderr();
    for (const std::string &rest : behind_doctype) {
        write("etc/cluster.xml", "<!DOCTYPE r " + rest);
        EXPECT_EQ(xmllib_load_config(), QOR_XMLERR_INVALID_XML) << rest.substr(0, 80);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(XmlTest, ReadsWhatIsLarge_RefusesWhatWouldBeCostly)
{
    const struct {
        int read,
            refused; // how often the repeated part, its number for '#', may stand there or not; 0: no limit
        const char *head, *repeated, *tail;
    } cases[] = {
        {64, 65, "<r", " a#=''", "/>"},
        {63, 64, "<r", " xmlns:n#='u'", "><e xmlns='u'/><e xmlns='u'/></r>"},
        {9000, 11000, "<r>", "<e#/><e name='x'/>", "</r>"},
        {15000, 17000, "<r a='", "#", "'/>"}, // 63.9 and 73.9 kB
        {100000, 0, "<r>", "<!--#-->", "</r>"},
        {100000, 0, "<r><!--", "<e#/>", "--></r>"},
        {1, 20000, "<r>", "<?p#?>", "</r>"},
        {1, 9000, "<!DOCTYPE r [", "<!ELEMENT e# (a)><!---->", "]><r/>"},
    };
    ASSERT_EQ(xmllib_init("fip"), QOR_XMLERR_SUCCESS);
    for (const auto &[read, refused, head, repeated, tail] : cases) {
        std::string document = head;
        for (int i = 1; i <= std::max(read, refused); ++i) {
            const std::string part = repeated;
            document.append(part).replace(document.size() - part.size() + part.find('#'), 1,
                                          std::to_string(i));
            if (i == read || i == refused) {
                write("etc/cluster.xml", document + tail);
                EXPECT_EQ(said[xmllib_load_config()], i == read ? "done"s : "bad XML")
                    << head << repeated << i;
            }
        }
    }
    std::string most(8 * 1024 * 1024, ' ');
    most.replace(0, 4, "<r>x").replace(most.size() - 5, 5, "y</r>");
    for (const int code : {QOR_XMLERR_SUCCESS, QOR_XMLERR_INVALID_XML}) {
        write("etc/cluster.xml", most);
        EXPECT_EQ(xmllib_load_config(), code);
        most += '\n';
    }
}

TEST_F(XmlTest, ChangesFromOneConfigurationToAnother)
{
    void *handle = nullptr, *next = nullptr;
    EXPECT_EQ(get("/r"), "stopped");
    ASSERT_EQ(xmllib_init("fip"), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(get("/r"), "not loaded");
    EXPECT_EQ(xmllib_unload_config(), QOR_XMLERR_NOT_LOAD);
    start("<r>running<w/></r>"); // started already
    write("etc/cluster.xml", "<r");
    write("new.xml", "<r>new</r>");
    EXPECT_EQ(xmllib_load_config(), QOR_XMLERR_INVALID_XML);
    ASSERT_EQ(xmllib_load_pathconfig("new.xml", &handle), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(get("/r"), "running"); // both times what was loaded stays
    EXPECT_EQ(xmllib_change_config(handle), QOR_XMLERR_SUCCESS);
    expect({{"/r", "new"}, {"/r/w", "no path"}}); // the running configuration gives no defaults
    EXPECT_EQ(xmllib_unload_config(), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(get("/r"), "new");
    start("<r>again</r>");
    EXPECT_EQ(get("/r"), "again");
    expect_all(QOR_XMLERR_SUCCESS, {xmllib_change_config(handle), xmllib_unload_pathconfig(handle)});
    EXPECT_EQ(get("/r"), "again");
    ASSERT_EQ(xmllib_load_pathconfig("new.xml", &next), QOR_XMLERR_SUCCESS);
    // An old handle stays invalid, even if its memory could be used again.
    expect_all(QOR_XMLERR_INVALID_HANDLE, {xmllib_change_config(handle), xmllib_unload_pathconfig(handle)});
    EXPECT_EQ(xmllib_term(), QOR_XMLERR_SUCCESS);
    EXPECT_EQ(get("/r"), "stopped");
}
} // namespace
