// The trace log, as its callers see it.

#include "fip_fixture.h"

constexpr char source[] = "src/fip.c";

class TraceTest : public FipTest
{
protected:
    // What stands behind the headers of the lines since the last look: "LEVEL FUNCTION | TEXT;...".
    std::string lines() const
    {
        std::string found;
        std::istringstream in(read_file(home / "trace"));
        for (std::string line; std::getline(in, line);) {
            const std::size_t at = line.find(" src/fip.c:7 "), level = line.rfind(' ', at - 1) + 1;
            found.append(line, level, at - level).append(line, at + 12).append(";");
        }
        fs::resize_file(home / "trace", 0);
        return found;
    }
};

TEST_F(TraceTest, WritesMessage_BehindPrefix)
{
    const char *text = "100%s of %d%%", *none = nullptr;
    for (const auto &[name, prefix] :
         {std::pair{"", ""}, {"web1", "web1    : "}, {"%s%nninelette", "%s%nnine: "}}) {
        tracetell(name);
        trace(TRACE_INFO, source, 7, "f", "%s", text);
        EXPECT_EQ(lines(), std::string("4 f | ").append(prefix).append(text).append(";"));
    }
    trace(TRACE_INFO, source, 7, "f", none, "no format, no line");
    trace_ex(TRACE_INFO, source, 7, "f", "the second log is not open");
    tracemess(TRACE_EVENT, 10, source, 7, "f", none, "1.2.3.4"); // events have no prefix
    tracemess3(TRACE_EVENT, 1, source, 7, "f", "%s %s %s", "a", "b", "c");
    tracemess4(TRACE_EVENT, 1, source, 7, "f", "%s %s %d", "a", "b", -3);
    EXPECT_EQ(lines(),
              "32768 f | address 1.2.3.4 is in use by another host;32768 f | a b c;32768 f | a b -3;");
    traceopen("fip", TRACE_DEBUG, 0, (home / "other").c_str()); // open already: clears the prefix only
    trace(TRACE_INFO, source, 7, "f", "%s", std::string(1023, 'x').append("YZ").c_str());
    EXPECT_EQ(lines(), std::string("4 f | ").append(1023, 'x').append(";"));
    traceclose(); // undoes both
    trace(TRACE_ERROR, source, 7, "f", "closed");
    tracemess(TRACE_EVENT, 10, source, 7, "f", nullptr, "1.2.3.4");
    tracesys(1, 2, source, 7, "f", "closed");
    EXPECT_EQ(lines(), "");
    traceopen("fip", TRACE_DEBUG, 0, (home / "no/such/dir/trace").c_str()); // fails unnoticed
    trace(TRACE_ERROR, source, 7, "f", "nowhere");
}

TEST_F(TraceTest, WritesResults_Indented_WithNames)
{
    const auto results = [this](int ret) {
        trace2(TRACE_WARNING, source, 7, "f", "%s", "call");
        tracefunc(ret, source, 7, "f", "%s", "call");
        tracesys(ret, 2, source, 7, "f", "%s", "call");
        tracexml(ret, source, 7, "f", "%s", "call");
        traceshmrm(ret, source, 7, "f", "%s", "call");
        return lines();
    };
    EXPECT_EQ(results(11), "2 f |   call;1 f |   call failed. (0xb);1 f |   call failed. (ret=11,errno=2);"
                           "1 f |   call failed. (0xb ?\?);1 f |   call failed. (0xb SHMRM_ERR_MAXGRP);");
    tracetell("w");
    EXPECT_EQ(results(0),
              "2 f | w       :   call;8 f | w       :   call success.;8 f | w       :   call success.;"
              "8 f | w       :   call success.;8 f | w       :   call success.;");
    std::string all;
    for (void (*const name)(int, char *) : {makeerrstr_xml, makeerrstr_shmrm}) {
        for (int code = -1; code <= 16; ++code) {
            char text[TRACE_ERRSTR_SIZE];
            name(code, text);
            all.append(strstr(text, "ERR_") != nullptr ? strstr(text, "ERR_") + 4 : text).append(" ");
        }
    }
    EXPECT_EQ(
        all,
        "?? SUCCESS NOT_INIT NOT_LOAD NOTENOUGH_SIZE NOTEXIST_PATH NOTEXIST_VALUE INVALID_PATH INVALID_XML "
        "INVALID_HANDLE INVALID_CONTENTS OTHER ?? ?? ?? ?? ?? ?? "
        "?? ?? ?? NOTINIT INVALIDPARAM NOTFOUND NOTENOUGH XMLINIT FTOK SHMGET SHMAT SHMCTL MAXGRP MAXRSC "
        "MAXMON LOADINFO LOADCONF ?? ");
}
