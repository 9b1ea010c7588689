#include "log.h"
#include "message_store.h"

#include <algorithm>
#include <atomic>
#include <thread>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "captured_log.h"
#include "captured_reply.h"
#include "fake_files.h"
#include "fake_shell.h"
#include "handler.h"
#include "message_methods.h"
#include "stored_messages.h"

using Lines = std::vector<std::string>;

class MessageStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_files.reset();
        fake_shell.reset();
        clear_log();
        forget_store();
        start_message_store();
        save_messages(MESSAGE_FILE);
        fake_files.calls = 0;
    }
    void TearDown() override
    {
        forget_store();
    }

    static void fill(int count)
    {
        for (int i = 1; i <= count; i++)
            add({.text = "m", .sender = std::to_string(i)});
        save_messages(MESSAGE_FILE);
        fake_files.calls = 0;
    }
    // What a restart would find.
    static Lines on_disk()
    {
        forget_store();
        start_message_store();
        return stored();
    }
};

TEST_F(MessageStore, DropsAMessageThatIsThereAlready)
{
    EXPECT_EQ(add({}), AddResult::added);
    int32_t index = 1;
    mark_messages_read(&index, 1);
    EXPECT_EQ(add({}), AddResult::duplicate) << "read or not";
    EXPECT_EQ(log_count("abandon duplicate message", -1), 1);
    EXPECT_EQ(on_disk().size(), 1u);
    EXPECT_EQ(add({}), AddResult::duplicate) << "after a restart";
    const Incoming others[] = {{.time = "09:26:54"}, {.text = "Text"},     {.text = "text "},
                               {.sender = "1"},      {.date = "24-03-16"}, {.toa = "national"},
                               {.alphabet = 2},      {.smsc = ""},         {.index = 1, .total = 1}};
    for (const Incoming &other : others)
        EXPECT_EQ(add(other), AddResult::added);
    EXPECT_EQ(stored().size(), 1 + std::size(others));
    EXPECT_EQ(stored().back(), "491701234567 1=text") << "a long message of one part is never marked as complete";
}

