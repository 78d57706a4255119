#include "qoripc.h"

#include "home_fixture.h"

#include <atomic>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>

/// Runs `work` in a child, which never outlives the test. Its status is 0 when work gives true.
pid_t start(const std::function<bool()> &work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work() ? 0 : 1);
    }
    return pid;
}

/// Waits for a child, after a signal if one is given.
int finish(pid_t pid, int signal = 0)
{
    int status = -1;
    return kill(pid, signal) == 0 && waitpid(pid, &status, 0) == pid ? status : -1;
}

/// Holds until the other process has come this far.
void await(const std::atomic<int> &value, int wanted)
{
    while (value < wanted)
        usleep(100);
}

int file(const std::string &name, const std::string &text)
{
    return shmrm_setdescript("g", "fip", name.c_str(), text.c_str(), SHMRM_DESCRIPT_SIZE);
}

/// "GROUP|TYPE|NAME|FREE|MESSAGE" as filed there, or the code that reading gives.
std::string entry(int index)
{
    struct shmrm_state got = {};
    const int ret = shmrm_getstate(index, &got);
    const std::string group(got.group), free(got.rscfree);
    return ret != 0 ? std::to_string(ret)
                    : group + "|" + got.type + "|" + got.rscname + "|" + free + "|" + got.descript;
}

int attach_anew()
{
    shmrm_detach();
    return shmrm_attach();
}

struct QorIpc : HomeTest {
    const fs::path table = home / "run/resource.shm";
    /// Shared with the children that a test starts.
    std::atomic<int> *const shared = static_cast<std::atomic<int> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

    void SetUp() override { ASSERT_EQ(shmrm_attach(), 0); }
    ~QorIpc() override { shmrm_detach(), shmnm_detach(), sem_detach(); }
};

TEST_F(QorIpc, FilesByTypeAndName)
{
    const char device[SHMRM_FREE_SIZE] = "eth0:1";
    const std::string all_bytes(SHMRM_FREE_SIZE, 'd');
    EXPECT_EQ(shmrm_setrscfree(nullptr, "fip", "web", device, sizeof(device)), 0);
    EXPECT_EQ(shmrm_setdescript("g1", "fip", "web", "one", 128), 0);
    EXPECT_EQ(shmrm_setdescript("g2", "disk", "web", "abc", 2), 0);
    EXPECT_EQ(shmrm_setdescript(nullptr, "fip", "web", std::string(300, 'm').c_str(), 128), 0);
    EXPECT_EQ(shmrm_setrscfree("g3", "disk", "web", all_bytes.data(), SHMRM_FREE_SIZE), 0);
    ASSERT_EQ(attach_anew(), 0);
    EXPECT_EQ(entry(0), "g1|fip|web|eth0:1|" + std::string(127, 'm'));
    EXPECT_EQ(entry(1), "g3|disk|web|" + all_bytes + "|ab");
}

