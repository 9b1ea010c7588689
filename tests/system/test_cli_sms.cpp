// The tool's commands for messages, against the whole system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "celmux_tool.h"
#include "terminal.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

static const std::string number = "+491701234567";

static json sms(const std::string &from, const std::string &text, const json &options = json::object())
{
    json command = {{"do", "sms"}, {"args", {from, text}}, {"time", "24-03-15 09:26:53"}};
    command.update(options);
    return command;
}

static bool wait_for_messages(Router &router, size_t count)
{
    return wait_for([&] { return router.ask("get_all_messages")["messages"].size() == count; });
}

static size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}

TEST(CliSms, ListsShowsAndDeletes)
{
    Router router;
    expect_kept(router, "sms", "sms_none.txt");
    expect_kept(router, "sms --json", "sms_none.json");
    router.modem(sms(number, "Grüße\nund {Klammern} für 5 €"));
    ASSERT_TRUE(wait_for_messages(router, 1));
    router.modem(sms("Info", "Привет 🙂"));
    ASSERT_TRUE(wait_for_messages(router, 2));
    const std::string parts =
        std::string(153, 'a') + std::string(153, 'b') + std::string(153, 'c') + std::string(153, 'd') + "e";
    router.modem(sms("12345", parts, {{"ref", "7"}, {"order", "4,1,5"}}));
    ASSERT_TRUE(wait_for_messages(router, 3));
    ASSERT_TRUE(wait_for([&] { return router.ask("get_all_messages")["messages"][2]["message"].size() == 307; }));

    expect_kept(router, "sms list", "sms_list.txt");
    expect_kept(router, "sms list --json", "sms_list.json");
    expect_kept(router, "sms show 1", "sms_show_1.txt");
    expect_kept(router, "sms show 3", "sms_show_3.txt");
    expect_kept(router, "sms show 3 --json", "sms_show_3.json");
    Terminal narrow(router.root, {"celmux", "sms"}, 60);
    ASSERT_EQ(narrow.wait_exit(), 0);
    EXPECT_THAT(narrow.output(), HasSubstr("Привет 🙂\r\n"));
    EXPECT_THAT(narrow.output(), HasSubstr("…\r\n"));

    expect_failure(router, "sms delete 2 4", 1, "sms: there is no message 4");
    ASSERT_TRUE(wait_for_messages(router, 3));
    ShellResult deleted = celmux(router, "sms delete 2 1 2");
    EXPECT_EQ(deleted.status, 0) << deleted.errors;
    EXPECT_EQ(json::parse(celmux(router, "sms --json").output)["messages"][0]["from"], "12345");
    EXPECT_EQ(celmux(router, "sms delete all").status, 0);
    expect_kept(router, "sms", "sms_none.txt");
}

TEST(CliSms, NoTextDrivesATerminal)
{
    // What only an older store can hold: bytes that are no UTF-8, and fields that no network gives.
    const std::string store =
        R"([
{"alphabet":3,"sender":"\u001b[31mBank)"
        "\xff"
        R"(","date":"\u001b]0;x\u0007","time":"\u009b2J","smsc":"","from_toa":"national","read":false,
 "message":[27,91,50,74,255,194,155,50,74,226,128,174,108,105,118,101,13,10,9,7,127,92]},
{"alphabet":2,"sender":"1","date":"24-03-15","time":"09:26:53","smsc":"","from_toa":"international","read":false,
 "message":[0,65,0,0,216,0,32,46,0,66,0,155,0]},
{"alphabet":1,"sender":"2","date":"24-03-15","time":"09:26:53","smsc":"","from_toa":"national","read":true,
 "message":[0,27,91,255]}])";
    Router router("{}", {{"/data/messages.json", store}});
    expect_kept(router, "sms", "sms_hostile.txt");
    expect_kept(router, "sms --json", "sms_hostile.json");
    for (int i = 1; i <= 3; i++)
        expect_kept(router, "sms show " + std::to_string(i), "sms_hostile_" + std::to_string(i) + ".txt");

    const std::string text(10000, 'x');
    router.modem(sms(number, text));
    ASSERT_TRUE(wait_for([&] { return router.ask("get_message", {{"index", 4}})["message"].size() == 10000; }));
    json message = json::parse(celmux(router, "sms show 4 --json").output);
    EXPECT_EQ(message["text"], text);
    EXPECT_EQ(message["parts"], 66);
    EXPECT_EQ(message["missing_parts"], json::array());
    EXPECT_THAT(celmux(router, "sms").output, HasSubstr("  66  " + text + "\n"));

    // Without the daemon's file, or with a torn or foreign one, nothing is known about parts.
    const std::string file = router.root.read_file("/data/in_messages");
    for (const std::string &damaged : {std::string(), file.substr(0, 3), file.substr(0, 40), std::string("[]"),
                                       file.substr(0, 4) + std::string(4000, '\xff')}) {
        router.root.write_file("/data/in_messages", damaged);
        json all = json::parse(celmux(router, "sms --json").output)["messages"];
        ASSERT_EQ(all.size(), 4u);
        EXPECT_EQ(all[3]["text"], text);
        EXPECT_EQ(all[3]["parts"], nullptr);
    }
}

