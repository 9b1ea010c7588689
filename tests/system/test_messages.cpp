// Short messages from the air to the client and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "router.h"

using nlohmann::json;
using testing::ElementsAre;

static const std::string ok = R"({"result":0})";

static json sms(const std::string &from, const std::string &text, const json &options = json::object())
{
    json command = {{"do", "sms"}, {"args", {from, text}}};
    command.update(options);
    return command;
}

// Waits until the store holds `count` messages and returns them.
static json messages(Router &router, size_t count)
{
    json list;
    (void)wait_for([&] {
        list = router.ask("get_all_messages").value("messages", json::array());
        return list.size() == count;
    });
    return list;
}

static std::vector<std::string> texts(const json &list)
{
    std::vector<std::string> result;
    for (const json &message : list)
        result.push_back(message_text(message));
    return result;
}

TEST(Messages, ADayOfMessages)
{
    Router router;
    const std::string report =
        "Ihr Paket kommt heute zwischen 14 und 16 Uhr 📦. Der Fahrer klingelt zweimal, danach liegt es "
        "beim Nachbarn. Änderungen sind bis 12 Uhr möglich, Köln–Düsseldorf kostet 3 € extra 😀.";
    EXPECT_EQ(router.call("get_all_messages"), R"({"messages":[],"result":0})");

    router.modem(sms("+491701234567", "Hello"));
    messages(router, 1);
    EXPECT_EQ(router.modem(sms("+491711111111", report, {{"order", "3,1,2"}, {"ref", "77"}}))["parts"], 3);
    ASSERT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    router.modem(sms("Info", "third"));

    json list = messages(router, 3);
    EXPECT_THAT(texts(list), ElementsAre("Hello", report, "third"));
    list[1].erase("message");
    EXPECT_EQ(list[1], json({{"index", 2},
                             {"alphabet", "UCS2"},
                             {"sender", "491711111111"},
                             {"date", "24-03-01"},
                             {"time", list[1]["time"]},
                             {"read", false},
                             {"country_code", 1}}));
    EXPECT_EQ(router.root.shell("uci get modem.state.message_unread").output, "1\n");
    EXPECT_EQ(message_text(router.ask("get_message", {{"index", 2}})), report);
    EXPECT_EQ(router.call("get_message", {{"index", 4}}), R"({"result":-1})");

    EXPECT_EQ(router.call("read_message", {{"index", 1}}), ok);
    EXPECT_EQ(router.call("read_messages", {{"index_list", {3, 99}}}), R"({"result":-1})");
    EXPECT_EQ(router.call("read_message"), "status 2");
    std::vector<bool> read;
    for (const json &message : messages(router, 3))
        read.push_back(message["read"]);
    EXPECT_THAT(read, ElementsAre(true, false, true));

    // All of it outlives a restart of the daemon.
    json before = messages(router, 3);
    ASSERT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    router.daemon.start_again();
    EXPECT_EQ(messages(router, 3), before);

    EXPECT_EQ(router.call("delete_message", {{"index", 1}}), ok);
    EXPECT_THAT(texts(messages(router, 2)), ElementsAre(report, "third"));
    EXPECT_EQ(router.call("delete_messages", {{"index_list", {2, 1, 7}}}), ok);
    EXPECT_EQ(router.call("get_all_messages"), R"({"messages":[],"result":0})");
    router.modem(sms("+491701234567", "after"));
    messages(router, 1);
    EXPECT_EQ(router.call("delete_all_messages"), ok);
    EXPECT_EQ(router.root.read_file("/data/in_messages"), std::string("\xAB\xCD\xEF\0", 4));
    EXPECT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
}

TEST(Messages, SendsWhatTheNetworkReads)
{
    Router router;
    std::string long_text;
    for (int i = 0; long_text.size() < 400; i++)
        long_text += "Message number " + std::to_string(i) + ", with [brackets] and a {brace}. ";
    long_text.resize(400);
    const struct {
        const char *what;
        std::string to;
        std::string text;
        size_t parts;
    } rows[] = {
        {"one part", "+491701234567", "Hello @ home", 1},
        {"400 characters", "+491701234567", long_text, 3},
        {"UCS2 to a short number", "4455", "Grüße aus Köln 😀, 你好", 1},
    };
    for (const auto &row : rows) {
        size_t before = router.modem_state("/submissions").size();
        EXPECT_EQ(router.call("send_message", {{"dest", row.to}, {"type", 0}, {"content", row.text}}), ok) << row.what;
        json sent = router.modem_state("/submissions");
        ASSERT_EQ(sent.size(), before + row.parts) << row.what;
        std::string text;
        for (size_t i = 0; i < row.parts; i++) {
            const json &part = sent[before + i];
            EXPECT_EQ(part["to"], row.to) << row.what;
            EXPECT_EQ(part.value("part", 1U), i + 1) << row.what;
            EXPECT_EQ(part.value("parts", 1U), row.parts) << row.what;
            text += part["text"];
        }
        EXPECT_EQ(text, row.text) << row.what;
    }
    EXPECT_EQ(router.call("send_message", {{"dest", "+49170"}, {"type", 0}}), "status 2");
}

