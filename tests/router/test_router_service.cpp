// The scripts of the package at work: in a private root with what the router's image puts there, and a stand-in for the
// process manager.

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "../system/router.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char *PORT = "/dev/ttyUSB2"; // of the configuration that is installed

struct ServiceTest : testing::Test {
    PrivateRoot root;
    Bus bus{root};
    Process broker, wanmd;

    ServiceTest()
    {
        for (const char *name : {"etc/config", "etc/hotplug.d", "etc/init.d", "etc/ril.json", "etc/uci-defaults"})
            install(SOURCE_DIR "/router/" + std::string(name), name);
        install(SOURCE_DIR "/tests/router/root/rc.common", "etc/rc.common");
        install(SOURCE_DIR "/tests/router/root/jsonfilter", "sbin/jsonfilter");
        install(SOURCE_DIR "/tests/router/root/logger", "sbin/logger");
    }
    void install(const std::string &from, const std::string &to)
    {
        fs::copy(from, root.path(to), fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    }
    void start_others()
    {
        broker = root.start({"ubusd"});
        wanmd = root.start({"wanmd_standin"});
        ASSERT_TRUE(
            wait_for([&] { return root.exists("/tmp/wanmd_celmuxd_uds_file") && bus.tool({"list"}).status == 0; }));
    }
    ModemOptions at_port() const
    {
        ModemOptions options;
        options.link = PORT;
        return options;
    }
    int init(const std::string &action)
    {
        return root.shell("/etc/init.d/celmux " + action).status;
    }
    int port_event(const std::string &action, const std::string &name)
    {
        return root.shell("export ACTION=" + action + " DEVNAME=" + name + "; . /etc/hotplug.d/tty/90-celmux").status;
    }
    // The program that runs in the instance's process; empty without one.
    std::string program() const
    {
        std::string pid = root.read_file("/tmp/instance.pid");
        std::string name = pid.empty() ? "" : read_whole_file("/proc/" + std::to_string(atoi(pid.c_str())) + "/comm");
        return name.substr(0, name.find('\n'));
    }
};

TEST_F(ServiceTest, WaitsForThePortServesFromTheRootFolderAndStopsInOrder)
{
    start_others();
    ASSERT_EQ(init("start"), 0);
    EXPECT_NE(program(), "celmuxd");
    EXPECT_NE(program(), "");
    std::string parameters = root.read_file("/tmp/instance.parameters");
    for (const char *line :
         {"\nrespawn 3600 5 0\n", "\nfile /etc/ril.json\n", "\nstdout 0\n", "\npidfile /var/run/celmuxd.pid\n"})
        EXPECT_NE(parameters.find(line), std::string::npos) << line;

    Modem modem(root, at_port());
    ASSERT_TRUE(bus.wait_for_object("celmux"));
    EXPECT_EQ(program(), "celmuxd");
    std::string pid = root.read_file("/tmp/instance.pid");
    EXPECT_EQ(port_event("add", "ttyUSB2"), 0);
    EXPECT_EQ(root.read_file("/tmp/instance.pid"), pid) << "a second daemon";

    // The connection manager's socket is a path relative to the working folder.
    ASSERT_TRUE(wait_for([&] { return bus.call("get_sim_status").data.value("status", "") == "READY"; }));
    EXPECT_TRUE(wanmd.wait_for_output("sim_ready"));

    (void)modem.control("sms +491701234567 Hello");
    ASSERT_TRUE(wait_for([&] { return bus.call("get_all_messages").data["messages"].size() == 1; }));
    ASSERT_EQ(init("stop"), 0);
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(atoi(pid.c_str())) + "/root"));
    EXPECT_NE(root.read_file("/data/in_messages").find("1701234567"), std::string::npos);
    EXPECT_NE(root.read_file("/tmp/instance.out").find("main thread exit gracefully"), std::string::npos);
}