TEST(CliSms, TellsTheNumberOfPartsAndSends)
{
    Router router;
    auto sent = [&] { return router.modem_state("/submissions"); };
    expect_kept(router, "sms send " + number + " 'On my way'", "sms_send.txt");
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0]["text"], "On my way");
    router.root.write_file("/tmp/long", std::string(161, 'x') + "\n");
    expect_kept(router, "sms send 1234 - </tmp/long", "sms_send_parts.txt");
    expect_kept(router, "--json sms send 1234 'Привет' ", "sms_send.json");
    EXPECT_EQ(sent().size(), 4u);

    router.root.write_file("/tmp/endless", std::string(200000, 'x'));
    router.root.write_file("/tmp/zero", std::string("a\0b", 3));
    const std::string see = " (see 'celmux help sms')";
    expect_failure(router, "sms send 1234 ''", 2, "sms: there is no text to send" + see);
    expect_failure(router, "sms send 1234 - </dev/null", 2, "sms: there is no text to send" + see);
    expect_failure(router, "sms send somebody Hello", 2, "sms: somebody is no phone number" + see);
    expect_failure(router, "sms send 1234 \"$(printf 'a\\377b')\"", 2, "sms: the text is not valid UTF-8" + see);
    expect_failure(router, "sms send 1234 - </tmp/zero", 2,
                   "sms: cannot take the text from standard input: it holds a zero byte" + see);
    expect_failure(router, "sms send 1234 - </tmp/endless", 2,
                   "sms: cannot take the text from standard input: it needs more than 255 parts" + see);
    expect_failure(router, "sms send 1234", 2, "sms: send needs more arguments" + see);
    expect_failure(router, "sms show 0", 2, "sms: 0 is no number of a message" + see);
    expect_failure(router, "sms show 1", 1, "sms: there is no message 1");
    EXPECT_EQ(sent().size(), 4u);

    router.modem(
        {{"do", "trouble"}, {"args", {R"({"kind": "error", "command": "AT+CMGS", "text": "+CMS ERROR: 38"})"}}});
    ShellResult refused = celmux(router, "sms send 1234 Hello");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, "celmux: sms: the modem is busy, refused it, or did not confirm it in time\n");
    EXPECT_THAT(refused.output, Not(HasSubstr("Sent")));
}

TEST(CliSms, WatchPrintsWhatArrives)
{
    Router router;
    router.modem(sms(number, "before"));
    ASSERT_TRUE(wait_for_messages(router, 1));
    Terminal terminal(router.root, {"celmux", "sms", "watch"});
    ASSERT_TRUE(terminal.wait_for("Ctrl-C ends.\r\n")) << terminal.output();
    router.modem(sms("Info", "\x1b[2Jfirst"));
    ASSERT_TRUE(terminal.wait_for("2024-03-15 09:26:53  Info\x1b[0m\r\n\\x1b[2Jfirst\r\n\r\n")) << terminal.output();

    // The parts of a long message are waited for.
    const std::string text = std::string(153, 'a') + std::string(153, 'b');
    router.modem(sms(number, text, {{"ref", "7"}, {"order", "2"}}));
    ASSERT_TRUE(wait_for_messages(router, 3));
    router.modem(sms(number, "between"));
    ASSERT_TRUE(terminal.wait_for("between")) << terminal.output();
    router.modem(sms(number, text, {{"ref", "7"}, {"order", "1"}}));
    ASSERT_TRUE(terminal.wait_for(text)) << terminal.output();

    router.daemon.start_again();
    ASSERT_TRUE(router.wait_until_free());
    router.modem(sms(number, "daemon started again"));
    ASSERT_TRUE(terminal.wait_for("daemon started again")) << terminal.output();
    router.daemon.stop_broker();
    ASSERT_TRUE(terminal.wait_for("celmux: sms: waiting: no connection to the bus\r\n")) << terminal.output();
    router.daemon.start_broker();
    ASSERT_TRUE(router.daemon.bus.wait_for_object("celmux"));
    router.modem(sms(number, "bus started again"));
    ASSERT_TRUE(terminal.wait_for("bus started again")) << terminal.output();
    EXPECT_EQ(celmux(router, "sms delete 1 2").status, 0);
    router.modem(sms(number, "last"));
    ASSERT_TRUE(terminal.wait_for("last")) << terminal.output();
    terminal.type("\x03");
    EXPECT_EQ(terminal.wait_exit(), 0);
    EXPECT_THAT(terminal.output(), Not(HasSubstr("before")));
    EXPECT_THAT(terminal.output(), Not(HasSubstr("missing")));
    for (const char *once : {"first", "between", "daemon started again", "bus started again", "last", "aabb"})
        EXPECT_EQ(occurrences(terminal.output(), once), 1u) << once << " in " << terminal.output();

    Process plain = router.root.start({"celmux", "sms", "watch", "--json"});
    int count = 0; // what comes before its first look is not news
    ASSERT_TRUE(wait_for([&] {
        router.modem(sms("Info", "message " + std::to_string(count++)));
        return !plain.output_lines().empty() || !plain.running();
    })) << plain.errors();
    EXPECT_EQ(json::parse(plain.output_lines().at(0))["from"], "Info");
    plain.signal(SIGTERM);
    std::optional<ExitStatus> end = plain.wait_exit();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->code, 0) << plain.errors();
    (void)router.daemon.stop();
    expect_failure(router, "sms watch", 3, "sms: celmuxd is not on the bus; is it running?");
}