TEST(Messages, AFullCardIsEmptied)
{
    Router router(R"({"modem": {"behaviour": {"sms_capacity": 10}}})");
    router.modem({{"do", "fill"}, {"args", {"SM"}}});
    for (const char *text : {"waits in the network", "waits too"})
        router.modem(sms("+491701234567", text));
    EXPECT_EQ(router.modem_state("/messages/waiting"), 2);
    EXPECT_EQ(router.call("get_all_messages"), R"({"messages":[],"result":0})");

    // The card that comes back tells that it is full.
    router.modem({{"do", "sim"}, {"args", {"pull"}}});
    router.modem({{"do", "sim"}, {"args", {"return"}}});
    std::vector<std::string> all = texts(messages(router, 12));
    ASSERT_EQ(all.size(), 12U);
    EXPECT_THAT(all, testing::IsSupersetOf({"filler 1", "filler 10", "waits in the network", "waits too"}));
    EXPECT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    EXPECT_EQ(router.modem_state("/messages/waiting"), 0);
    EXPECT_TRUE(router.root.syslog().contains("SIM sms storage full."));
}

TEST(Messages, ComeInTextModeAndWhileTheDaemonIsDown)
{
    constexpr size_t places = 50;
    Router router(R"({"modem": {"behaviour": {"sms_capacity": 50}}})");
    EXPECT_EQ(router.call("set_sms_message_format", {{"format", 1}}), ok);
    router.modem(sms("+491701234567", "in text mode"));
    EXPECT_THAT(texts(messages(router, 1)), ElementsAre("in text mode"));
    EXPECT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    EXPECT_TRUE(wait_for([&] { return router.modem_state("/modem/settings/cmgf") == 1; }))
        << "the mode is the client's";

    (void)router.daemon.stop();
    router.modem({{"do", "fill"}, {"args", {"SM"}}});
    router.modem(sms("+491701234567", "waits in the network"));
    EXPECT_EQ(router.modem_state("/messages/used/SM"), places);
    router.daemon.start_again();
    std::vector<std::string> all = texts(messages(router, places + 2));
    ASSERT_EQ(all.size(), places + 2);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), places + 2);
    EXPECT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    EXPECT_FALSE(router.root.syslog().contains("messages wait"));
}

static void append_field(std::string &record, size_t size, const std::string &text)
{
    record += text + std::string(size - text.size(), '\0');
}

// A message file of single-part messages of 160 septets each.
static std::string message_file(size_t count)
{
    std::string file("\xAB\xCD\xEF\0", 4);
    for (size_t i = 0; i < count; i++) {
        std::string content = "message " + std::to_string(i + 1);
        content.resize(160, '.');
        file += '\xFF';
        append_field(file, 9, "24-03-15");
        append_field(file, 9, "09:26:53");
        file += std::string("\0\0\0\0\0\1\0\1\0\1\0\4\0", 13);
        file += std::string("\0+49\0\1\0\xA0\0", 9) + content;
    }
    return file;
}

TEST(Messages, AListingTooLargeForTheBusIsCut)
{
    constexpr size_t stored = 2000;
    constexpr size_t bus_limit = 1 << 20;
    Router router("{}", {{"/data/in_messages", message_file(stored)}});
    json answer = router.ask("get_all_messages");
    EXPECT_EQ(answer["truncated"], true);
    EXPECT_EQ(answer["result"], 0);
    size_t listed = answer["messages"].size();
    constexpr size_t content_size = 160 * 12; // a number with its header and empty name
    EXPECT_GT(listed, bus_limit / (content_size + 200));
    EXPECT_LT(listed, bus_limit / content_size);
    EXPECT_EQ(answer["messages"].front()["index"], stored - listed + 1);
    EXPECT_EQ(answer["messages"].back()["index"], stored);
    EXPECT_TRUE(message_text(answer["messages"].back()).starts_with("message 2000."));
    router.modem(sms("+491701234567", "the newest"));
    EXPECT_TRUE(
        wait_for([&] { return message_text(router.ask("get_all_messages")["messages"].back()) == "the newest"; }));
    EXPECT_EQ(router.call("delete_message", {{"index", stored + 1}}), ok);

    EXPECT_TRUE(message_text(router.ask("get_message", {{"index", 1}})).starts_with("message 1."));
    json most = json::array();
    for (size_t i = 1; i <= stored - 10; i++)
        most.push_back(i);
    EXPECT_EQ(router.call("delete_messages", {{"index_list", most}}), ok);
    answer = router.ask("get_all_messages");
    EXPECT_EQ(answer["messages"].size(), 10U);
    EXPECT_FALSE(answer.contains("truncated"));
    EXPECT_FALSE(router.root.syslog().contains("connection to ubus lost"));
}

static long private_kb(pid_t pid)
{
    std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string name; rollup >> name;) {
        long kb;
        if (name == "Private_Dirty:" && rollup >> kb)
            return kb;
    }
    return -1;
}

TEST(Messages, GiveTheirMemoryBack)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer keeps what is freed";
#endif
    Router router("{}", {{"/data/in_messages", message_file(10000)}});
    pid_t pid = router.daemon.celmuxd().pid();
    long loaded = private_kb(pid);
    ASSERT_GT(loaded, 1000);
    EXPECT_EQ(router.ask("get_all_messages")["truncated"], true);
    long listed = private_kb(pid);
    EXPECT_LT(listed, loaded + 300);
    EXPECT_EQ(router.call("delete_all_messages"), ok);
    long deleted = private_kb(pid);
    EXPECT_LT(deleted, loaded - 1000);
    std::cout << "private kB: loaded " << loaded << ", listed " << listed << ", deleted " << deleted << "\n";
}
