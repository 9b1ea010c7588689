// The log's own body: the other tests link one that keeps the lines.

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/socket.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log.h"

namespace {

constexpr int THREADS = 4, LINES = 1000;

// Two ends of what standard output may be: the writer's, the reader's.
struct Channel {
    const char *name;
    bool (*make)(int ends[2]);
};

const Channel CHANNELS[] = {
    {"pipe",
     [](int ends[2]) {
         int made[2];
         bool good = pipe(made) == 0 && fcntl(made[1], F_SETPIPE_SZ, 4096) > 0;
         ends[0] = made[1], ends[1] = made[0];
         return good;
     }},
    {"socket", [](int ends[2]) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0; }},
    {"terminal", [](int ends[2]) { return openpty(&ends[1], &ends[0], nullptr, nullptr, nullptr) == 0; }},
};

class Log : public testing::TestWithParam<Channel> {};

std::string read_now(int fd)
{
    std::string text;
    char buffer[4096];
    for (pollfd in = {fd, POLLIN, 0}; poll(&in, 1, 100) == 1 && (in.revents & POLLIN) != 0;) {
        ssize_t length = read(fd, buffer, sizeof buffer);
        if (length <= 0)
            break;
        text.append(buffer, static_cast<size_t>(length));
    }
    return text;
}

// Threads that write all at once, to a reader that takes nothing, then to one that reads again.
TEST_P(Log, NeverWaitsForItsReader)
{
    int ends[2];
    ASSERT_TRUE(GetParam().make(ends));
    fflush(stdout);
    int before = dup(STDOUT_FILENO);
    ASSERT_NE(dup2(ends[0], STDOUT_FILENO), -1);
    open_log();
    const std::string filling(50, 'x');
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++) {
        threads.emplace_back([&] {
            for (int line = 0; line < LINES; line++)
                log_info("%s end", filling.c_str());
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    std::string first = read_now(ends[1]);
    log_info("after");
    std::string second = read_now(ends[1]);
    bool shared_blocks = (fcntl(ends[0], F_GETFL) & O_NONBLOCK) == 0;
    ASSERT_NE(dup2(before, STDOUT_FILENO), -1);
    open_log();
    EXPECT_NE(first.find("end"), std::string::npos);
    // The first line behind the gap learns that there is room, the next one may say what is missing.
    EXPECT_NE((first + second).find("after"), std::string::npos);
    EXPECT_TRUE(shared_blocks) << "who else uses standard output would find it non-blocking";
    close(before), close(ends[0]), close(ends[1]);
}

INSTANTIATE_TEST_SUITE_P(Output, Log, testing::ValuesIn(CHANNELS), [](const auto &row) { return row.param.name; });

} // namespace
