// The daemon's face on the bus: its methods with their arguments, refusals, and a broker that comes and goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "daemon.h"

using testing::ElementsAreArray;
using testing::HasSubstr;

// The network scan at the start is over once a query is answered.
static bool answers(Daemon &daemon)
{
    return wait_for([&] { return daemon.call("get_imei").result() == 0; });
}

// Name and arguments of each method, in order, as `ubus list -v` prints them.
static std::vector<std::string> described_methods(Daemon &daemon)
{
    std::vector<std::string> lines = split_lines(daemon.bus.tool({"list", "-v", "celmux"}).output);
    if (!lines.empty()) {
        EXPECT_THAT(lines.front(), testing::MatchesRegex("'celmux' @[0-9a-f]{8}"));
        lines.erase(lines.begin());
    }
    return lines;
}

static std::vector<std::string> expected_methods()
{
    return split_lines(read_whole_file(TEST_DATA_DIR "/celmux_methods.txt"));
}

TEST(DaemonBus, DescribesItsMethodsInOrder)
{
    PrivateRoot root;
    Daemon daemon(root);
    std::vector<std::string> expected = expected_methods();
    ASSERT_EQ(expected.size(), 68U);
    EXPECT_THAT(described_methods(daemon), ElementsAreArray(expected));
    (void)daemon.call("get_message");
    (void)daemon.call("get_imei");
    EXPECT_TRUE(daemon.celmuxd().wait_for_output("] _get_message enter\n"));
    EXPECT_TRUE(daemon.celmuxd().wait_for_output("] get_imei enter\n"));
}

static void expect_whole_service(Daemon &daemon)
{
    ASSERT_TRUE(daemon.bus.wait_for_object("celmux"));
    EXPECT_THAT(described_methods(daemon), ElementsAreArray(expected_methods()));
    EXPECT_TRUE(answers(daemon));
    EXPECT_TRUE(daemon.celmuxd().running());
}

TEST(DaemonBus, ComesBackWithTheBroker)
{
    PrivateRoot root;
    Daemon daemon(root);
    for (int i = 0; i < 3; i++) {
        daemon.stop_broker();
        daemon.start_broker();
        expect_whole_service(daemon);
    }
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST(DaemonBus, WaitsForABrokerThatWasKilled)
{
    PrivateRoot root;
    Daemon daemon(root);
    daemon.broker().signal(SIGKILL);
    ASSERT_TRUE(wait_for([&] { return root.syslog().contains("connection to ubus lost"); }));
    daemon.start_broker();
    expect_whole_service(daemon);
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST(DaemonBus, LosesNothingButTheCallInProgress)
{
    PrivateRoot root;
    Daemon daemon(root);
    ASSERT_TRUE(answers(daemon));
    ASSERT_TRUE(daemon.modem().control("latency 500").value("ok", false));
    Process caller = root.start({"ubus", "-S", "call", "celmux", "at_passthrough", R"({"at": "AT+CSQ"})"});
    ASSERT_TRUE(wait_for([&] { return daemon.modem().record().find("AT+CSQ") != std::string::npos; }));
    daemon.stop_broker();
    std::optional<ExitStatus> status = caller.wait_exit();
    ASSERT_TRUE(status.has_value());
    EXPECT_NE(status->code, 0);
    EXPECT_EQ(caller.output(), "");
    daemon.start_broker();
    ASSERT_TRUE(daemon.modem().control("latency 0").value("ok", false));
    expect_whole_service(daemon);
}

// The event loop begins behind the connection.
static bool is_connected(pid_t pid)
{
    std::error_code gone;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
        if (std::filesystem::read_symlink(fd, gone) == "anon_inode:[eventpoll]") {
            return true;
        }
    }
    return false;
}

// Nobody looks at the connection while the modem is being initialised.
TEST(DaemonBus, ComesToABrokerThatRestartedBeforeItsRegistration)
{
    PrivateRoot root;
    DaemonOptions options;
    options.modem.latency_ms = 20;
    options.wait_until_ready = false;
    Daemon daemon(root, options);
    ASSERT_TRUE(wait_for([&] { return is_connected(daemon.celmuxd().pid()); }));
    daemon.stop_broker();
    ASSERT_TRUE(wait_for([&] { return daemon.modem().record().find("AT+COPS=?") != std::string::npos; }));
    ASSERT_TRUE(wait_for([&] {
        return root.syslog().contains("connection to ubus lost") ||
               root.syslog().contains("failed to connect to ubus"); // the broker went before it was there
    }));
    daemon.start_broker();
    expect_whole_service(daemon);
}

TEST(DaemonBus, ServesTheModemWithoutABrokerAndComesToOneThatStartsLater)
{
    PrivateRoot root;
    Modem modem(root);
    Process celmuxd = root.start({"celmuxd"});
    EXPECT_TRUE(wait_for([&] { return root.syslog().contains("[CELMUX: ubus_handler:"); }));
    EXPECT_TRUE(root.syslog().contains("failed to connect to ubus"));
    EXPECT_TRUE(wait_for([&] { return modem.record().find("AT+COPS=?") != std::string::npos; }));
    EXPECT_TRUE(celmuxd.running());
    Process ubusd = root.start({"ubusd"});
    Bus bus(root);
    EXPECT_TRUE(bus.wait_for_object("celmux"));
    EXPECT_EQ(bus.call("get_autoconnect").result(), 0);
    EXPECT_EQ(celmuxd.stop().code, 0);
}