TEST_F(ServiceTest, APortThatComesStartsAServiceThatGaveUp)
{
    start_others();
    root.write_file("/tmp/other.json", R"({"modem": {"identity": {"manufacturer": "Another"}}})");
    ModemOptions other = at_port();
    other.profile = root.path("/tmp/other.json");
    {
        Modem modem(root, other);
        ASSERT_EQ(init("start"), 0);
        ASSERT_TRUE(wait_for([&] { return program().empty(); })) << "the daemon keeps another maker's modem";
        EXPECT_NE(root.read_file("/tmp/instance.out").find("Quit celmuxd"), std::string::npos);
        (void)modem.process().stop();
    }
    Modem modem(root, at_port());
    (void)port_event("add", "ttyUSB3");
    (void)port_event("remove", "ttyUSB2");
    root.write_file("/tmp/celmux.disabled", "");
    (void)port_event("add", "ttyUSB2");
    EXPECT_EQ(program(), "");
    root.remove("/tmp/celmux.disabled");
    EXPECT_EQ(root.read_file("/tmp/calls.log").find("logger"), std::string::npos);
    (void)port_event("add", "ttyUSB2");
    EXPECT_TRUE(bus.wait_for_object("celmux"));
    EXPECT_EQ(init("stop"), 0);
}

TEST_F(ServiceTest, KeptConfigurationsGetWhatTheyLack)
{
    auto shown = [&] { return root.shell("uci show modem; uci show apn; uci show profiles").output; };
    auto defaults = [&] { return root.shell("sh /etc/uci-defaults/50-celmux").status; };
    std::string shipped = shown();
    EXPECT_EQ(defaults(), 0);
    EXPECT_EQ(shown(), shipped);

    for (const char *name : {"modem", "apn", "profiles"})
        root.remove("/etc/config/" + std::string(name));
    EXPECT_EQ(defaults(), 0);
    EXPECT_EQ(shown(), shipped);

    root.write_file("/etc/config/modem", "config modem 'settings'\n\toption autoconnect '0'\n\toption other 'x'\n");
    root.write_file("/etc/config/profiles", "config profile\n\toption apn 'kept'\n");
    EXPECT_EQ(defaults(), 0);
    std::string kept = shown();
    for (const char *line : {"modem.settings.autoconnect='0'\n", "modem.settings.other='x'\n", "modem.scan=scan\n",
                             "modem.state.message_unread='0'\n", "profiles.@profile[0].apn='kept'\n"})
        EXPECT_NE(kept.find(line), std::string::npos) << kept;
}

// What the read group grants changes neither the modem nor the router.
TEST(ReadGroup, ChangesNothing)
{
    Router router;
    (void)router.modem({{"do", "sms"}, {"args", {"+491701234567", "Hello"}}});
    ASSERT_TRUE(wait_for([&] { return router.ask("get_all_messages")["messages"].size() == 1; }));
    ASSERT_EQ(router.ask("add_profile", {{"ip", 3}, {"apn", "internet"}, {"name", "one"}})["result"], 0);
    (void)router.call("get_sim_status");
    auto state = [&] {
        return router.modem_state("/modem").dump() + router.modem_state("/messages/stored").dump() +
               router.root.read_file("/data/in_messages") + router.root.shell("uci show; uci changes").output;
    };
    ASSERT_TRUE(wait_for([&] { return state().find("message_unread='1'") != std::string::npos; }));
    std::string before = state();
    json groups = json::parse(read_whole_file(SOURCE_DIR "/router/usr/share/rpcd/acl.d/celmux.json"));
    for (const std::string method : groups["celmux-read"]["read"]["ubus"]["celmux"]) {
        json arguments = method == "get_message"   ? json{{"index", 1}}
                         : method == "get_profile" ? json{{"id", 0}}
                                                   : json::object();
        BusAnswer answer = router.daemon.call(method, arguments);
        EXPECT_EQ(answer.status, 0) << method;
        EXPECT_EQ(state(), before) << method;
    }
}

} // namespace
