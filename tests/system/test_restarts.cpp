// Starts and restarts of modem and router.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "router.h"

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

static const std::string ok = R"({"result":0})";
static const std::string refused = R"({"result":65535})";
static const std::string busy = R"({"result":65537})";

static void set(Router &router, const char *change)
{
    router.modem({{"do", "set"}, {"args", {change}}});
}

// A message that the modem announces reaches the store.
static void expect_message(Router &router, const char *text)
{
    router.modem({{"do", "sms"}, {"args", {"+491701234567", text}}});
    EXPECT_TRUE(wait_for([&] {
        json list = router.ask("get_all_messages")["messages"];
        return !list.empty() && message_text(list.back()) == text;
    })) << text;
}

static bool announces_messages(Router &router)
{
    return wait_for([&] {
        return router.modem_state("/modem/settings/cnmi") == json({2, 1, 0, 0, 0}) &&
               router.modem_state("/modem/settings/cpms") == json({"SM", "SM", "SM"});
    });
}

TEST(Restart, TheModemGoesAwayInTheMiddleOfACall)
{
    Router router;
    expect_message(router, "before");
    set(router, R"({"behaviour": {"delays": {"AT+CGSN": 500}}})");
    (void)router.commands();
    std::string imei;
    std::thread client([&] { imei = router.call("get_imei"); });
    ASSERT_TRUE(wait_for([&] { return !router.commands().empty(); }));
    router.modem({{"do", "reset"}, {"ms", "200"}});
    client.join();
    EXPECT_EQ(imei, busy);

    ASSERT_TRUE(announces_messages(router));
    ASSERT_TRUE(router.wait_until_free());
    EXPECT_EQ(router.modem_state("/port/losses"), 1);
    expect_message(router, "after");
    EXPECT_EQ(router.call("get_imei"), R"({"result":0,"imei":"860000000000009"})");
}

TEST(Restart, TheModemGoesAwayInTheMiddleOfAScan)
{
    Router router;
    set(router, R"({"behaviour": {"scan_ms": 600000}})");
    EXPECT_EQ(router.call("scan_network"), ok);
    EXPECT_EQ(router.call("get_imei"), busy);
    router.modem({{"do", "reset"}, {"ms", "200"}});
    EXPECT_TRUE(router.wait_until_free()) << "still waiting for a scan that nobody carries out any more";
    ASSERT_TRUE(announces_messages(router));
    expect_message(router, "after");
}

TEST(Restart, FirstBootAndReboot)
{
    Router router(read_whole_file(SOURCE_DIR "/modemsim/profiles/first_boot.json"), {{"/tmp/sku", "eu\nmore\n"}});
    EXPECT_THAT(router.commands(),
                testing::IsSupersetOf({"ATE0", "AT+GTPCMOUT=1", "AT+MSMPD=1", "AT+SIMSWAPCFG=0", "AT+CMGF=0",
                                       R"(AT+CPMS="SM","SM","SM")", "AT+CNMI=2,1", "AT+CAVIMS=1",
                                       R"(AT+CGDCONT=2,"IPV4V6","ims")", R"(AT+CGDCONT=1,"IPV4V6","internet")",
                                       R"(AT+GTSET="5GSACTR",1)", "AT+GTACT=20,6,3", "AT+CFUN=1", "AT+GTCELLINFO=1",
                                       "AT+COPS=?"}));
    EXPECT_THAT(router.datagrams(1), ElementsAre("apn_ipv4v6"));
    EXPECT_EQ(router.root.shell("readlink /etc/config/default_profile").output, "/etc/config/eu_apn_profile\n");
    EXPECT_TRUE(router.root.exists("/tmp/celmuxd_init"));
    expect_message(router, "kept");
    EXPECT_EQ(router.call("add_profile", {{"ip", 0}, {"apn", "kept"}}), ok);

    EXPECT_EQ(router.daemon.stop().code, 0);
    router.root.remove("/tmp/celmuxd_init");
    router.modem({{"do", "reset"}, {"ms", "50"}});
    ASSERT_TRUE(wait_for([&] { // the restart begins a moment after it was asked for, and the SIM needs longest
        return router.modem_state("/port/losses") == 1 && router.modem_state("/service") == true;
    }));
    (void)router.commands();
    router.daemon.start_again();
    ASSERT_TRUE(router.wait_until_free());
    std::vector<std::string> commands = router.commands();
    EXPECT_THAT(commands, testing::IsSupersetOf({"ATE0", "AT+CNMI=2,1", "AT+CFUN=1", "AT+COPS=?"}));
    for (const char *done : {"AT+GTPCMOUT=1", "AT+MSMPD=1", "AT+SIMSWAPCFG=0", "AT+CAVIMS=1"})
        EXPECT_THAT(commands, Not(Contains(done)));
    EXPECT_EQ(router.ask("get_profile_list")["profiles"].size(), 1U);
    EXPECT_EQ(message_text(router.ask("get_message", {{"index", 1}})), "kept");
    ASSERT_TRUE(announces_messages(router));
    expect_message(router, "after the reboot");
}
