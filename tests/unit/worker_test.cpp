// The bounded worker and the outside command.

#include "command.h"
#include "fip/address_change.h"
#include "fip/inventory.h"
#include "fip_fixture.h"
#include "nicIfconfig.h"
#include "worker.h"

int cancel_error = 0, start_error = 0;
std::atomic<int> endflag;

using job = std::function<void()>;

void *entry(void *arg)
{
    (*static_cast<job *>(arg))();
    endflag = 1;
    return nullptr;
}

// A sleep that really lasts this long runs into the time-out of the whole test.
constexpr std::int64_t hours_us = 10'000'000'000;

extern "C" {
int __real_pthread_cancel(pthread_t thread);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

int __wrap_pthread_cancel(pthread_t thread)
{
    return cancel_error != 0 ? cancel_error : __real_pthread_cancel(thread);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    errno = 0;
    return start_error != 0 ? start_error : __real_pthread_create(thread, attr, start, arg);
}
}

using CommandTest = FipTest;

struct WorkerTest : FipTest {
    std::atomic<bool> freed = false;

    worker_result run(const worker_limits &limits, const job &work)
    {
        const worker_texts texts = {"src/fip.c", "caller", "job", "jjob", "job is late", 23, true};
        const auto free_job = [this](const job *gone) {
            delete gone;
            freed = true;
            freed.notify_one();
        };
        freed = false;
        int joined = -1;
        const std::shared_ptr<job> block(new job(work), free_job);
        const worker_result result = worker_run(texts, limits, entry, block, &endflag, &joined);
        EXPECT_EQ(joined, result == WORKER_IN_TIME || result == WORKER_NO_MEMORY ? 0 : -1);
        return result;
    }
};

TEST_F(WorkerTest, IsInTime_UnlessItEndsDuringLastSleep)
{
    EXPECT_EQ(run({hours_us, 2}, [] { usleep(1000); }), WORKER_IN_TIME);
    EXPECT_EQ(run({hours_us, 1}, [] { usleep(100'000); }), WORKER_LATE);
    EXPECT_EQ(run({hours_us, 0}, [] {}), WORKER_LATE);
    EXPECT_EQ(run({1000, 2}, [] { pause(); }), WORKER_LATE);
    EXPECT_TRUE(freed);
    EXPECT_FALSE(worker_left_behind());
    EXPECT_EQ(outcome(0), "0 [job is late]");
}

TEST_F(WorkerTest, TellsWhenItRunsOutOfMemory)
{
    EXPECT_EQ(run({hours_us, 2}, [] { throw std::bad_alloc(); }), WORKER_NO_MEMORY);
    EXPECT_TRUE(freed);
}

TEST_F(WorkerTest, TellsWhenItCannotStart)
{
    vdevinfo dev = {};
    inventory rows;
    const std::string why = " failed. (errno=0,ret=11)]", message = why + " Internal error. (status=22)";
    start_error = EAGAIN;
    EXPECT_EQ(outcome(fip_ifconfig_mkth(&rows, &info)), "22 [pthread_create(fip_cmd_popen)" + message);
    EXPECT_EQ(outcome(fip_act_ipaddr(&dev, &info)), "22 [pthread_create(ffip_cmd_system)" + message);
    EXPECT_EQ(outcome(nic_chk_isifconfig(&IsIfconfig, 0, 60)), "19 [pthread_create(nic_cmd_chk)" + why);
    EXPECT_EQ(run({1000, 2}, [] {}), WORKER_NOT_STARTED);
    start_error = 0;
    EXPECT_TRUE(freed);
}

TEST_F(WorkerTest, KeepsBlock_ForWorkerThatCannotBeCancelled_ButNotItsCommand)
{
    cancel_error = ESRCH;
    std::atomic<bool> go = false;
    std::atomic<int> ended = 0;
    const job work = [&] {
        ended = command_run("sleep 999", COMMAND_NO_LIMIT);
        ended.notify_one();
        go.wait(false);
    };
    EXPECT_EQ(run({300'000, 2}, work), WORKER_LATE);
    EXPECT_TRUE(worker_left_behind());
    ended.wait(0); // for ever, if the command survives
    EXPECT_EQ(ended, SIGKILL);
    EXPECT_FALSE(freed);
    go = true;
    go.notify_one();
    freed.wait(false); // for ever, if the worker's end does not free the block
}

TEST_F(CommandTest, EndsAtItsLimit_WithAllItStarted)
{
    const std::string line = script("hang", "trap '' TERM INT HUP; ln -sf /bin/sleep $HERE/nap\n"
                                            "($HERE/nap 999; :) & echo >> $HERE/runs; $HERE/nap 999");
    EXPECT_EQ(command_run(line.c_str(), 500), SIGKILL);
    command cmd;
    ASSERT_EQ(command_open(&cmd, line.c_str(), 500), 0);
    char text[6];
    EXPECT_EQ(command_read_line(&cmd, text, sizeof(text), nullptr), 0U);
    EXPECT_EQ(command_close(&cmd), SIGKILL);
    EXPECT_EQ(command_close(&cmd), -1) << "once only";
    const rlimit few = {64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<unique_fd> all(64); // no descriptor is left to wait with
    for (unique_fd &held : all)
        held.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(all.back().fd, -1);
    EXPECT_EQ(command_run(line.c_str(), 500), SIGKILL);
    all.clear();
    ASSERT_EQ(command_open(std::make_unique<command>().get(), line.c_str(), COMMAND_NO_LIMIT), 0); // dropped
    EXPECT_GE(read_file(home / "runs").size(), 3U);
    int found = 0;
    while (found == 0) // for ever, if one of them survives
        found = command_run(("pgrep -f '[/]" + home.string().substr(1) + "'").c_str(), COMMAND_NO_LIMIT);
    EXPECT_EQ(WEXITSTATUS(found), 1);
}

TEST_F(CommandTest, HasNoInput_AndIsReadInLines)
{
    EXPECT_EQ(WEXITSTATUS(command_run("sh -c 'cat; exit 7'", COMMAND_NO_LIMIT)), 7);
    command cmd;
    char text[6];
    bool cut = false;
    ASSERT_EQ(command_open(&cmd, "printf 'ab\\n\\nabcde\\nabcdefghij\\n\\0x\\nend'", COMMAND_NO_LIMIT), 0);
    std::string pieces;
    while (const std::size_t len = command_read_line(&cmd, text, sizeof(text), &cut))
        pieces.append(text, len).append(cut ? "~" : "|");
    EXPECT_EQ(pieces, std::string("ab\n|\n|abcde|abcde~\0x\n|end|", 26));
}

TEST_F(CommandTest, QuotesForShell)
{
    std::string every(255, '\0');
    std::iota(every.begin(), every.end(), '\1');
    for (const std::string &text : {std::string(), every}) {
        const std::string word = shell_word(text.c_str()), quoted = shell_in_quotes(text.c_str());
        const std::string line =
            join("printf '%s '", word, '"' + quoted + '"', ">", (home / "printed").string());
        EXPECT_EQ(command_run(line.c_str(), COMMAND_NO_LIMIT), 0);
        EXPECT_EQ(read_file(home / "printed"), join(text, text, "")) << line;
    }
    EXPECT_EQ(join(shell_word("a-1.2:/%"), shell_in_quotes("plain/name 'x'")), "a-1.2:/% plain/name 'x'");
}
