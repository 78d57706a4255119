#include "qoripc.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <set>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

/// Runs `work` in a child, which never outlives the test; it exits with 1 when work gives true.
pid_t start(const std::function<bool()> &work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work() ? 1 : 0);
    }
    return pid;
}

bool succeeds(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 1;
}

void end(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

/// Holds until the other process has come this far.
void await(const std::atomic<int> &value, int wanted)
{
    while (value < wanted) {
        usleep(100);
    }
}

} // namespace

class QorIpc : public testing::Test
{
protected:
    fs::path home, table;
    /// Shared with the children that a test starts.
    std::atomic<int> *shared = static_cast<std::atomic<int> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

    void SetUp() override
    {
        char name[] = "/tmp/qoripc.XXXXXX";
        home = mkdtemp(name);
        table = home / "run/resource.shm";
        setenv("QOR_HOME", home.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        ASSERT_EQ(shmrm_attach(), 0);
    }
    void TearDown() override
    {
        shmrm_detach();
        shmnm_detach();
        sem_detach();
        munmap(shared, 4096);
        fs::remove_all(home);
    }
    static int file(const std::string &name, const std::string &text)
    {
        return shmrm_setdescript("g", "fip", name.c_str(), text.c_str(), SHMRM_DESCRIPT_SIZE);
    }
    static std::string described(int index)
    {
        struct shmrm_state state = {};
        return shmrm_getstate(index, &state) == 0 ? state.descript : "(none)";
    }
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
    ASSERT_EQ(shmrm_detach(), 0);
    ASSERT_EQ(shmrm_attach(), 0);
    const std::array<std::string, 5> want[] = {{"g1", "fip", "web", "eth0:1", std::string(127, 'm')},
                                               {"g3", "disk", "web", all_bytes, "ab"}};
    struct shmrm_state got = {};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(shmrm_getstate(i, &got), 0);
        EXPECT_EQ((std::array<std::string, 5>{got.group, got.type, got.rscname, got.rscfree, got.descript}),
                  want[i]);
    }
    EXPECT_EQ(shmrm_getstate(2, &got), SHMRM_ERR_NOTFOUND);
}

TEST_F(QorIpc, RefusesBadArgumentsAndCallsWithoutAttachment)
{
    const std::string name32(32, 'n');
    int flag = 5;
    shmrm_detach();
    for (const int want : {SHMRM_ERR_NOTINIT, SHMRM_ERR_INVALIDPARAM}) {
        EXPECT_EQ(shmrm_setdescript("g", nullptr, "r", "x", 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", nullptr, "x", 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", name32.c_str(), "x", 128), want);
        EXPECT_EQ(shmrm_setdescript(name32.c_str(), "t", "r", "x", 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", "r", nullptr, 128), want);
        EXPECT_EQ(shmrm_setdescript("g", "t", "r", "x", 129), want);
        EXPECT_EQ(shmrm_setrscfree("g", "t", "r", "x", 33), want);
        EXPECT_EQ(shmrm_getstate(-1, nullptr), want);
        EXPECT_EQ(shmnm_getnpsimuflag(nullptr), want);
        ASSERT_EQ(shmrm_attach() + shmnm_attach(), 0);
    }
    EXPECT_EQ(described(0), "(none)") << "a refused call filed something";
    EXPECT_EQ(shmrm_setdescript("", "t", "", "by hand", 128), 0) << "the empty name is a name";
    EXPECT_EQ(described(0), "by hand");
    EXPECT_TRUE(succeeds(start([] { return shmnm_setnpsimuflag(7) == 0; })));
    EXPECT_TRUE(shmnm_getnpsimuflag(&flag) == 0 && flag == 1);
    for (auto *call : {sem_detach, sem_entercrit_ifconfig, sem_leavecrit_ifconfig}) {
        EXPECT_EQ(call(), SHMRM_ERR_NOTINIT);
    }
}

TEST_F(QorIpc, KeepsEveryEntry_WhenFiftyProcessesFileAtOnce)
{
    std::vector<pid_t> team;
    for (int i = 0; i < 50; ++i) {
        const std::string name = std::to_string(i);
        team.push_back(start([name] { return file(name, "text of " + name) == 0; }));
    }
    for (const pid_t pid : team) {
        EXPECT_TRUE(succeeds(pid));
    }
    std::set<std::string> found;
    struct shmrm_state got = {};
    for (int i = 0; shmrm_getstate(i, &got) == 0; ++i) {
        EXPECT_EQ(got.descript, std::string("text of ") + got.rscname);
        EXPECT_TRUE(found.insert(got.rscname).second) << got.rscname;
    }
    EXPECT_EQ(found.size(), 50U);
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
            if (shmrm_getstate(i++, &got) != 0) {
                i = 0;
                continue;
            }
            const std::string texts = std::string(got.group) + got.descript;
            ASSERT_EQ(texts, std::string(texts.size(), got.group[0])) << got.rscname;
        }
        end(writer);
        ASSERT_EQ(shmrm_setdescript("z", "fip", "same", "zz", 128), 0);
        ASSERT_EQ(described(0), "zz");
    }
}

