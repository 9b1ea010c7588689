// APN profiles and the data connection: what the client asks, what the modem and the connection manager get, what stays
// on disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "router.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Lines = std::vector<std::string>;

static const std::string ok = R"({"result":0})";
static const std::string refused = R"({"result":65535})";

TEST(DataConnection, DefaultApn)
{
    const std::string default_profile = "\nconfig profile 'profile'\n\toption ip_family '0'\n\toption apn 'operator'\n";
    Router router("{}", {{"/etc/config/default_profile", default_profile}});
    EXPECT_THAT(router.commands(), testing::Contains(R"(AT+CGDCONT=1,"IP","operator")"));
    EXPECT_THAT(router.datagrams(1), ElementsAre("apn_ipv4"));
    const std::string text_99(99, 'a'), text_3000(3000, 'a');
    const struct {
        json arguments;
        std::string answer;
        Lines commands;
    } rows[] = {
        {{{"ip", 4}, {"apn", "x"}}, "status 2", {}},
        {{{"ip", -1}, {"apn", "x"}}, "status 2", {}},
        {{{"apn", "a\"b"}}, refused, {}},
        {{{"apn", "a\rAT+CFUN=0"}}, refused, {}},
        {{{"apn", "x"}, {"auth", 1}, {"username", "u"}, {"password", "\x1a"}}, refused, {}},
        {{{"apn", text_3000}}, refused, {}},
        {{{"ip", 1}, {"apn", text_99}}, ok, {"AT+CGAUTH=1,0", R"(AT+CGDCONT=1,"IPV4V6",")" + text_99 + "\""}},
        {{{"ip", 2}, {"apn", "x"}, {"auth", 1}, {"username", "u"}, {"password", "p"}},
         ok,
         {R"(AT+CGAUTH=1,1,"u","p")", R"(AT+CGDCONT=1,"IPV6","x")"}},
        {json::object(), ok, {"AT+CGAUTH=1,0", R"(AT+CGDCONT=1,"IP","operator")"}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(router.call("set_default_apn", row.arguments), row.answer) << row.arguments;
        EXPECT_EQ(router.commands(), row.commands) << row.arguments;
    }
    EXPECT_THAT(router.datagrams(3), ElementsAre("apn_ipv4v6", "apn_ipv6", "apn_ipv4"));
    EXPECT_EQ(router.root.read_file("/etc/config/default_profile"), default_profile);
}

TEST(DataConnection, AutoconnectDecidesAboutTheRadio)
{
    Router router(R"({"modem": {"settings": {"cfun": 4}}})",
                  {{"/etc/config/modem", "config modem 'settings'\n\toption autoconnect '0'\n"}});
    EXPECT_THAT(router.commands(), Not(testing::Contains("AT+CFUN=1")));
    EXPECT_THAT(router.script_calls(2),
                testing::UnorderedElementsAre("/etc/init.d/wanmd stop", "nvram set network_test test"));
    EXPECT_EQ(router.call("get_autoconnect"), R"({"result":0,"autoconnect":0})");
    EXPECT_EQ(router.call("set_autoconnect", {{"state", 1}}), ok);
    EXPECT_EQ(router.call("get_autoconnect"), R"({"result":0,"autoconnect":1})");
    EXPECT_THAT(router.root.read_file("/etc/config/modem"), HasSubstr("option autoconnect '1'"));

    router.root.remove("/tmp/calls.log");
    (void)router.commands();
    router.daemon.start_again();
    ASSERT_TRUE(router.wait_until_free());
    EXPECT_THAT(router.commands(), testing::Contains("AT+CFUN=1"));
    EXPECT_FALSE(router.root.exists("/tmp/calls.log"));
}

TEST(DataConnection, ComesUp)
{
    Router router(R"({"modem": {"settings": {"cfun": 4}, "behaviour": {"register_ms": 50}}})");
    (void)router.commands();
    (void)router.datagrams(1);
    EXPECT_EQ(router.call("check_connectivity"), R"({"result":0,"connected":false})");
    EXPECT_EQ(router.call("wanmd_enable"), ok);
    EXPECT_THAT(router.script_calls(1), ElementsAre("/etc/init.d/wanmd restart"));
    ASSERT_TRUE(wait_for([&] { return router.modem_state("/service") == true; }));
    EXPECT_EQ(router.call("rmnet_call", {{"action", 1}, {"ip type", 3}}), ok);
    EXPECT_EQ(router.call("check_connectivity"), R"({"result":0,"connected":true})");
    EXPECT_EQ(router.call("get_pdp_contexts"), R"({"result":0,"pdp_contexts":"10"})");
    EXPECT_THAT(router.commands(),
                testing::IsSupersetOf({"AT+CFUN=1", "AT+CGDCONT?", "AT$QCRMCALL=1,1,3", "AT+CGACT?"}));

    EXPECT_EQ(router.call("set_pdp_context_activation", {{"cid", 1}, {"state", 0}}), ok);
    EXPECT_EQ(router.call("set_pdp_context_activation", {{"state", 0}}), "status 2");
    EXPECT_EQ(router.call("check_connectivity"), R"({"result":0,"connected":false})");
    EXPECT_EQ(router.call("wanmd_disable"), ok);
    EXPECT_THAT(router.script_calls(3), testing::Contains("/etc/init.d/wanmd stop"));
    EXPECT_THAT(router.datagrams(0), IsEmpty());
}

// The modem tells the IP family 11 s after the attempt began and no address has come by then: real time, as the watch
// has it.
TEST(DataConnection, NeverGetsAnAddress)
{
    Router router(R"({"modem": {"behaviour": {"address": false, "delays": {"AT+CGDCONT?": 11000}}}})",
                  {{"/tmp/ipv6config0", ""}});
    (void)router.datagrams(1);
    EXPECT_EQ(router.call("wanmd_enable"), ok);
    EXPECT_THAT(router.datagrams(1), ElementsAre("re_call"));
    EXPECT_TRUE(router.root.syslog().contains("IPV4V6 ip incomplete, restarting wanmd"));
    EXPECT_EQ(router.call("get_rssi"), R"({"result":0,"rssi":27})");
}
