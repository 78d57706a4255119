#include "qorxml.h"

#include "home_fixture.h"
#include "qorhome.h"

#include <climits>
#include <cstring>
#include <libxml/xmlmemory.h>
#include <unistd.h>

namespace
{
using std::string_literals::operator""s;

int allocations_left = INT_MAX; // of the parser's
void *scarce(void *old, size_t size)
{
    return allocations_left-- > 0 ? realloc(old, size) : nullptr;
}

enum { text = QOR_XMLTYPE_TEXT, number = QOR_XMLTYPE_INT, unknown, names };

void expect_codes(int expected, const std::vector<int> &codes)
{
    EXPECT_EQ(codes, std::vector<int>(codes.size(), expected));
}

struct XmlTest : HomeTest {
    XmlTest() { fs::current_path(home); }
    ~XmlTest() override { xmllib_term(); }

    void start(const std::string &config) const
    {
        write("etc/cluster.xml", config);
        expect_codes(0, {xmllib_init("fip"), xmllib_load_config()});
    }
};

// What is found under each path, for a server if one is given: values, names or "#CODE", each ended by '|'.
std::string get(const std::vector<std::string> &paths, int type = text, const char *server = nullptr)
{
    std::ostringstream found;
    for (const std::string &path : paths) {
        alignas(int) char buf[4 * QOR_XML_NAME_SLOT] = {};
        int size = sizeof(buf);
        const int code = type == names ? xmllib_enum_value(path.c_str(), buf, &size)
                         : server == nullptr
                             ? xmllib_get_value(path.c_str(), type, buf, &size)
                             : xmllib_get_srvsep_value(server, path.c_str(), type, buf, &size);
        if (code != 0)
            found << '#' << code << '|';
        else if (type == number)
            found << *reinterpret_cast<int *>(buf) << '|';
        else
            for (int slot = 0; slot < size; slot += QOR_XML_NAME_SLOT)
                found << &buf[slot] << '|';
    }
    return found.str();
}

TEST_F(XmlTest, FindsTheElementThatThePathSelects_AmongMany)
{
    const std::string longest(255, 'm');
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "<f name='" + std::to_string(i * 7 % 1000) + "'>" + std::to_string(i) + "</f>";
    start("<?xml version='1.0' encoding='ISO-8859-1'?><!DOCTYPE r SYSTEM 'http://192.0.2.1/d.dtd'><r>"
          "<f name='a'><ip> 10.0.0.1/24\n</ip><e> \n </e></f><f><ip>bare</ip></f><f><ip>2nd</ip></f>"
          "<f name='x/v'><v>1</v></f><f name='a%n@c&amp;&lt;&quot;]|*'><v>2</v></f><f name=''><v>3</v></f>"
          "<f name='\xe4'><v>\xfc &#8364;</v></f><f id='i'><v>4</v></f><p:q xmlns:p='u' p:name='z'>5</p:q>"
          "<t>one<!-- c --> two<x>inner</x><![CDATA[ <3> ]]></t><a>2147483647</a><b>-2147483648</b>"
          "<c>2147483648</c><d>+07</d><g>+-7</g><h>0x10</h><i>7s</i><j>-</j><k>\n5 </k>"
          "<s name='b'/><s/><st name='no'/><s name='a'/><s name='m" +
          longest + "'/><s name='" + longest + "'/><s name='b'/>" + many +
          "<f name='993'>twin</f><z>last</z></r>");
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(get({"/r/f@" + std::to_string(i * 7 % 1000)}), std::to_string(i) + "|");
    EXPECT_EQ(get({"/r/f@a/ip", "/r/f@a/e", "/r/f/ip", "/r/p:q", "/r/z"}), "10.0.0.1/24||bare|5|last|");
    EXPECT_EQ(get({"/r/f@ä/v", "/r/f@a%n@c&<\"]|*/v", "/r/f@/v", "/r/t"}), "ü €|2|3|one two <3>|");
    EXPECT_EQ(get({"/r/f@a/none", "/f@a/ip", "/r/*", "/r/f@x/v/v", "/r/f@i/v"}), "#4|#4|#4|#4|#4|");
    EXPECT_EQ(get({"", "/", "r/f", "/r//f", "/r/f/", "/r/@a/ip"}), "#6|#6|#6|#6|#6|#6|");
    EXPECT_EQ(get({"/r/a", "/r/b", "/r/d", "/r/k", "/r/f@a/e"}, number), "2147483647|-2147483648|7|5|#5|");
    EXPECT_EQ(get({"/r/c", "/r/g", "/r/h", "/r/i", "/r/j"}, number), "#9|#9|#9|#9|#9|");
    EXPECT_EQ(get({"/r/a"}, unknown), "#10|");
    EXPECT_EQ(get({"/r/s", "/r", "/none/r", "/r/s/"}, names), "b|a|" + longest + "|b|#4|#4|#6|");
}

TEST_F(XmlTest, TellsTheSize_AndLeavesTheBufferAlone_WhenItIsTooSmall)
{
    start("<r name='top'><s name='n'/><s name='m'/><v>1234567</v></r>");
    const int cases[][4] = {{text, 8, 0, 8},   {text, 7, 3, 8},   {text, -1, 3, 8},  {number, 9, 0, 4},
                            {number, 4, 0, 4}, {number, 3, 3, 4}, {number, -5, 3, 4}};
    for (const auto &[type, capacity, code, needed] : cases) {
        char buf[16] = "untouched";
        int size = capacity;
        EXPECT_EQ(xmllib_get_value("/r@top/v", type, buf, &size), code) << type << ' ' << capacity;
        EXPECT_EQ(size, needed) << type << ' ' << capacity;
        EXPECT_EQ(std::string(buf) == "untouched", code != 0);
    }
    char buf[512] = "untouched";
    int size = 511;
    EXPECT_EQ(xmllib_enum_value("/r@top/s", buf, &size), 3);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(xmllib_enum_value("/r@top/s", buf, &size), 0);
    EXPECT_EQ(std::string(buf, 512), "n" + std::string(255, '\0') + "m" + std::string(255, '\0'));
    EXPECT_EQ(xmllib_enum_value("/r", nullptr, &size), 0);
    EXPECT_EQ(size, 256);
    expect_codes(10, {xmllib_get_value(nullptr, text, buf, &size), xmllib_get_value("/r", text, buf, nullptr),
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
    expect_codes(0, {xmllib_load_policy("fip"), xmllib_load_policy("fip"), xmllib_load_policy("all")});
    // The same path in any policy comes before a common default, and before both what is there, if empty.
    EXPECT_EQ(get({"/r/f@x/a", "/r/f@x/b", "/r/f@y/b", "/r/f@y/a"}), "all own|own|fip||");
    EXPECT_EQ(get({"/r/f", "/r/f@x/s"}, names), "x|y|p|");
    const std::string x = "/r/f@x/parameters";
    const std::string y = "/r/f@y/parameters";
    EXPECT_EQ(get({x + "/i", x + "/e", x, y + "/i", y + "/d", y + "/none", "parameters/i"}, text, "s"),
              "own||all|common|default|#4|#6|");
    EXPECT_EQ(get({x + "/i"}, text, "t") + get({x + "/i"}, text, "a/b"), "common|slash|");

    for (const std::string left : {"fip|", "fip|", "all|"}) { // it was loaded twice
        EXPECT_EQ(get({"/r/o"}), left);
        EXPECT_EQ(xmllib_unload_policy("fip"), left == "all|" ? 4 : 0);
    }
    expect_codes(4, {xmllib_unload_policy(nullptr), xmllib_load_policy("absent")});
    expect_codes(10, {xmllib_load_policy(""), xmllib_load_policy("."), xmllib_load_policy("../policy/all"),
                      xmllib_load_policy("/all"), xmllib_load_policy(nullptr)});
}

TEST_F(XmlTest, RefusesFile_ThatIsNotRootsAlone)
{
    ASSERT_EQ(xmllib_init("fip"), 0);
    const int next_fd = dup(0);
    close(next_fd);
    for (const std::string spoil : {"chmod 664 p.xml", "chmod 646 p.xml", "chown 1 p.xml",
                                    "mv p.xml q.xml; ln -s q.xml p.xml", "rm p.xml; mkfifo -m 600 p.xml"}) {
        ASSERT_EQ(
            system(
                ("mkdir -p etc/policy && cd etc/policy && rm -f * && echo '<r/>' >p.xml; " + spoil).c_str()),
            0); // NOLINT
        void *handle = &handle;
        expect_codes(7, {xmllib_load_policy("p"), xmllib_load_pathconfig("etc/policy/p.xml", &handle)});
        EXPECT_EQ(handle, nullptr) << spoil;
    }
    EXPECT_EQ(dup(0), next_fd) << "files left open";
    char path[PATH_MAX];
    setenv("QOR_HOME", ".", 1); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(qorhome_path("file", path, sizeof(path)), 0);
    EXPECT_STREQ(path, QOR_HOME_DEFAULT "/file") << "a relative home";
}

TEST_F(XmlTest, RefusesHostileDocument_AndKeepsQuiet)
{
    std::string deep = "><r/>";
    for (int i = 1; i < 300; ++i)
        deep.insert(1, "<r>").append("</r>");
    const std::string cases[] = {"SYSTEM '/etc/passwd'><r>&e;</r>",
                                 "SYSTEM '/etc/passwd'><r name='a&e;'/>",
                                 "[<!ENTITY e SYSTEM '/etc/passwd'>]><r>&e;</r>",
                                 "[<!ENTITY % p SYSTEM '/etc/passwd'>%p;]><r/>",
                                 "[<!ENTITY u SYSTEM 'x' NDATA n>]><r/>",
                                 "[<!ATTLIST r a (x|y) 'x'>]><r/>",
                                 "[<!ENTITY l 'ha'><!ENTITY m '&l;&l;'>]><r/>",
                                 "><r>\xff\xfe</r>",
                                 "><r>\0</r>"s,
                                 "><r/>\0"s,
                                 "><r/>\0<x/>"s,
                                 "><r/>" + std::string(9000, ' ') + "\0 "s,
                                 "><p:r/>",
                                 ">",
                                 deep};
    ASSERT_EQ(xmllib_init("fip"), 0);
    testing::internal::CaptureStderr();
    for (const std::string &rest : cases) {
        write("etc/cluster.xml", "<!DOCTYPE r " + rest);
        EXPECT_EQ(xmllib_load_config(), 7) << rest.substr(0, 80);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(XmlTest, ReadsWhatIsLarge_RefusesWhatWouldBeCostly)
{
    const struct {
        int read, refused; // how many times "BEFORE NUMBER AFTER" stand in the document; 0: no limit
        const char *head, *before, *after, *tail;
    } cases[] = {
        {64, 65, "<r", " a", "=''", "/>"},
        {63, 64, "<r", " xmlns:n", "='u'", "><e xmlns='u'/><e xmlns='u'/></r>"},
        {9000, 11000, "<r>", "<e", "/><e name='x'/>", "</r>"},
        {15000, 17000, "<r a='", "", "", "'/>"}, // 63.9 and 73.9 kB
        {100000, 0, "<r>", "<!--", "-->", "</r>"},
        {100000, 0, "<r><!--", "<e", "/>", "--></r>"},
        {1, 20000, "<r>", "<?p", "?>", "</r>"},
        {1, 9000, "<!DOCTYPE r [", "<!ELEMENT e", " (a)><!---->", "]><r/>"},
    };
    ASSERT_EQ(xmllib_init("fip"), 0);
    for (const auto &[read, refused, head, before, after, tail] : cases) {
        std::string document = head;
        for (int i = 1; i <= std::max(read, refused); ++i) {
            document.append(before).append(std::to_string(i)).append(after);
            if (i == read || i == refused) {
                write("etc/cluster.xml", document + tail);
                EXPECT_EQ(xmllib_load_config(), i == read ? 0 : 7) << head << before << i;
            }
        }
    }
    std::string most(8 * 1024 * 1024, ' ');
    most.replace(0, 4, "<r>x").replace(most.size() - 5, 5, "y</r>");
    for (const int code : {0, 7}) {
        write("etc/cluster.xml", most);
        EXPECT_EQ(xmllib_load_config(), code);
        most += '\n';
    }
}

TEST_F(XmlTest, LoadsAllOrNothing_WhenMemoryRunsOut)
{
    start("<r/>");
    write("etc/policy/p.xml", "<r><v>1</v></r>");
    const auto fresh = [](size_t size) { return scarce(nullptr, size); };
    ASSERT_EQ(xmlMemSetup(free, fresh, scarce, strdup), 0);
    for (int given = 0, left = -1; left < 0; ++given) {
        allocations_left = given;
        const int code = xmllib_load_policy("p");
        left = std::exchange(allocations_left, INT_MAX);
        EXPECT_EQ(get({"/r/v"}), code == 0 ? "1|" : "#4|") << given;
        EXPECT_EQ(xmllib_unload_policy("p"), code == 0 ? 0 : 4) << given;
    }
}

TEST_F(XmlTest, KeepsTrackOfWhatIsLoaded)
{
    void *old = nullptr;
    void *other = nullptr;
    const auto read_all = [] { return get({"/r"}) + get({"/r"}, text, "s") + get({"/r"}, names); };
    EXPECT_EQ(read_all(), "#1|#1|#1|");
    expect_codes(1, {xmllib_term(), xmllib_load_config(), xmllib_unload_config(), xmllib_load_policy("p"),
                     xmllib_unload_policy("p"), xmllib_load_pathconfig("/none", &old),
                     xmllib_change_config(&old), xmllib_unload_pathconfig(&old)});
    ASSERT_EQ(xmllib_init("fip"), 0);
    EXPECT_EQ(read_all(), "#2|#2|#2|");
    EXPECT_EQ(xmllib_unload_config(), 2);
    EXPECT_EQ(xmllib_load_config(), 7);
    start("<r>running<w/></r>"); // its second xmllib_init does nothing
    write("etc/cluster.xml", "<r");
    write("new.xml", "<r>new</r>");
    EXPECT_EQ(xmllib_load_config(), 7);
    ASSERT_EQ(xmllib_load_pathconfig("new.xml", &old), 0);
    EXPECT_EQ(get({"/r"}), "running|"); // both times what was loaded stays
    EXPECT_EQ(xmllib_change_config(old), 0);
    EXPECT_EQ(get({"/r", "/r/w"}), "new|#4|"); // the running configuration gives no defaults
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(get({"/r"}), "new|");
    start("<r>again</r>");
    EXPECT_EQ(get({"/r"}), "again|");
    expect_codes(0, {xmllib_change_config(old), xmllib_unload_pathconfig(old)});
    EXPECT_EQ(get({"/r"}), "again|");
    ASSERT_EQ(xmllib_load_pathconfig("new.xml", &other), 0);
    // An old handle stays invalid, even if its memory could be used again.
    expect_codes(8, {xmllib_change_config(old), xmllib_unload_pathconfig(old)});
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(read_all(), "#1|#1|#1|");
}
} // namespace
