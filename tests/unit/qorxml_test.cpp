#include "qorxml.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace
{
constexpr int text = QOR_XMLTYPE_TEXT;
constexpr int number = QOR_XMLTYPE_INT;

// A suite home of its own for every test, owned by root like the real one.
class XmlTest : public testing::Test
{
protected:
    fs::path home;

    void SetUp() override
    {
        ASSERT_EQ(geteuid(), 0U) << "only a file of root's is trusted";
        umask(022);
        char name[] = "/tmp/qorxml.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        home = name;
        fs::create_directories(home / "etc/policy");
        setenv("QOR_HOME", name, 1); // NOLINT(concurrency-mt-unsafe)
    }
    void TearDown() override
    {
        xmllib_term();
        fs::remove_all(home);
    }

    fs::path write(const std::string &relative, const std::string &contents) const
    {
        std::ofstream(home / relative) << contents;
        return home / relative;
    }
    void start(const std::string &config) const
    {
        write("etc/cluster.xml", config);
        ASSERT_EQ(xmllib_init("fip"), 0);
        ASSERT_EQ(xmllib_load_config(), 0);
    }
};

// Reads a value, for a server if one is given: "CODE" or "0:VALUE", with the size checked.
std::string get(const std::string &path, int type = text, const char *server = nullptr)
{
    char buf[82] = {};
    int size = sizeof(buf);
    const int code = server == nullptr ? xmllib_get_value(path.c_str(), type, buf, &size)
                                       : xmllib_get_srvsep_value(server, path.c_str(), type, buf, &size);
    if (code != 0) {
        return std::to_string(code);
    }
    int value = 0;
    memcpy(&value, buf, sizeof(value));
    const std::string shown = type == text ? buf : std::to_string(value);
    EXPECT_EQ(size, type == text ? static_cast<int>(shown.size()) + 1 : 4) << shown;
    return "0:" + shown;
}

// "CODE" or the names, each followed by a semicolon.
std::string list(const char *path)
{
    int size = 0;
    int code = xmllib_enum_value(path, nullptr, &size);
    std::vector<char> buf(static_cast<std::size_t>(size), 'x');
    if (code == 0) {
        code = xmllib_enum_value(path, buf.data(), &size);
    }
    std::string names = code == 0 ? "" : std::to_string(code);
    for (std::size_t slot = 0; slot < buf.size() && code == 0; slot += QOR_XML_NAME_SLOT) {
        names += std::string(&buf[slot]) + ";";
    }
    return names;
}

TEST_F(XmlTest, ReadsValue_OfTheElementThatThePathSelects)
{
    start(
        "<?xml version='1.0' encoding='ISO-8859-1'?><!-- c --><!DOCTYPE root SYSTEM 'http://192.0.2.1/d.dtd'>"
        "<root><resource><fip name='a'><ip> 10.0.0.1/24\n</ip><n>1</n><none/><blank> \n </blank></fip>"
        "<fip><ip>bare</ip></fip><fip><ip>second</ip></fip><fip name='a'><ip>twin</ip></fip>"
        "<fip name=\"it's\"><v>1</v></fip><fip name='&quot;]|*[@x=&quot;'><v>2</v></fip>"
        "<fip name='b@c'><v>3</v></fip><fip name='x/v'><v>4</v></fip><fip name='%s%n&amp;&lt;'><v>5</v></fip>"
        "<fip name='\xe4'><v>\xfc &#8364;</v></fip><fip name=''><v>7</v></fip><fip id='i'><v>8</v></fip>"
        "<t>one<!-- c --> two<x>inner</x><![CDATA[ <3> ]]></t><p:q xmlns:p='u' p:name='z'>9</p:q>"
        "</resource><int><a>2147483647</a><b>-2147483648</b><c>2147483648</c><d>+07</d><e>+-7</e><f>0x10</f>"
        "<g>1 2</g><h>7s</h><i>99999999999999999999</i><j>-</j><k>\n5 </k></int></root>");
    const struct {
        const char *path, *as_text, *as_int;
    } cases[] = {
        {"/root/resource/fip@a/ip", "0:10.0.0.1/24", "9"},
        {"/root/resource/fip@a/none", "0:", "5"},
        {"/root/resource/fip@a/blank", "0:", "5"},
        {"/root/resource/fip/ip", "0:bare", "9"},
        {"/root/resource", "0:", "5"},
        {"/root/resource/fip@it's/v", "0:1", "0:1"},
        {"/root/resource/fip@\"]|*[@x=\"/v", "0:2", "0:2"},
        {"/root/resource/fip@b@c/v", "0:3", "0:3"},
        {"/root/resource/fip@%s%n&</v", "0:5", "0:5"},
        {"/root/resource/fip@\xc3\xa4/v", "0:\xc3\xbc \xe2\x82\xac", "9"},
        {"/root/resource/fip@/v", "0:7", "0:7"},
        {"/root/resource/t", "0:one two <3>", "9"},
        {"/root/resource/p:q", "0:9", "0:9"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(get(c.path, text), c.as_text) << c.path;
        EXPECT_EQ(get(c.path, number), c.as_int) << c.path;
    }
    for (const char *path : {"/root/resource/fip@a/missing", "/resource/fip@a/ip", "/root/resource/*",
                             "/root/../root/resource/fip/ip", "/root/resource/fip@x/v/v",
                             "/root/resource/fip@\xe4/v", "/root/resource/fip@i/v"}) {
        EXPECT_EQ(get(path), "4") << path;
    }
    for (const char *path : {"", "/", "root/resource", "/root//resource", "/root/resource/", "/root/@a/ip"}) {
        EXPECT_EQ(get(path), "6") << path;
    }
    char tag = 'a';
    for (const char *expected :
         {"0:2147483647", "0:-2147483648", "9", "0:7", "9", "9", "9", "9", "9", "9", "0:5"}) {
        EXPECT_EQ(get(std::string("/root/int/") + tag, number), expected) << tag;
        ++tag;
    }
    EXPECT_EQ(get("/root/int/a", 2), "10");
}

TEST_F(XmlTest, TellsTheSize_AndLeavesTheBufferAlone_WhenItIsTooSmall)
{
    start("<root><s name='n'/><s name='m'/><v>1234567</v></root>");
    const struct {
        int type, capacity, code, size;
    } cases[] = {{text, 8, 0, 8},   {text, 7, 3, 8},   {text, 0, 3, 8},   {text, -1, 3, 8},
                 {number, 4, 0, 4}, {number, 9, 0, 4}, {number, 3, 3, 4}, {number, -5, 3, 4}};
    for (const auto &c : cases) {
        char buf[16] = "untouched";
        int size = c.capacity;
        EXPECT_EQ(xmllib_get_value("/root/v", c.type, buf, &size), c.code) << c.type << ' ' << c.capacity;
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(std::string(buf) == "untouched", c.code != 0);
    }
    char slots[512] = "untouched";
    int size = 511;
    EXPECT_EQ(xmllib_enum_value("/root/s", slots, &size), 3);
    EXPECT_EQ(size, 512);
    EXPECT_STREQ(slots, "untouched");
    EXPECT_EQ(xmllib_enum_value("/root/s", slots, &size), 0);
    EXPECT_EQ(std::string(slots, 512), "n" + std::string(255, '\0') + "m" + std::string(255, '\0'));

    EXPECT_EQ(xmllib_get_value(nullptr, text, slots, &size), 10);
    EXPECT_EQ(xmllib_get_value("/root/v", text, nullptr, &size), 10);
    EXPECT_EQ(xmllib_get_value("/root/v", text, slots, nullptr), 10);
    EXPECT_EQ(xmllib_get_srvsep_value(nullptr, "/root/v", text, slots, &size), 10);
    EXPECT_EQ(xmllib_enum_value("/root/s", slots, nullptr), 10);
}

TEST_F(XmlTest, FallsBackToPolicies_InTheirOrder)
{
    write("etc/policy/fip.xml",
          "<root><r><fip><a>fip</a><b>fip</b><s name='p'/></fip><fip name='x'><b>own</b></fip>"
          "</r><only>fip</only></root>");
    write("etc/policy/all.xml",
          "<root><r><fip><a>all</a><b>all</b></fip><fip name='x'><a>all own</a></fip></r>"
          "<only>all</only></root>");
    start("<root><r><fip name='x'/><fip name='y'><a/></fip></r></root>");
    EXPECT_EQ(get("/root/r/fip@x/a"), "4");
    for (const char *type : {"fip", "fip", "all"}) {
        EXPECT_EQ(xmllib_load_policy(type), 0);
    }
    EXPECT_EQ(get("/root/r/fip@x/a"), "0:all own"); // the same path in any policy, before a common default
    EXPECT_EQ(get("/root/r/fip@x/b"), "0:own");
    EXPECT_EQ(get("/root/r/fip@y/b"), "0:fip");
    EXPECT_EQ(get("/root/r/fip@y/a"), "0:"); // present, though empty
    EXPECT_EQ(get("/root/only"), "0:fip");
    EXPECT_EQ(list("/root/r/fip"), "x;y;");
    EXPECT_EQ(list("/root/r/fip@x/s"), "p;");

    EXPECT_EQ(xmllib_unload_policy("fip"), 0);
    EXPECT_EQ(get("/root/only"), "0:fip"); // it was loaded twice
    EXPECT_EQ(xmllib_unload_policy("fip"), 0);
    EXPECT_EQ(get("/root/only"), "0:all");
    EXPECT_EQ(xmllib_unload_policy("fip"), 4);
    EXPECT_EQ(xmllib_unload_policy(nullptr), 4);
    EXPECT_EQ(xmllib_load_policy("absent"), 4);
    for (const char *type : {"", ".", "../policy/all", "/all", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(xmllib_load_policy(type), 10);
    }
}

TEST_F(XmlTest, PrefersTheServersOwnValue_OfTheConfigurationOnly)
{
    write("etc/policy/fip.xml",
          "<root><fip><parameters><d>default</d></parameters>"
          "<server name='s'><parameters><ip>policy</ip></parameters></server></fip></root>");
    start("<root><fip name='x'><parameters>all<ip>common</ip><e>common</e></parameters>"
          "<server name='s'><parameters><ip>own</ip><e/></parameters></server>"
          "<server name='a/b'><parameters><ip>slash</ip></parameters></server></fip><fip "
          "name='y'><parameters><ip>common</ip></parameters></fip><v>plain</v></root>");
    ASSERT_EQ(xmllib_load_policy("fip"), 0);
    EXPECT_EQ(get("/root/fip@x/parameters/ip", text, "s"), "0:own");
    EXPECT_EQ(get("/root/fip@x/parameters/e", text, "s"), "0:");
    EXPECT_EQ(get("/root/fip@x/parameters/ip", text, "t"), "0:common");
    EXPECT_EQ(get("/root/fip@x/parameters/ip", text, "a/b"), "0:slash");
    EXPECT_EQ(get("/root/fip@y/parameters/ip", text, "s"), "0:common");
    EXPECT_EQ(get("/root/fip@y/parameters/d", text, "s"), "0:default");
    EXPECT_EQ(get("/root/fip@x/parameters", text, "s"), "0:all");
    EXPECT_EQ(get("/root/v", text, "s"), "0:plain");
    EXPECT_EQ(get("/root/fip@y/parameters/none", text, "s"), "4");
    EXPECT_EQ(get("parameters/ip", text, "s"), "6");
}

TEST_F(XmlTest, ListsNames_InDocumentOrder_WithoutThoseThatFitNoSlot)
{
    start("<root name='top'><s name='b'/><s/><st name='no'/><s name='a'/><s name='" + std::string(256, 'l') +
          "'/><s name='" + std::string(255, 'm') + "'/><s name='b'/></root>");
    EXPECT_EQ(list("/root@top/s"), "b;a;" + std::string(255, 'm') + ";b;");
    EXPECT_EQ(list("/root@top/t"), "4");
    EXPECT_EQ(list("/root"), "top;");
    EXPECT_EQ(list("/none/root"), "4");
    EXPECT_EQ(list("/root@top/s/"), "6");
}

TEST_F(XmlTest, FindsEveryOne_OfManyResources)
{
    constexpr int count = 3000;
    std::string config = "<root>";
    for (int i = 0; i < count; ++i) {
        config += "<fip name='r" + std::to_string(i * 7 % count) + "'><v>" + std::to_string(i) + "</v></fip>";
    }
    start(config + "<fip name='r7'><v>twin</v></fip><fip><v>bare</v></fip></root>");
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(get("/root/fip@r" + std::to_string(i * 7 % count) + "/v", number),
                  "0:" + std::to_string(i));
    }
    EXPECT_EQ(get("/root/fip/v"), "0:bare");
    EXPECT_EQ(get("/root/fip@r/v"), "4");
    EXPECT_EQ(get("/root/zzz"), "4");
}

TEST_F(XmlTest, RefusesFile_ThatIsNotRootsAlone)
{
    const fs::path good = write("good.xml", "<root/>");
    const fs::path file = home / "etc/policy/p.xml";
    const std::function<void()> cases[] = {[&] { fs::copy(good, file), chmod(file.c_str(), 0664); },
                                           [&] { fs::copy(good, file), chmod(file.c_str(), 0646); },
                                           [&] {
                                               fs::copy(good, file);
                                               EXPECT_EQ(chown(file.c_str(), 1, 0), 0);
                                           },
                                           [&] { fs::create_symlink(good, file); },
                                           [&] { EXPECT_EQ(mkfifo(file.c_str(), 0600), 0); },
                                           [&] { fs::create_directory(file); }};
    ASSERT_EQ(xmllib_init("fip"), 0);
    const auto open_files = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto open_before = open_files();
    for (const auto &prepare : cases) {
        fs::remove_all(file);
        prepare();
        void *handle = &handle;
        EXPECT_EQ(xmllib_load_policy("p"), 7) << &prepare - cases;
        EXPECT_EQ(xmllib_load_pathconfig(file.c_str(), &handle), 7) << &prepare - cases;
        EXPECT_EQ(handle, nullptr);
    }
    EXPECT_EQ(xmllib_load_config(), 7); // there is none
    EXPECT_EQ(xmllib_load_pathconfig((home / "none").c_str(), nullptr), 10);
    EXPECT_EQ(open_files(), open_before);
}

TEST_F(XmlTest, RefusesHostileDocument_AndKeepsQuiet)
{
    std::string laughs = "<!DOCTYPE r [<!ENTITY l0 'ha'>";
    for (int i = 1; i < 30; ++i) {
        const std::string inner = "&l" + std::to_string(i - 1) + ";";
        laughs.append("<!ENTITY l" + std::to_string(i) + " '").append(inner).append(inner).append("'>");
    }
    const std::string long_name(200000, 'n');
    std::string deep = "<d/>";
    for (int i = 0; i < 300; ++i) {
        deep.insert(0, "<d>").append("</d>");
    }
    const std::string cases[] = {
        "",
        "<root>",
        "<root></rot>",
        "<root/><root/>",
        "<root a='1' a='2'/>",
        "<root>\xff\xfe</root>",
        "<root>" + std::string(1, '\0') + "</root>",
        "<!DOCTYPE r [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><r>&e;</r>",
        "<!DOCTYPE r [<!ENTITY % p SYSTEM 'file:///etc/passwd'>%p;]><r/>",
        "<!DOCTYPE r SYSTEM 'file:///etc/passwd'><r>&e;</r>",
        "<!DOCTYPE r SYSTEM 'file:///etc/passwd' [<!ENTITY u SYSTEM 'x' NDATA n>]><r/>",
        "<!DOCTYPE r [<!ATTLIST r name CDATA 'default'>]><r/>",
        "<!DOCTYPE r [<!ATTLIST r a (x|y) 'x'>]><r/>",
        laughs + "]><r>&l29;</r>",
        "<!DOCTYPE r SYSTEM 'file:///etc/passwd'><r name='a&e;'/>",
        laughs + "]><r/>",
        "<r " + long_name + "='v'/>",
        "<" + long_name + "/>",
        deep};
    ASSERT_EQ(xmllib_init("fip"), 0);
    testing::internal::CaptureStderr();
    for (const std::string &document : cases) {
        write("etc/cluster.xml", document);
        EXPECT_EQ(xmllib_load_config(), 7) << document.substr(0, 80);
        EXPECT_EQ(get("/r"), "2");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(XmlTest, RefusesCalls_OutOfOrder)
{
    void *handle = nullptr;
    const std::string file = write("other.xml", "<root/>");
    EXPECT_EQ(get("/root"), "1");
    EXPECT_EQ(get("/root", text, "s"), "1");
    EXPECT_EQ(list("/root"), "1");
    for (const int code :
         {xmllib_term(), xmllib_load_config(), xmllib_unload_config(), xmllib_load_policy("fip"),
          xmllib_unload_policy("fip"), xmllib_load_pathconfig(file.c_str(), &handle),
          xmllib_change_config(&handle), xmllib_unload_pathconfig(&handle)}) {
        EXPECT_EQ(code, 1);
    }
    EXPECT_EQ(xmllib_init(nullptr), 10);
    EXPECT_EQ(xmllib_init("fip"), 0);
    EXPECT_EQ(get("/root"), "2");
    EXPECT_EQ(get("/root", text, "s"), "2");
    EXPECT_EQ(list("/root"), "2");
    EXPECT_EQ(xmllib_unload_config(), 2);
    EXPECT_EQ(xmllib_change_config(nullptr), 8);
    EXPECT_EQ(xmllib_unload_pathconfig(&handle), 8);

    start("<root/>"); // a second start does nothing
    EXPECT_EQ(get("/root"), "0:");
    write("etc/cluster.xml", "<root");
    EXPECT_EQ(xmllib_load_config(), 7);
    EXPECT_EQ(get("/root"), "0:"); // what was loaded stays
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(get("/root"), "2");
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_term(), 1);
}

TEST_F(XmlTest, ReadsTheChosenFile_UntilItIsUnloaded)
{
    start("<root><v>running</v><w>running</w></root>");
    const std::string file = write("new.xml", "<root><v>new</v></root>");
    void *first = nullptr;
    void *second = nullptr;
    ASSERT_EQ(xmllib_load_pathconfig(file.c_str(), &first), 0);
    EXPECT_EQ(get("/root/v"), "0:running");
    EXPECT_EQ(xmllib_change_config(first), 0);
    EXPECT_EQ(get("/root/v"), "0:new");
    EXPECT_EQ(get("/root/w"), "4"); // the running configuration gives no defaults
    EXPECT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(get("/root/v"), "0:new");
    EXPECT_EQ(xmllib_load_config(), 0);
    EXPECT_EQ(get("/root/v"), "0:running");

    EXPECT_EQ(xmllib_change_config(first), 0);
    EXPECT_EQ(xmllib_unload_pathconfig(first), 0);
    EXPECT_EQ(get("/root/v"), "0:running");
    ASSERT_EQ(xmllib_load_pathconfig(file.c_str(), &second), 0);
    EXPECT_EQ(xmllib_change_config(first), 8); // not even when the memory was used again
    EXPECT_EQ(xmllib_unload_pathconfig(first), 8);
    EXPECT_EQ(xmllib_change_config(second), 0);
}
} // namespace
