// The trace log, as its callers see it.

#include "fip_fixture.h"

using TraceTest = FipTest;

TEST_F(TraceTest, WritesLines)
{
    constexpr char source[] = "src/fip.c";
    tracetell("%s%nninelette");
    trace(TRACE_INFO, source, 7, "f", "%s", "100%s");
    traceshmrm(11, source, 7, "f", "%s", "call");
    tracemess(TRACE_EVENT, 10, source, 7, "f", nullptr, "1.2.3.4"); // events have no prefix
    EXPECT_TRUE(traced(" 4 src/fip.c:7 f | %s%nnine: 100%s\n"));
    EXPECT_TRUE(traced(" 1 src/fip.c:7 f | %s%nnine:   call failed. (0xb SHMRM_ERR_MAXGRP)\n"));
    EXPECT_TRUE(traced(" 32768 src/fip.c:7 f | address 1.2.3.4 is in use by another host\n"));
}

TEST_F(TraceTest, NamesErrors)
{
    const std::string expected =
        "?? SUCCESS NOT_INIT NOT_LOAD NOTENOUGH_SIZE NOTEXIST_PATH NOTEXIST_VALUE INVALID_PATH INVALID_XML "
        "INVALID_HANDLE INVALID_CONTENTS OTHER ?? ?? ?? ?? ?? ?? ?? ?? ?? NOTINIT INVALIDPARAM NOTFOUND "
        "NOTENOUGH XMLINIT FTOK SHMGET SHMAT SHMCTL MAXGRP MAXRSC MAXMON LOADINFO LOADCONF ?? ";
    std::string all;
    for (void (*const name)(int, char *) : {makeerrstr_xml, makeerrstr_shmrm}) {
        for (int code = -1; code <= 16; ++code) {
            char text[TRACE_ERRSTR_SIZE];
            name(code, text);
            all.append(strstr(text, "ERR_") != nullptr ? strstr(text, "ERR_") + 4 : text).append(" ");
        }
    }
    EXPECT_EQ(all, expected);
}
