#include "modemsim/pty_port.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "temporary_folder.h"

namespace {

struct ModemsimPort : testing::Test {
    TemporaryFolder folder;
    std::string link = folder / "port";
};

TEST_F(ModemsimPort, NeverBlocksWhenNobodyReads)
{
    modemsim::PtyPort port(link);
    port.open();
    for (int i = 0; i < 100; i++)
        port.write(std::string(100000, 'x'));
    EXPECT_TRUE(port.wants_to_write());
    EXPECT_GT(port.dropped(), 5000000u);
}

TEST_F(ModemsimPort, TheLinkIsThereExactlyWhileThePortIs)
{
    modemsim::PtyPort port(link);
    for (int i = 0; i < 2; i++) {
        port.open();
        EXPECT_EQ(std::filesystem::read_symlink(link), port.path());
        int user = open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(user, 0);
        char bytes[] = "\r\n\x03\x1a\0\xff", seen[sizeof bytes] = "";
        port.write({bytes, sizeof bytes});
        pollfd waiting = {user, POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 5000), 1);
        EXPECT_EQ(read(user, seen, sizeof seen), static_cast<ssize_t>(sizeof bytes));
        EXPECT_EQ(std::string(seen, sizeof seen), std::string(bytes, sizeof bytes)) << "unchanged";
        port.close();
        EXPECT_FALSE(std::filesystem::is_symlink(link));
        EXPECT_LE(read(user, seen, 1), 0);
        close(user);
    }
}

} // namespace
