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
}

TEST(DaemonBus, RefusesWhatItCannotUse)
{
    using nlohmann::json;
    PrivateRoot root;
    Daemon daemon(root);
    ASSERT_TRUE(answers(daemon));
    const struct {
        const char *method;
        json arguments;
        int status;
    } rows[] = {
        {"no_such_method", json::object(), 3},
        {"", json::object(), 3},
        {"set_sim_lock_status", {{"pin", "1234"}}, 2},
        {"set_sim_lock_status", {{"enabled", 1}}, 2},
        {"set_sim_lock_status", {{"pin", 1234}, {"enabled", 1}}, 2},
        {"set_sim_lock_status", {{"pin", "1234"}, {"enabled", "1"}}, 2},
        {"set_sim_lock_status", {{"PIN", "1234"}, {"enabled", 1}}, 2},
        {"select_rat", json::object(), 2},
        {"set_network_mode", {{"mode", 7}}, 2},
        {"set_autoconnect", {{"state", "on"}}, 2},
        {"get_message", json::object(), 2},
        {"get_message", {{"index", "1"}}, 2},
        {"get_message", {{"index", json::array({1})}}, 2},
        {"read_messages", {{"index_list", 1}}, 2},
        {"delete_messages", {{"index_list", json::object()}}, 2},
        {"send_message", {{"dest", "+491701234567"}, {"type", 0}}, 2},
        {"at_passthrough", {{"timeout_ms", 1000}}, 2},
        {"at_passthrough", {{"at", true}}, 2},
    };
    ASSERT_TRUE(daemon.wait_until_calm());
    const std::string before = daemon.modem().record();
    for (const auto &row : rows) {
        BusAnswer answer = daemon.call(row.method, row.arguments);
        EXPECT_EQ(answer.status, row.status) << row.method << " " << row.arguments << " " << answer.text;
        EXPECT_TRUE(answer.every.empty()) << row.method << " " << row.arguments << " " << answer.text;
    }
    EXPECT_EQ(daemon.modem().record(), before) << "a refused call reached the modem";
    EXPECT_EQ(daemon.call("get_imei", {{"unknown", 1}}).result(), 0) << "what nobody asked for does no harm";
    EXPECT_EQ(daemon.call("hangup_call").result(), 0);
    const std::vector<std::string> log = daemon.celmuxd().output_lines();
    for (const auto &[end, times] :
         {std::pair{"] set_sim_lock_status enter", 5}, {"] _get_message enter", 3}, {"] hangup_call enter", 1}})
        EXPECT_EQ(std::ranges::count_if(log, [&](const std::string &line) { return line.ends_with(end); }), times)
            << end;
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
