#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

extern "C" {
#include <libubox/uloop.h>
}

#include "captured_log.h"
#include "shell.h"
#include "waiting.h"

namespace {

TEST(Shell, ReportsTheExitStatus)
{
    EXPECT_EQ(run_shell("exit 7"), 7);
    EXPECT_EQ(run_shell("true"), 0);
    EXPECT_EQ(run_shell("kill -9 $$"), -1);
    EXPECT_EQ(run_shell("nonexistent-command 2>/dev/null"), 127);
    EXPECT_EQ(run_shell_format("exit %d", 3), 3);
    EXPECT_EQ(run_shell_format("echo %s", std::string(5000, 'x').c_str()), -1);
}

TEST(Shell, KeepsTheFirst32BytesOfTheOutput)
{
    const struct {
        const char *command;
        int status;
        const char *output;
    } rows[] = {
        {"echo 0123456789", 0, "0123456789"},
        {"printf %s 0123456789012345678901234567890123456789", 0, "01234567890123456789012345678901"},
        {"echo a; echo b; exit 2", 2, "a\nb"},
        {"true", 0, ""},
        {"kill -9 $$", -1, ""},
        {"sleep 0.2 & echo x", 0, "x"}, // the background process holds the pipe open
    };
    for (const auto &row : rows) {
        char output[COMMAND_OUTPUT_SIZE] = "untouched";
        EXPECT_EQ(run_command_output(row.command, output), row.status) << row.command;
        EXPECT_STREQ(output, row.output) << row.command;
    }
    char output[COMMAND_OUTPUT_SIZE];
    EXPECT_EQ(run_command_output(nullptr, output), -1);
    EXPECT_EQ(run_command_output("true", nullptr), -1);
}

// What the daemon's init scripts start must not inherit the signals that the daemon blocks.
TEST(Shell, ChildrenHaveTheirSignals)
{
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ(run_shell("kill -TERM $$; sleep 5"), -1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The event loop waits for every child of the process, and a parent may have left SIGCHLD ignored.
TEST(Shell, NobodyElseTakesAnExitStatus)
{
    signal(SIGCHLD, SIG_IGN);
    claim_children();
    ASSERT_EQ(uloop_init(), 0);
    std::atomic<bool> done = false;
    std::thread commands([&] {
        for (int i = 0; i < 50; i++)
            EXPECT_EQ(run_shell("exit 7"), 7);
        done = true;
    });
    while (!done)
        uloop_run_timeout(1);
    commands.join();
    uloop_done();
}

TEST(Shell, ACommandDoesNotOutliveTheDaemon)
{
    ASSERT_EQ(init_stop_event(), 0);
    int64_t started = monotonic_ms();
    std::thread command([] { EXPECT_EQ(run_shell("sleep 25"), -1); });
    running.store(0);
    command.join();
    running.store(1);
    EXPECT_LT(monotonic_ms() - started, 10000);
}

} // namespace
