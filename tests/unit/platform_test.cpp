// The suite's shared memory and semaphores as the run uses them, with library calls of the test's own.

#include "fip/platform.h"
#include "fip_fixture.h"

namespace
{
std::string called;
int library_result = 0;

int call(const std::string &name)
{
    called += name + ";";
    return library_result;
}
} // namespace

// clang-format off
#define FAKE(name) extern "C" int __wrap_##name() { return call(#name); }
FAKE(shmrm_attach) FAKE(shmrm_detach) FAKE(shmnm_attach) FAKE(shmnm_detach) FAKE(sem_attach) FAKE(sem_detach)
FAKE(sem_entercrit_ifconfig) FAKE(sem_leavecrit_ifconfig)
extern "C" int __wrap_shmnm_getnpsimuflag(int *flag) { *flag = 1; return call("flag"); }
// clang-format on
extern "C" int __wrap_shmrm_setdescript(const char *group, const char *type, const char *name,
                                        const char *text, int size)
{
    return call(join(group, type, name, text, size));
}

using PlatformTest = FipTest;

TEST_F(PlatformTest, CountsAndGuards)
{
    const struct {
        std::string name;
        int (*wrapper)();
        int *counter, step;  // what success changes, and by what
        int *guards[2] = {}; // all must be set, or nothing is called
    } cases[] = {
        {"shmrm_attach", fip_shmrm_attach, &shmrmflag, 1},
        {"shmrm_detach", fip_shmrm_detach, &shmrmflag, -1, {&shmrmflag}},
        {"shmnm_attach", fip_shmnm_attach, &shmnmflag, 1},
        {"shmnm_detach", fip_shmnm_detach, &shmnmflag, -1, {&shmnmflag}},
        {"sem_attach", fip_sem_attach, &semflag, 1},
        {"sem_detach", fip_sem_detach, &semflag, -1, {&semflag}},
        {"sem_entercrit_ifconfig", fip_sem_entercrit_ifconfig, &sementifflag, 1, {&semflag}},
        {"sem_leavecrit_ifconfig", fip_sem_leavecrit_ifconfig, &sementifflag, -1, {&semflag, &sementifflag}},
    };
    for (const auto &row : cases) {
        for (int *missing : {static_cast<int *>(nullptr), row.guards[0], row.guards[1]}) {
            for (library_result = 0; library_result < 2; ++library_result) {
                shmrmflag = shmnmflag = semflag = sementifflag = 1;
                *(missing != nullptr ? missing : &ipv6flag) = 0;
                const int before = *row.counter,
                          step = missing != nullptr || library_result != 0 ? 0 : row.step;
                called.clear();
                EXPECT_EQ(row.wrapper(), 0);
                EXPECT_EQ(*row.counter - before, step) << row.name;
                EXPECT_EQ(called, missing != nullptr ? "" : row.name + ";");
            }
        }
        EXPECT_TRUE(traced("fip_" + row.name + " | " + row.name + "() succeeded.\n"));
        EXPECT_TRUE(traced("fip_" + row.name + " | " + row.name + "() failed. (ret=1)\n"));
    }
}

TEST_F(PlatformTest, FilesMessage_AndReadsFlag_OnlyWhileAttached)
{
    int flag = 77;
    const auto all = [&flag] {
        called.clear();
        const int filed = fip_shmrm_setdescript("fip1", "g"), read = fip_shmnm_getnpsimuflag(&flag);
        return join(filed, read, flag, fip_skips_ping(0), fip_skips_ping(1), called);
    };
    library_result = 0;
    EXPECT_EQ(all(), "0 0 77 0 0 ");
    shmrmflag = shmnmflag = 1;
    EXPECT_EQ(all(), "0 0 1 1 0 g fip fip1 Success. 128;flag;flag;");
    fip_internal_error(99);
    library_result = 4; // an unknown flag counts as not set
    EXPECT_EQ(all(), "0 4 1 0 0 g fip fip1 Internal error. (status=99) 128;flag;flag;");
}
