// The methods that ask the modem, by the exchanges of tests/data/method-exchanges.txt.
#include "captured_reply.h"
#include "data_methods.h"
#include "exchanges.h"
#include "fake_clock.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "modem_test.h"
#include "network_methods.h"
#include "queues.h"
#include "requester.h"
#include "sim_methods.h"

using Methods = ModemTest<fake_shell, fake_clock, fake_wanmd>;

TEST_F(Methods, ExchangesWithTheModem)
{
    play_exchanges(TEST_DATA_DIR "/method-exchanges.txt", 200);
}

TEST_F(Methods, RefusalsAreLogged)
{
    struct {
        const char *arguments, *message;
        Handler handler;
    } rows[] = {
        {R"({"at":"ATI\n"})", "command holds a line end", handle_at_passthrough},
        {R"({"rat":20,"pref_act2":3})", "preferred act 1 not specified", handle_select_rat_and_band},
        {R"({"rat":20,"pref_act1":0,"bands":"b3"})", "preferred act 1 not specified", handle_select_rat_and_band},
        {R"({"rat":20,"pref_act1":6,"bands":"b3"})", "preferred act 2 not specified", handle_select_rat_and_band},
        {R"({"rat":20,"pref_act1":6,"pref_act2":3,"bands":""})", "selected bands must not be empty",
         handle_select_rat_and_band},
        {R"({"rat":20,"pref_act1":4})", "invalid preferred act", handle_select_rat_and_band},
        {R"({"act":256})", "argument above 255", handle_select_rat},
        {R"({"pin":"12\"34"})", "at_unlock_sim refused", handle_unlock_sim},
    };
    for (const auto &row : rows) {
        clear_log();
        reply_of(row.handler, row.arguments);
        EXPECT_EQ(log_count(row.message, LOG_ERR), 1) << row.arguments;
        EXPECT_EQ(log_count("12"), 0) << "a code is no text for the log";
    }
}

TEST_F(Methods, WaitsOfThePassThroughAreBounded)
{
    reply_of(handle_at_passthrough, R"({"at":"ATI"})");
    reply_of(handle_at_passthrough, R"({"at":"AT+COPS=?","timeout_ms":180000})");
    reply_of(handle_at_passthrough, R"({"at":"ATI","timeout_ms":-1})");
    EXPECT_EQ(fake_link.timeouts, (std::vector<uint32_t>{3000, 180000, 600000}));
    fake_link.mutex_error = 110;
    EXPECT_EQ(reply_of(handle_at_passthrough, R"({"at":"ATI"})"),
              R"({"result":110,"resp":"failure to send at command"})");
    EXPECT_EQ(reply_of(handle_hangup_call), R"({"result":65535})");
    fake_link.mutex_error = 0;
    fake_link.stopping = true;
    EXPECT_EQ(reply_of(handle_at_passthrough, R"({"at":"ATI"})"),
              R"({"result":-1,"resp":"failure to send at command"})");
    fake_link.enqueue_result = -1;
    EXPECT_EQ(reply_of(handle_scan_network), R"({"result":-1})");
}

TEST_F(Methods, ConnectionManagerIsStartedUnderWatch)
{
    pool_queue_init(&incomming_sms_queue, 4, 4);
    g_connecting.store(0);
    fake_wanmd.on_notice = [](const std::string &) { EXPECT_EQ(g_connecting.load(), 1); };
    EXPECT_EQ(reply_of(handle_wanmd_enable), R"({"result":0})");
    EXPECT_EQ(reply_of(handle_wanmd_disable), R"({"result":0})");
    EXPECT_EQ(fake_wanmd.notices, (Strings{"control 1", "control 0"}));
    EXPECT_EQ(g_connecting.load(), 1);
    pool_queue_destroy(&incomming_sms_queue);
}

TEST_F(Methods, AutoconnectIsSetForEveryNumberButZero)
{
    EXPECT_EQ(reply_of(handle_set_autoconnect, R"({"state":3})"), R"({"result":0})");
    EXPECT_EQ(fake_shell.commands.front(), "uci set modem.settings.autoconnect=1");
    EXPECT_EQ(fake_shell.commands.size(), 2u);
}
