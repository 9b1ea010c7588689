#include "wanmd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "captured_log.h"
#include "fake_clock.h"
#include "fake_modem_link.h"
#include "fake_shell.h"
#include "log.h"

using Strings = std::vector<std::string>;

// A working directory of its own, in which the connection manager may listen.
class Wanmd : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/test_wanmd.XXXXXX";
        folder = mkdtemp(pattern);
        ASSERT_EQ(chdir(folder.c_str()), 0);
        fake_link.reset();
        fake_shell.reset();
        fake_clock.reset();
        clear_log();
        celmuxd_wanmd_sockfd = {-1, 0, {}};
        ASSERT_EQ(celmuxd_wanmd_socket_init(), 0);
    }
    void TearDown() override
    {
        stop_listening();
        close(celmuxd_wanmd_sockfd.fd);
        rmdir("tmp");
        ASSERT_EQ(chdir("/"), 0);
        rmdir(folder.c_str());
    }
    void listen()
    {
        mkdir("tmp", 0755);
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "tmp/wanmd_celmuxd_uds_file");
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void stop_listening()
    {
        if (manager != -1)
            close(manager);
        manager = -1;
        unlink("tmp/wanmd_celmuxd_uds_file");
    }
    Strings received()
    {
        Strings datagrams;
        char text[64];
        ssize_t size;
        while ((size = recv(manager, text, sizeof text, 0)) >= 0)
            datagrams.emplace_back(text, static_cast<size_t>(size));
        return datagrams;
    }

    std::string folder;
    int manager = -1;
};

TEST_F(Wanmd, AddressCountsFamilyAndPathOnly)
{
    EXPECT_EQ(celmuxd_wanmd_sockfd.address_length, 28u);
    EXPECT_EQ(celmuxd_wanmd_sockfd.address.sun_family, AF_UNIX);
    EXPECT_STREQ(celmuxd_wanmd_sockfd.address.sun_path, "tmp/wanmd_celmuxd_uds_file");
    EXPECT_TRUE(fcntl(celmuxd_wanmd_sockfd.fd, F_GETFD) & FD_CLOEXEC);
}

TEST_F(Wanmd, NoticesAreWholeDatagrams)
{
    listen();
    EXPECT_EQ(at_wanmd_set_apn(0), 0);
    EXPECT_EQ(at_wanmd_set_apn(2), 0);
    EXPECT_EQ(at_wanmd_set_apn(3), 0);
    EXPECT_EQ(at_wanmd_set_apn(-1), 0);
    at_wanmd_recall();
    EXPECT_EQ(received(), (Strings{"apn_ipv4", "apn_ipv6", "apn_ipv4v6", "apn_ipv4v6", "re_call"}));
    EXPECT_EQ(log_count("Set apn_ipv4v6 success", LOG_ERR), 2);
    EXPECT_EQ(log_count("Sento at_wanmd_recall success", LOG_ERR), 1);
}

// The memory of the SIM status outlives a test, so this is one test.
TEST_F(Wanmd, SimStatusIsSentWhenItChangesAndUntilItArrives)
{
    EXPECT_EQ(at_wanmd_set_sim_status(1), -1);
    EXPECT_EQ(log_count("Send failed set SIM status, with errno: " + std::to_string(ENOENT), LOG_ERR), 1);
    listen();
    EXPECT_EQ(at_wanmd_set_sim_status(1), 0);
    EXPECT_EQ(at_wanmd_set_sim_status(1), 0);
    EXPECT_EQ(at_wanmd_set_sim_status(7), 0);
    EXPECT_EQ(received(), Strings{"sim_ready"});
    stop_listening();
    EXPECT_EQ(at_wanmd_set_sim_status(0), -1);
    listen();
    EXPECT_EQ(at_wanmd_set_sim_status(0), 0);
    EXPECT_EQ(at_wanmd_set_sim_status(0), 0);
    EXPECT_EQ(received(), Strings{"sim_absent"});
}

TEST_F(Wanmd, WithoutListenerOrSocketSendingFails)
{
    EXPECT_EQ(at_wanmd_set_apn(0), -1);
    EXPECT_EQ(log_count("Send failed set apn, with errno: " + std::to_string(ENOENT), LOG_ERR), 1);
    at_wanmd_recall();
    EXPECT_EQ(log_count("Send Failed at_wanmd_recall, with errno: " + std::to_string(ENOENT), LOG_ERR), 1);
    const int fd = celmuxd_wanmd_sockfd.fd;
    celmuxd_wanmd_sockfd.fd = -1;
    EXPECT_EQ(at_wanmd_set_apn(0), -1);
    EXPECT_EQ(log_count("with errno: " + std::to_string(EBADF)), 1);
    celmuxd_wanmd_sockfd.fd = fd;
}

TEST_F(Wanmd, AFullQueueIsNotWaitedFor)
{
    listen();
    int sent = 0;
    while (sent < 100000 && at_wanmd_set_apn(0) == 0)
        sent++;
    EXPECT_LT(sent, 100000);
    EXPECT_EQ(log_count("with errno: " + std::to_string(EAGAIN)), 1);
}

TEST_F(Wanmd, ControlSwitchesRadioOnAndRestarts)
{
    EXPECT_EQ(wanmd_control(1), 0);
    EXPECT_EQ(fake_link.sent, Strings{"AT+CFUN=1\r"});
    EXPECT_EQ(fake_shell.commands, Strings{"/etc/init.d/wanmd restart &"});
    fake_link.reset();
    fake_shell.reset();
    EXPECT_EQ(wanmd_control(0), 0);
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_EQ(fake_shell.commands, (Strings{"/etc/init.d/wanmd stop &", "nvram set network_test test"}));
    fake_shell.reset();
    fake_link.answer_always(std::nullopt);
    EXPECT_EQ(wanmd_control(1), 0);
    EXPECT_EQ(fake_shell.commands, Strings{"/etc/init.d/wanmd restart &"});
}
