// The methods that ask the modem, by the exchanges of tests/data/method-exchanges.txt.
#include <fstream>
#include <ranges>

#include "captured_reply.h"
#include "data_methods.h"
#include "fake_clock.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "method_table.h"
#include "modem_test.h"
#include "network_methods.h"
#include "sim_methods.h"

struct Exchange {
    std::string call; // method and arguments
    Strings sent;
    std::vector<Answer> answers;
    std::string reply;
};

// The answer of those lines, as the file describes it.
static Answer answer_of(const Strings &lines)
{
    static constexpr std::string_view FINAL[] = {"ERROR", "+CME ERROR", "NO CARRIER"};
    if (lines == Strings{"-"})
        return std::nullopt;
    std::string text = lines.empty() ? "" : "\r\n";
    for (const std::string &line : lines)
        text += line == "~" ? "" : line + "\r\n";
    const std::string &last = lines.empty() ? "" : lines.back();
    const bool ended = last == "~" || std::ranges::any_of(FINAL, [&](auto final) { return last.starts_with(final); });
    return text + (ended ? "" : "\r\nOK\r\n");
}

// The pieces of a text, each of them but the first with its sign in front.
static Exchange exchange_of(const std::string &text)
{
    Exchange exchange;
    Strings lines;
    auto end_answer = [&] {
        if (!exchange.sent.empty())
            exchange.answers.push_back(answer_of(lines));
        lines.clear();
    };
    for (size_t begin = 0, end; begin < text.size(); begin = end) {
        end = std::min(
            {text.find(" > ", begin + 2), text.find(" < ", begin + 2), text.find(" = ", begin + 2), text.size()});
        const std::string piece = text.substr(begin, end - begin), value = piece.size() > 3 ? piece.substr(3) : "";
        if (begin == 0)
            exchange.call = piece;
        else if (piece[1] == '<')
            lines.push_back(value);
        else
            end_answer();
        if (begin != 0 && piece[1] == '>')
            exchange.sent.push_back(value + "\r");
        else if (begin != 0 && piece[1] == '=')
            exchange.reply = value;
    }
    return exchange;
}

static std::vector<Exchange> exchanges()
{
    std::ifstream file(TEST_DATA_DIR "/method-exchanges.txt");
    Strings texts;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("> ") || line.starts_with("< ") || line.starts_with("= "))
            texts.back() += " " + line;
        else if (!line.empty() && line[0] != '#')
            texts.push_back(line);
    }
    std::vector<Exchange> all;
    for (const std::string &text : texts)
        all.push_back(exchange_of(text));
    return all;
}

using Methods = ModemTest<fake_shell, fake_clock, fake_wanmd>;

TEST_F(Methods, ExchangesWithTheModem)
{
    const auto all = exchanges();
    ASSERT_GT(all.size(), 200u);
    for (const Exchange &exchange : all) {
        SCOPED_TRACE(exchange.call + " = " + exchange.reply);
        const std::string name = exchange.call.substr(0, exchange.call.find(' '));
        const std::string arguments = exchange.call == name ? "{}" : exchange.call.substr(name.size());
        const auto method =
            std::ranges::find(method_rows, name, [](const MethodRow &row) { return std::string(row.name); });
        ASSERT_NE(method, method_rows.end());
        fake_link.reset();
        clear_log();
        if (!exchange.answers.empty())
            fake_link.answer_in_turn(exchange.answers);
        EXPECT_EQ(reply_of(method->handler, arguments.c_str()), exchange.reply);
        EXPECT_EQ(fake_link.sent, exchange.sent);
        EXPECT_EQ(log_count(name + " enter", LOG_INFO), 1);
        for (size_t i = 0; i < fake_link.expected.size() && exchange.reply.starts_with(R"({"result":0)"); i++)
            EXPECT_NE(exchange.answers[i]->find(fake_link.expected[i]), std::string::npos) << "the link would drop it";
    }
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
