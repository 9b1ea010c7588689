#include "wanmd.h"

#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fake_clock.h"
#include "fake_shell.h"
#include "modem_test.h"
#include "temporary_folder.h"

// A working directory of its own, in which the connection manager may listen.
class Wanmd : public ModemTest<fake_shell, fake_clock> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(chdir(folder.path.c_str()), 0);
        mkdir("tmp", 0755);
        celmuxd_wanmd_sockfd = {-1, 0, {}};
        ASSERT_EQ(celmuxd_wanmd_socket_init(), 0);
    }
    void TearDown() override
    {
        stop_listening();
        close(celmuxd_wanmd_sockfd.fd);
        ASSERT_EQ(chdir("/"), 0);
    }
    void listen()
    {
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_un address = {AF_UNIX, "tmp/wanmd_celmuxd_uds_file"};
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void stop_listening()
    {
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

    TemporaryFolder folder;
    int manager = -1;
};

// How many lines tell that a notice was not sent, and why.
static int failures(const std::string &what, int error)
{
    return log_count(what + ", with errno: " + std::to_string(error), LOG_ERR);
}

TEST_F(Wanmd, AddressCountsFamilyAndPathOnly)
{
    EXPECT_EQ(celmuxd_wanmd_sockfd.address_length, 28u);
    EXPECT_STREQ(celmuxd_wanmd_sockfd.address.sun_path, "tmp/wanmd_celmuxd_uds_file");
    EXPECT_TRUE(fcntl(celmuxd_wanmd_sockfd.fd, F_GETFD) & FD_CLOEXEC);
}

TEST_F(Wanmd, NoticesAreWholeDatagrams)
{
    listen();
    for (int32_t family : {0, 2, 3, -1})
        EXPECT_EQ(at_wanmd_set_apn(family), 0);
    at_wanmd_recall();
    EXPECT_EQ(received(), (Strings{"apn_ipv4", "apn_ipv6", "apn_ipv4v6", "apn_ipv4v6", "re_call"}));
    EXPECT_EQ(log_count("Set apn_ipv4v6 success", LOG_ERR), 2);
    EXPECT_EQ(log_count("Sento at_wanmd_recall success", LOG_ERR), 1);
}

// The memory of the SIM status outlives a test, so this is one test.
TEST_F(Wanmd, SimStatusIsSentWhenItChangesAndUntilItArrives)
{
    EXPECT_EQ(at_wanmd_set_sim_status(1), -1);
    EXPECT_EQ(failures("Send failed set SIM status", ENOENT), 1);
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
    EXPECT_EQ(failures("Send failed set apn", ENOENT), 1);
    at_wanmd_recall();
    EXPECT_EQ(failures("Send Failed at_wanmd_recall", ENOENT), 1);
    const int fd = celmuxd_wanmd_sockfd.fd;
    celmuxd_wanmd_sockfd.fd = -1;
    EXPECT_EQ(at_wanmd_set_apn(0), -1);
    EXPECT_EQ(failures("", EBADF), 1);
    celmuxd_wanmd_sockfd.fd = fd;
}

TEST_F(Wanmd, AFullQueueIsNotWaitedFor)
{
    listen();
    int sent = 0;
    while (sent < 100000 && at_wanmd_set_apn(0) == 0)
        sent++;
    EXPECT_LT(sent, 100000);
    EXPECT_EQ(failures("", EAGAIN), 1);
}

TEST_F(Wanmd, ControlSwitchesRadioOnAndRestarts)
{
    EXPECT_EQ(wanmd_control(0), 0);
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_EQ(fake_shell.commands, (Strings{"/etc/init.d/wanmd stop &", "nvram set network_test test"}));
    for (const Answer &answer : {Answer("\r\nOK\r\n"), Answer(std::nullopt)}) {
        fake_shell.reset();
        fake_link.answer_always(answer);
        EXPECT_EQ(wanmd_control(1), 0);
        EXPECT_EQ(fake_link.sent.front(), "AT+CFUN=1\r");
        EXPECT_EQ(fake_shell.commands, Strings{"/etc/init.d/wanmd restart &"});
    }
}