TEST_F(QorIpc, RefusesBadArguments_AndBeforeThatCallsWithoutAttachment)
{
    const std::string name32(32, 'n');
    shmrm_detach();
    for (const int want : {SHMRM_ERR_NOTINIT, SHMRM_ERR_INVALIDPARAM}) {
        EXPECT_EQ(shmrm_setdescript("g", nullptr, "r", "x", 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", name32.c_str(), "x", 128), want);
        EXPECT_EQ(shmrm_setdescript(name32.c_str(), "t", "r", "x", 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", "r", nullptr, 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", "r", "x", 129), want);
        EXPECT_EQ(shmrm_setrscfree("g", "t", "r", "x", 33), want);
        EXPECT_EQ(shmrm_getstate(-1, nullptr), want);
        EXPECT_EQ(shmnm_getnpsimuflag(nullptr), want);
        ASSERT_EQ(shmrm_attach(), 0);
        ASSERT_EQ(shmnm_attach(), 0);
    }
    for (auto *call : {sem_detach, sem_entercrit_ifconfig, sem_leavecrit_ifconfig})
        EXPECT_EQ(call(), SHMRM_ERR_NOTINIT);
}

TEST_F(QorIpc, SharesTheFlagWithOtherProcesses)
{
    int flag = 5;
    ASSERT_EQ(shmnm_attach(), 0);
    EXPECT_EQ(finish(start([] { return shmnm_setnpsimuflag(7) == 0; })), 0);
    EXPECT_EQ(shmnm_getnpsimuflag(&flag), 0);
    EXPECT_EQ(flag, 1);
}

TEST_F(QorIpc, GivesTextsWithAnEnd_WhateverTheTableHolds)
{
    std::fstream(table, std::ios::in | std::ios::out).seekp(16)
        << std::string(fs::file_size(table) - 16, '\xff');
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(entry(i).size(), 31U + 1 + 31 + 1 + 31 + 1 + 32 + 1 + 127);
    EXPECT_EQ(entry(1024), std::to_string(SHMRM_ERR_NOTFOUND));
    EXPECT_EQ(file("r", "x"), SHMRM_ERR_MAXRSC);
}

TEST_F(QorIpc, ShowsOldOrNewText_WhenWritersAreKilledAtAnyInstant)
{
    for (int round = 0; round < 150; ++round) {
        // Changes one entry all the time and adds others; the texts of an entry are of one letter throughout.
        const pid_t writer = start([this, round] {
            for (int i = 0;; ++i, *shared = round + 1) {
                const std::string name = i % 64 == 63 ? std::to_string((round * 7 + i / 64) % 900) : "same";
                const auto letter = static_cast<char>('a' + i % 26);
                const std::string group(1 + static_cast<std::size_t>(i % 31), letter);
                const std::string text(1 + static_cast<std::size_t>(i % 127), letter);
                shmrm_setdescript(group.c_str(), "fip", name.c_str(), text.c_str(), 128);
            }
            return false;
        });
        await(*shared, round + 1);
        struct shmrm_state got = {};
        for (int look = 0, i = 0; look < 20 + round * 2; ++look) {
            i = shmrm_getstate(i, &got) == 0 ? i + 1 : 0;
            const std::string texts = std::string(got.group) + got.descript;
            ASSERT_EQ(texts, std::string(texts.size(), got.group[0])) << got.rscname;
        }
        finish(writer, SIGKILL);
        ASSERT_EQ(shmrm_setdescript("z", "fip", "same", "zz", 128), 0);
        ASSERT_EQ(entry(0), "z|fip|same||zz");
    }
}

TEST_F(QorIpc, RefusesUnsafeAndForeignFiles_CompletesUnfinishedOnes)
{
    const std::pair<std::string, int> cases[] = {
        // WHAT IS DONE TO THE FILE, WHAT COMES OF ATTACHING IT
        {"chmod 644 resource.shm", 0}, // who may read it may lock it
        {"chmod 400 resource.shm", 0},
        {"chmod 602 resource.shm", SHMRM_ERR_SHMGET},
        {"chmod 620 resource.shm", SHMRM_ERR_SHMGET},
        {"chown 65534 resource.shm", SHMRM_ERR_SHMGET},
        {"mv resource.shm x; ln -s x resource.shm", SHMRM_ERR_SHMGET},
        {"rm resource.shm; mkfifo -m 600 resource.shm", SHMRM_ERR_SHMGET},
        {"printf X 1<>resource.shm", SHMRM_ERR_LOADINFO},                       // the id's first byte
        {R"(printf 'qor-rsc\0\1\0\0\0X' 1<>resource.shm)", SHMRM_ERR_LOADINFO}, // its capacity
        {"truncate -s -1 resource.shm", SHMRM_ERR_LOADINFO},
        {"truncate -s +1 resource.shm", SHMRM_ERR_LOADINFO},
        {"truncate -s 5 resource.shm", 0}, // the id in part
        {"s=$(stat -c%s resource.shm); truncate -s 9 resource.shm; truncate -s $s resource.shm", 0},
        {"truncate -s 0 resource.shm", 0},
        {"truncate -r resource.shm x; mv x resource.shm", 0}, // all of the size, but not even the id
        {"rm -r $PWD", 0},
        {"rm -r $QOR_HOME", SHMRM_ERR_FTOK},
    };
    for (const auto &[spoil, result] : cases) {
        fs::remove_all(home / "run");
        ASSERT_EQ(attach_anew(), 0);
        ASSERT_EQ(system(("cd $QOR_HOME/run && " + spoil).c_str()), 0); // NOLINT
        EXPECT_EQ(attach_anew(), result) << spoil;
        EXPECT_TRUE(result != 0 || (file("r", "x") == 0 && entry(0) == "g|fip|r||x")) << spoil;
        EXPECT_TRUE(result != 0 || fs::status(table).permissions() == fs::perms{0600}) << spoil;
    }
}

TEST_F(QorIpc, FailsWithoutSignal_WhenDiskIsFull)
{
    const pid_t child = start([this] { // with a file system of its own in run/
        const auto disk = [this](const char *size, unsigned long flags = MS_REMOUNT) {
            return mount("none", (home / "run").c_str(), "tmpfs", flags, size) == 0;
        };
        const bool own = unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0;
        const bool fails = own && disk("size=64k", 0) && attach_anew() == SHMRM_ERR_NOTENOUGH;
        const bool goes_on = disk("size=1m") && attach_anew() == 0 && file("r", "x") == 0;
        const auto whole = fs::file_size(table);
        fs::resize_file(table, 4096);
        fs::resize_file(table, whole); // the rest is a hole
        return fails && goes_on && disk("size=64k") && attach_anew() == SHMRM_ERR_NOTENOUGH;
    });
    EXPECT_EQ(finish(child), 0);
}

TEST_F(QorIpc, BlocksWritersOnly_UntilHolderOfTheLockIsKilled)
{
    ASSERT_EQ(file("r", "old"), 0);
    const pid_t holder = start([this] {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        *shared = fcntl(open(table.c_str(), O_RDWR | O_CLOEXEC), F_SETLK, &lock) == 0 ? 1 : 2;
        return sleep(600) == 0;
    });
    await(*shared, 1);
    ASSERT_EQ(*shared, 1);
    EXPECT_EQ(file("r", "new"), SHMRM_ERR_SHMCTL); // after two seconds
    EXPECT_EQ(attach_anew(), 0);
    EXPECT_EQ(entry(0), "g|fip|r||old");
    finish(holder, SIGKILL);
    EXPECT_EQ(file("r", "new"), 0);
}
