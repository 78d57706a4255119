// The trace log, as its callers see it.

#include "fip/trace_setup.h"
#include "fip_fixture.h"
#include "tracersc_more.h"

using TraceTest = FipTest;

constexpr char source[] = "src/fip.c";

TEST_F(TraceTest, WritesLines_WithTheNameThatItIsTold)
{
    tracetell("%s%nninelette");
    trace(TRACE_INFO, source, 7, "f", "%s", "100%s");
    trace(TRACE_INFO, source, 7, "f", "%2000s", "");
    tracemess(TRACE_EVENT, 10, source, 7, "f", nullptr, "1.2.3.4");
    EXPECT_TRUE(traced(" 4 src/fip.c:7 f | %s%nnine: 100%s\n"));
    EXPECT_TRUE(traced(" 4 src/fip.c:7 f | %s%nnine: " + std::string(1023, ' ') + "\n"));
    EXPECT_TRUE(traced(" 32768 src/fip.c:7 f | address 1.2.3.4 is in use by another host\n"))
        << "an event has none";
}

TEST_F(TraceTest, NamesTheCodesOfLibraries)
{
    for (const int code : {-1, 10, 11}) // the last name, and what has none
        tracexml(code, source, 7, "f", "%s", "call");
    for (const int code : {1, 15, 16})
        traceshmrm(code, source, 7, "f", "%s", "call");
    for (const std::string detail :
         {"0xffffffff ??", "0xa QOR_XMLERR_OTHER", "0xb ??", "0x1 ??", "0xf SHMRM_ERR_LOADCONF", "0x10 ??"})
        EXPECT_TRUE(traced("  call failed. (" + detail + ")\n")) << detail;
}

TEST_F(TraceTest, TakesLevelAndSize_WithoutConfiguration)
{
    start_config("");
    traceclose();
    write("log/fip.log", std::string(999'900, '\n'));
    ASSERT_EQ(fip_log_init(), 0);
    for (const int level : {TRACE_DEBUG, TRACE_INFO, TRACE_INFO}) { // the two that count end the file
        EXPECT_FALSE(fs::exists(home / "log/fip.log.1"));
        trace(level, source, 7, "f", "50 to 100 bytes");
    }
    EXPECT_TRUE(fs::exists(home / "log/fip.log.1"));
}
