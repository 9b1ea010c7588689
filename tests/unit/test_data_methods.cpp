#include "data_methods.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "captured_log.h"
#include "captured_reply.h"
#include "celmux.h"
#include "fake_clock.h"
#include "fake_modem_link.h"
#include "fake_shell.h"
#include "fake_wanmd.h"

using Strings = std::vector<std::string>;

class DataMethods : public testing::Test {
protected:
    void SetUp() override
    {
        fake_link.reset();
        fake_shell.reset();
        fake_clock.reset();
        fake_wanmd.reset();
        clear_log();
        g_connecting.store(0);
        pool_queue_init(&incomming_sms_queue, 4, 4);
    }
    void TearDown() override
    {
        pool_queue_destroy(&incomming_sms_queue);
    }
};

TEST_F(DataMethods, SettersCheckTheirArgumentsAndSendOneCommand)
{
    struct {
        Handler handler;
        const char *arguments;
        const char *sent; // null: refused
    } rows[] = {
        {handle_set_pdp_context_activation, R"({"state":7,"cid":2})", "AT+CGACT=1,2\r"},
        {handle_set_pdp_context_activation, R"({"state":0})", nullptr},
        {handle_set_pdp_context_activation, R"({"cid":1})", nullptr},
        {handle_rmnet_call, R"({"action":9,"ip type":1,"pdp index":1})", "AT$QCRMCALL=1,1,1,2,1\r"},
        {handle_rmnet_call, R"({"action":0,"cdma profile num":-1,"apn":"x"})", "AT$QCRMCALL=0,1,-1,\"x\"\r"},
        {handle_rmnet_call, R"({"apn":"x"})", nullptr},
        {handle_set_5gsa, R"({"enable":5})", "AT+GTSET=\"5GSACTR\",1\r"},
        {handle_set_5gsa, R"({"enable":"1"})", nullptr},
        {handle_set_roaming_enable, R"({"state":0})", "AT+GTROAMCFG=0\r"},
        {handle_set_roaming_enable, "{}", nullptr},
        {handle_set_sms_message_format, R"({"format":1})", "AT+CMGF=1\r"},
        {handle_set_sms_message_format, R"({"format":2})", nullptr},
        {handle_set_sms_message_format, R"({"format":-1})", nullptr},
        {handle_set_pcm_loopback_state, R"({"state":"off"})", "AT+GTPCMLOOPBACK=0\r"},
        {handle_set_pcm_loopback_state, R"({"state":1})", nullptr},
        {handle_set_fm160_usb_lock, R"({"locked":2})", "AT+GTINTFMODE=2\r"},
        {handle_set_fm160_usb_lock, "{}", nullptr},
        {handle_hangup_call, "{}", "ATH\r"},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        EXPECT_EQ(reply_of(row.handler, row.arguments), row.sent ? "{\"result\":0}" : "status 2") << row.arguments;
        EXPECT_EQ(fake_link.sent, row.sent ? Strings{row.sent} : Strings{}) << row.arguments;
    }
    fake_link.answer_always(std::nullopt);
    EXPECT_EQ(reply_of(handle_hangup_call), "{\"result\":65537}");
}

TEST_F(DataMethods, ConnectionManagerIsStartedUnderWatch)
{
    fake_wanmd.on_notice = [](const std::string &) { EXPECT_EQ(g_connecting.load(), 1); };
    EXPECT_EQ(reply_of(handle_wanmd_enable), "{\"result\":0}");
    EXPECT_EQ(fake_wanmd.notices, Strings{"control 1"});
    EXPECT_EQ(reply_of(handle_wanmd_disable), "{\"result\":0}");
    EXPECT_EQ(fake_wanmd.notices.back(), "control 0");
    EXPECT_EQ(g_connecting.load(), 1);
}

TEST_F(DataMethods, ApnRepliesNameTheFamily)
{
    struct {
        const char *line;
        const char *data, *ims;
    } rows[] = {
        {"+CGDCONT: 1,\"IP\",\"a\",\"\"\r\n+CGDCONT: 2,\"IPV6\",\"ims\",\"\"", R"({"result":0,"apn":"a","ip":"IPV4"})",
         R"({"result":0,"apn":"ims","ip":"IPV6"})"},
        {"+CGDCONT: 3,\"IP\",\"a\",\"\"", R"({"result":0,"apn":"","ip":"Unavailable"})",
         R"({"result":0,"apn":"","ip":""})"},
        {"+CGDCONT: 1,\"IPV4V6\",\"\",\"\"\r\n+CGDCONT: 2,\"PPP\",\"x\"", R"({"result":0,"apn":"","ip":"IPV4V6"})",
         R"({"result":0,"apn":"x","ip":""})"},
    };
    for (const auto &row : rows) {
        fake_link.answer_always(ok_answer({row.line}));
        EXPECT_EQ(reply_of(handle_get_current_apn), row.data);
        EXPECT_EQ(reply_of(handle_get_current_ims_apn), row.ims);
    }
    fake_link.answer_always("\r\n+CME ERROR: 10\r\n");
    EXPECT_EQ(reply_of(handle_get_current_apn), R"({"result":65535})");
}

TEST_F(DataMethods, StatesAreToldWhateverTheResult)
{
    fake_link.answer_always(ok_answer({"+CGDCONT: 1,\"IP\",\"a\",\"10.0.0.1\",0"}));
    EXPECT_EQ(reply_of(handle_check_connectivity), R"({"result":0,"connected":true})");
    fake_link.answer_always(ok_answer({"+GTPCMLOOPBACK: 1"}));
    EXPECT_EQ(reply_of(handle_get_pcm_loopback_state), R"({"result":0,"enabled":true})");
    fake_link.answer_always(std::nullopt);
    EXPECT_EQ(reply_of(handle_check_connectivity), R"({"result":65537,"connected":false})");
    EXPECT_EQ(reply_of(handle_get_pcm_loopback_state), R"({"result":65537,"enabled":false})");
}

TEST_F(DataMethods, AutoconnectIsSetForEveryNumberButZero)
{
    EXPECT_EQ(reply_of(handle_set_autoconnect, R"({"state":3})"), R"({"result":0})");
    EXPECT_EQ(fake_shell.commands.front(), "uci set modem.settings.autoconnect=1");
    EXPECT_EQ(reply_of(handle_set_autoconnect), "status 2");
    EXPECT_EQ(fake_shell.commands.size(), 2u);
}