TEST_F(QorIpc, RefusesUnsafeAndForeignFiles_CompletesUnfinishedOnes)
{
    const auto whole = fs::file_size(table);
    const auto poke = [this](int at) {
        std::fstream(table, std::ios::in | std::ios::out).seekp(at).put('X');
    };
    const struct {
        const char *name;
        std::function<void()> spoil;
        int result;
    } cases[] = {
        {"writable by others", [&] { chmod(table.c_str(), 0602); }, SHMRM_ERR_SHMGET},
        {"owned by another", [&] { EXPECT_EQ(chown(table.c_str(), 65534, 0), 0); }, SHMRM_ERR_SHMGET},
        {"link", [&] { fs::rename(table, home / "x"), fs::create_symlink(home / "x", table); },
         SHMRM_ERR_SHMGET},
        {"FIFO", [&] { fs::remove(table), mkfifo(table.c_str(), 0600); }, SHMRM_ERR_SHMGET},
        {"other magic", [&] { poke(0); }, SHMRM_ERR_LOADINFO},
        {"other version", [&] { poke(8); }, SHMRM_ERR_LOADINFO},
        {"other capacity", [&] { poke(12); }, SHMRM_ERR_LOADINFO},
        {"cut off", [&] { fs::resize_file(table, whole - 1); }, SHMRM_ERR_LOADINFO},
        {"too long", [&] { fs::resize_file(table, whole + 1); }, SHMRM_ERR_LOADINFO},
        {"short text", [&] { fs::resize_file(table, 5); }, SHMRM_ERR_LOADINFO},
        {"empty", [&] { fs::resize_file(table, 0); }, 0},
        {"short", [&] { fs::resize_file(table, 0), fs::resize_file(table, 5000); }, 0},
        {"without id", [&] { fs::resize_file(table, 0), fs::resize_file(table, whole); }, 0},
        {"missing", [&] { fs::remove_all(home / "run"); }, 0},
        {"no home", [&] { fs::remove_all(home); }, SHMRM_ERR_FTOK},
    };
    for (const auto &[name, spoil, result] : cases) {
        shmrm_detach();
        fs::remove_all(home / "run");
        ASSERT_EQ(shmrm_attach() + shmrm_detach(), 0);
        spoil();
        EXPECT_EQ(shmrm_attach(), result) << name;
        EXPECT_TRUE(result != 0 || (file("r", name) == 0 && described(0) == name)) << name;
    }
}

TEST_F(QorIpc, KeepsToItsCapacity_WhenTableIsFullOrDamaged)
{
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(file(std::to_string(i), "old"), 0);
    }
    EXPECT_EQ(file("1024", "new"), SHMRM_ERR_MAXRSC);
    EXPECT_EQ(file("1023", "new"), 0);
    EXPECT_EQ(described(1023), "new");
    std::fstream(table, std::ios::in | std::ios::out).seekp(16)
        << std::string(fs::file_size(table) - 16, '\xff');
    struct shmrm_state got = {}; // the count, the turns and texts without end, all of 0xff
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(shmrm_getstate(i, &got), 0);
        ASSERT_EQ(strlen(got.rscname) + strlen(got.rscfree) + strlen(got.descript), 31U + 32 + 127);
    }
    EXPECT_EQ(shmrm_getstate(1024, &got), SHMRM_ERR_NOTFOUND);
    EXPECT_EQ(file("r", "x"), SHMRM_ERR_MAXRSC);
}

TEST_F(QorIpc, FailsWithoutSignal_WhenDiskIsFull)
{
    EXPECT_TRUE(succeeds(start([this] { // with a small file system of its own in run/
        char start_of_table[4096] = "";
        std::ifstream(table).read(start_of_table, sizeof(start_of_table));
        const auto whole = fs::file_size(table);
        shmrm_detach();
        const bool mounted = unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
                             mount("none", (home / "run").c_str(), "tmpfs", 0, "size=64k") == 0;
        const bool fails = mounted && shmrm_attach() == SHMRM_ERR_NOTENOUGH;
        std::ofstream(table).write(start_of_table, sizeof(start_of_table));
        fs::resize_file(table, whole); // the rest is a hole
        const bool fails_with_hole = shmrm_attach() == SHMRM_ERR_NOTENOUGH;
        return fails && fails_with_hole &&
               mount("none", (home / "run").c_str(), "", MS_REMOUNT, "size=1m") == 0 && shmrm_attach() == 0 &&
               file("r", "x") == 0;
    })));
}

TEST_F(QorIpc, ReadsAndGivesUpWriting_WhenWriterIsStopped)
{
    ASSERT_EQ(file("r", "old"), 0);
    const pid_t stopped = start([this] {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        *shared = fcntl(open(table.c_str(), O_RDWR | O_CLOEXEC), F_SETLK, &lock) == 0 ? 1 : 2;
        return raise(SIGSTOP) == 0;
    });
    await(*shared, 1);
    EXPECT_EQ(file("r", "new"), SHMRM_ERR_SHMCTL);
    EXPECT_EQ(shmrm_detach() + shmrm_attach(), 0);
    EXPECT_EQ(described(0), "old");
    end(stopped);
    EXPECT_EQ(file("r", "new"), 0);
    EXPECT_EQ(described(0), "new");
}

TEST_F(QorIpc, OpensTheSection_WhenHolderIsKilledWhileItsCommandRuns)
{
    const pid_t holder = start([this] {
        const bool entered = sem_attach() == 0 && sem_entercrit_ifconfig() == 0;
        const pid_t command = fork();
        if (command == 0) {
            execl("/bin/sleep", "sleep", "600", nullptr);
            _exit(127);
        }
        *shared = entered ? command : 1;
        return pause() == 0;
    });
    await(shared[0], 1);
    const pid_t command = shared[0];
    ASSERT_GT(command, 1);
    const pid_t next = start([this] {
        const bool attached = sem_attach() == 0;
        shared[1] = 1;
        return attached && sem_entercrit_ifconfig() == 0 && sem_detach() == 0;
    });
    await(shared[1], 1);
    usleep(20000);
    EXPECT_EQ(waitpid(next, nullptr, WNOHANG), 0) << "entered beside the holder";
    end(holder);
    EXPECT_TRUE(succeeds(next));
    EXPECT_EQ(kill(command, SIGKILL), 0) << "the command was not running any more";
}