// Adds three parts in every order, each of them twice, while the same parts of somebody else come; what the message
// then is.
static void join_in_any_order(const Incoming (&parts)[3], const std::string &alphabet, const std::string &bytes)
{
    int order[] = {0, 1, 2};
    do {
        clear_log();
        delete_all_messages();
        for (int i : order) {
            Incoming repeated = parts[i], other = parts[i];
            repeated.time = "10:00:00";
            other.sender = "9";
            for (const Incoming &in : {parts[i], repeated, other})
                EXPECT_EQ(add(in), AddResult::added);
        }
        EXPECT_EQ(log_count("abandon duplicate message part", -1), 3);
        Lines lines = stored();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(lines[0].ends_with(" +") && lines[1].ends_with(" +"));
        std::string reply = reply_of(handle_get_message, R"({"index":1})");
        EXPECT_NE(reply.find("\"message\":[" + bytes + "]"), std::string::npos) << reply;
        EXPECT_NE(reply.find(alphabet), std::string::npos) << reply;
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST_F(MessageStore, JoinsThePartsInAnyOrder)
{
    join_in_any_order({{.text = "one", .index = 1, .total = 3},
                       {.text = "two", .index = 2, .total = 3},
                       {.text = "three", .index = 3, .total = 3}},
                      "GSM", "111,110,101,116,119,111,116,104,114,101,101");
    // Parts in national language tables are UTF-8, those that do not need them septets: "Hi" and a section sign, 0x5F.
    join_in_any_order({{.text = "Hi\x5F", .index = 1, .total = 3},
                       {.text = "şık", .index = 2, .total = 3, .alphabet = 3},
                       {.text = "\x5F", .index = 3, .total = 3}},
                      "UTF8", "72,105,194,167,197,159,196,177,107,194,167");
}

TEST_F(MessageStore, TellsARepetitionFromTheNextMessageOfAConstantReference)
{
    const struct {
        const char *what;
        std::vector<std::string> parts; // each with its number, its text and the time at which it was sent
        Lines messages;
    } rows[] = {
        {"one after the other",
         {"1a 09:00:00", "2b 09:00:01", "1c 10:00:00", "2d 10:00:01"},
         {"1=a 2=b +", "1=c 2=d +"}},
        {"repeated by the network", {"1a 09:00:00", "2b 09:00:01", "2b 09:00:01", "1a 09:00:00"}, {"1=a 2=b +"}},
        {"the same ending", {"1a 09:00:00", "2z 09:00:01", "1c 10:00:00", "2z 10:00:01"}, {"1=a 2=z +", "1=c 2=z +"}},
        {"repeated while the next one comes",
         {"1a 09:00:00", "2z 09:00:01", "1c 10:00:00", "2z 09:00:01", "2d 10:00:02"},
         {"1=a 2=z +", "1=c 2=d +"}},
        {"mixed", {"1a 09:00:00", "1c 10:00:00", "2b 09:00:02", "2d 10:00:01"}, {"1=a 2=b +", "1=c 2=d +"}},
        {"within a second", {"1a 09:00:00", "2b 09:00:00", "2d 09:00:00", "1c 09:00:00"}, {"1=a 2=b +", "1=c 2=d +"}},
    };
    for (const auto &row : rows) {
        SetUp();
        for (const std::string &part : row.parts) {
            const Incoming in = {
                .text = part.substr(1, 1), .sender = "s", .index = part[0] - '0', .total = 2, .time = part.substr(3)};
            EXPECT_EQ(add(in), AddResult::added);
        }
        Lines messages;
        for (std::string line : stored()) {
            line = line.substr(2);
            if (line.starts_with("2="))
                line = line.substr(4, 3) + " " + line.substr(0, 3) + line.substr(7);
            messages.push_back(line);
        }
        EXPECT_EQ(messages, row.messages) << row.what;
    }
}

TEST_F(MessageStore, KeepsDifferentLongMessagesApart)
{
    const Incoming others[] = {{.ref = 43},          {.total = 4},    {.sender = "9"},
                               {.date = "24-03-16"}, {.alphabet = 2}, {.toa = "national"}};
    add({.index = 1, .total = 3});
    for (Incoming other : others) {
        other.index = 2;
        other.total = other.total ? other.total : 3;
        add(other);
    }
    EXPECT_EQ(stored().size(), 1 + std::size(others));
    forget_store();
    EXPECT_EQ(add({}), AddResult::refused) << "no store";
}

TEST_F(MessageStore, PartsThatArriveAfterARestartAreJoined)
{
    add({.text = "a", .index = 1, .total = 2, .date = "24-03-15T..", .toa = "international (ISDN)"});
    save_messages(MESSAGE_FILE);
    on_disk();
    add({.text = "b", .index = 2, .total = 2, .date = "24-03-15T..", .toa = "international (ISDN)"});
    EXPECT_EQ(stored(), (Lines{"491701234567 1=a 2=b +"}));
}

TEST_F(MessageStore, RefusesWhatItCannotHold)
{
    for (uint32_t i = 0; i < MOST_MESSAGES; i++)
        ASSERT_EQ(array_append(&message_array, message_new({}, std::vector<MessagePart>(1))), 0);
    EXPECT_EQ(add({}), AddResult::refused);
    EXPECT_EQ(add({.index = 1, .total = 2}), AddResult::refused);
}

TEST_F(MessageStore, Listing)
{
    EXPECT_EQ(reply_of(handle_get_all_messages), R"({"messages":[],"result":0})");
    add({.text = "Hi", .alphabet = 2});
    add({.text = "\xFF", .sender = "Bank", .index = 3, .total = 3, .toa = "alphanumeric", .alphabet = 4});
    add({.text = std::string(1, '\0'), .sender = "Bank", .index = 1, .total = 3, .toa = "alphanumeric", .alphabet = 4});
    std::string first =
        R"("alphabet":"UCS2","sender":"491701234567","date":"24-03-15","time":"09:26:53","read":false,"country_code":1,"message":[72,105])";
    std::string second =
        R"("alphabet":"Unknown","sender":"Bank","date":"24-03-15","time":"09:26:53","read":false,"country_code":0,"message":[0,255])";
    EXPECT_EQ(reply_of(handle_get_all_messages),
              R"({"messages":[{"index":1,)" + first + R"(},{"index":2,)" + second + R"(}],"result":0})");
    EXPECT_EQ(reply_of(handle_get_message, R"({"index":2})"), "{" + second + R"(,"result":0})");
    for (const char *index : {"0", "3", "-1", "-2147483648", "2147483647"})
        EXPECT_EQ(reply_of(handle_get_message, ("{\"index\":" + std::string(index) + "}").c_str()), R"({"result":-1})");
    for (const char *bad : {"{}", R"({"index":"1"})", R"({"Index":1})"}) {
        EXPECT_EQ(reply_of(handle_get_message, bad), "status 2");
        EXPECT_EQ(reply_of(handle_read_message, bad), "status 2");
        EXPECT_EQ(reply_of(handle_delete_message, bad), "status 2");
    }
    save_and_free_messages();
    EXPECT_EQ(reply_of(handle_get_all_messages), R"({"result":-1})");
    EXPECT_EQ(reply_of(handle_get_message, R"({"index":1})"), R"({"result":-1})");
}

TEST_F(MessageStore, PartsOfAFileThatNobodyWroteAreListedOnce)
{
    uint8_t byte[] = {'a', 'b', 'c', 'd'};
    MessagePart parts[] = {{2, {byte, 1}}, {0, {byte + 1, 1}}, {9, {byte + 2, 1}}, {2, {byte + 3, 1}}};
    StoredMessage *message = message_new({.is_long = true, .total = 2}, parts);
    array_append(&message_array, message);
    EXPECT_NE(reply_of(handle_get_message, R"({"index":1})").find("\"message\":[97]"), std::string::npos);
}

TEST_F(MessageStore, AListingFitsIntoABusMessage)
{
    for (int i = 0; i < 1000; i++)
        add({.text = std::string(static_cast<size_t>(100 + i % 60), 'x'), .sender = std::to_string(i)});
    struct blob_buf reply = {};
    blob_buf_init(&reply, 0);
    ASSERT_EQ(list_messages(&reply), 0);
    size_t size = blob_pad_len(reply.head);
    EXPECT_LE(size, (1u << 20) - 200);
    EXPECT_GT(size, (1u << 20) - 4000) << "as many as fit";
    char *json = blobmsg_format_json(reply.head, true);
    std::string text = json;
    free(json);
    EXPECT_TRUE(text.ends_with("]}],\"truncated\":true}")) << text.substr(text.size() - 60);
    EXPECT_NE(text.find("{\"index\":1000,"), std::string::npos) << "the newest ones";
    EXPECT_EQ(text.find("{\"index\":1,"), std::string::npos);
    // The room was reckoned exactly: a second listing into the same memory does not grow it.
    int room = reply.buflen;
    for (int i = 0; i < 3; i++) {
        blob_buf_init(&reply, 0);
        list_messages(&reply);
        EXPECT_EQ(reply.buflen, room);
    }
    EXPECT_EQ(log_count("are left out", LOG_ERR), 1);
    blob_buf_free(&reply);

    std::vector<uint8_t> content(LONGEST_CONTENT);
    std::vector<MessagePart> parts;
    for (unsigned i = 1; i <= 2; i++)
        parts.push_back({static_cast<uint8_t>(i), content});
    delete_all_messages();
    array_append(&message_array, message_new({.is_long = true, .total = 2}, parts));
    EXPECT_EQ(reply_of(handle_get_message, R"({"index":1})"), R"({"result":-1})");
    EXPECT_EQ(reply_of(handle_get_all_messages), R"({"messages":[],"truncated":true,"result":0})");
}

TEST_F(MessageStore, Marking)
{
    fill(3);
    EXPECT_EQ(reply_of(handle_read_message, R"({"index":2})"), R"({"result":0})");
    int calls = fake_files.calls;
    EXPECT_GT(calls, 0);
    EXPECT_EQ(reply_of(handle_read_message, R"({"index":2})"), R"({"result":0})");
    EXPECT_EQ(reply_of(handle_read_message, R"({"index":4})"), R"({"result":-1})");
    EXPECT_EQ(reply_of(handle_read_messages, R"({"index_list":[]})"), R"({"result":0})");
    EXPECT_EQ(reply_of(handle_read_messages, R"({"index_list":["1",2]})"), R"({"result":0})");
    EXPECT_EQ(fake_files.calls, calls) << "nothing changed, nothing is written";
    EXPECT_EQ(reply_of(handle_read_messages, R"({"index_list":[99,1,"3",true]})"), R"({"result":-1})");
    EXPECT_EQ(reply_of(handle_read_messages, R"({"index_list":1})"), "status 2");
    EXPECT_EQ(on_disk(), (Lines{"1 read m", "2 read m", "3 m"}));
}

TEST_F(MessageStore, Deleting)
{
    const char *const done = R"({"result":0})";
    const Lines all = {"1 m", "2 m", "3 m", "4 m", "5 m"};
    struct Row {
        Handler handler;
        const char *arguments, *reply;
        Lines left;
        bool saves;
    } rows[] = {
        {handle_delete_message, R"({"index":2})", done, {"1 m", "3 m", "4 m", "5 m"}, true},
        {handle_delete_message, R"({"index":6})", done, all, false},
        {handle_delete_messages, R"({"index_list":[2,5,3]})", done, {"1 m", "4 m"}, true},
        {handle_delete_messages, R"({"index_list":[2,2]})", done, {"1 m", "4 m", "5 m"}, true},
        {handle_delete_messages,
         R"({"index_list":[-2147483648,2147483647,"x",1]})",
         done,
         {"2 m", "3 m", "4 m", "5 m"},
         true},
        {handle_delete_messages, R"({"index_list":["1",4000000000]})", done, all, false},
        {handle_delete_messages, R"({"index_list":{"a":1}})", "status 2", all, false},
        {handle_delete_all_messages, "{}", done, {}, true},
    };
    for (const Row &row : rows) {
        SetUp();
        fill(5);
        std::string before = fake_files.content(MESSAGE_FILE);
        EXPECT_EQ(reply_of(row.handler, row.arguments), row.reply) << row.arguments;
        EXPECT_EQ(fake_files.content(MESSAGE_FILE) != before, row.saves) << row.arguments;
        EXPECT_EQ(stored(), row.left) << row.arguments;
        EXPECT_EQ(on_disk(), row.left) << row.arguments << " on the disk";
    }
}

TEST_F(MessageStore, ShutdownSavesAndFrees)
{
    add({.sender = "1"});
    save_and_free_messages();
    EXPECT_EQ(add({}), AddResult::refused);
    EXPECT_EQ(save_messages(MESSAGE_FILE), -1);
    EXPECT_FALSE(messages_on_disk()) << "what comes now stays on the SIM";
    EXPECT_EQ(on_disk(), (Lines{"1 text"}));
}

TEST_F(MessageStore, MessagesArriveWhileAClientListsAndDeletes)
{
    constexpr int MESSAGES = 400;
    std::atomic<bool> done{false};
    std::thread modem([&] {
        for (int i = 0; i < MESSAGES; i++) {
            for (int index : {2, 1})
                add({.text = "part", .sender = std::to_string(i), .index = index, .total = 2});
            save_messages(MESSAGE_FILE);
            (void)messages_on_disk();
        }
        done = true;
    });
    size_t deleted = 0;
    while (!done) {
        std::string listing = reply_of(handle_get_all_messages);
        EXPECT_TRUE(listing.ends_with("\"result\":0}"));
        reply_of(handle_read_message, R"({"index":1})");
        bool there = reply_of(handle_get_message, R"({"index":3})") != R"({"result":-1})";
        if (there)
            reply_of(handle_delete_message, R"({"index":3})");
        deleted += there;
    }
    modem.join();
    // A message that was deleted between its parts comes back with the second one.
    size_t left = stored().size();
    EXPECT_GE(left + deleted, static_cast<size_t>(MESSAGES));
    EXPECT_EQ(on_disk().size(), left);
}
