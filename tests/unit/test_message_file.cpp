#include "message_file.h"

#include <set>

#include "captured_log.h"
#include "fake_files.h"
#include "stored_messages.h"

using std::string_literals::operator""s;
using Lines = std::vector<std::string>;

static const std::string PATH = "/data/in_messages";
static const std::string MAGIC = "\xAB\xCD\xEF\x00"s;
static const std::string SMSC = "4917227555550";

class MessageFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_files.reset();
        load_messages("/none"); // what failed before is forgotten
        forget_store();
        clear_log();
    }
    void TearDown() override
    {
        forget_store();
    }

    static int load(const std::string &content)
    {
        forget_store();
        fake_files.put(PATH, content);
        return load_messages(PATH.c_str());
    }
    static int save()
    {
        return save_messages(PATH.c_str());
    }
    static std::string file()
    {
        return fake_files.content(PATH);
    }
    // What the messages are after a restart.
    static Lines restarted()
    {
        const std::string saved = file();
        EXPECT_EQ(load(saved), 0);
        return stored();
    }
    // The bytes that a store of the present content gives when nothing of it is on the disk yet.
    static std::string rewritten()
    {
        static int count;
        std::string path = "/other" + std::to_string(++count);
        MessageArrayLock lock;
        MessageFileState state = message_array.file;
        message_array.file = {};
        EXPECT_EQ(write_message_file(path.c_str(), &message_array), 0);
        message_array.file = state;
        return fake_files.content(path);
    }
};

// Two messages as docs/message-file.md describes them, written by hand.
static std::string joined(std::initializer_list<std::string> fields)
{
    std::string bytes;
    for (const std::string &field : fields)
        bytes += field;
    return bytes;
}

static const std::string SINGLE_RECORD = joined({"\xFF", "24-03-15\0"s, "09:26:53\0"s, "\1\0\0"s, "\0\0"s, "\1\0\1\0"s,
                                                 "\5\0"s, "\4\0"s, "1722\0"s, "491\0"s, "\1\0\2\0"s, "Hi"});
static const std::string LONG_RECORD =
    joined({"\2", "24-03-16\0"s, "10:00:00\0"s, "\0\1\0"s, "\2\1", "\0\3\2\0"s, "\1\0"s, "\2\0"s, "\0"s, "7\0"s,
            "\2\0\2\0"s, "\0B"s, "\1\0\1\0"s, "\xFF"});

static std::string replaced(std::string text, const std::string &old, const std::string &with)
{
    return old.empty() ? text : text.replace(text.find(old), old.size(), with);
}

// The two messages as JSON, with a text of them replaced.
static std::string object(const std::string &old = "", const std::string &with = "")
{
    return replaced(R"({"alphabet":-1,"sender":"491","date":"24-03-15","time":"09:26:53","read":true,"smsc":"1722",)"
                    R"("from_toa":"international","message":[72, 105]})",
                    old, with);
}

static std::string long_object(const std::string &old = "", const std::string &with = "")
{
    return replaced(R"({"alphabet":2,"sender":"7","date":"24-03-16","time":"10:00:00","read":false,"smsc":"",)"
                    R"("from_toa":"national","concatenation_info":{"csms_ref":258,"total":3},"parts":[)"
                    R"({"index":2,"content":[0,66]},{"index":1,"content":[255]}],"all_parts_present":false})",
                    old, with);
}

// The second part of that long message.
static const Incoming LONG_PART = [] {
    Incoming part = {
        .text = "\0B"s, .sender = "7", .index = 2, .total = 3, .ref = 258, .date = "24-03-16", .time = "10:00:00"};
    part.toa = "national";
    part.alphabet = 2;
    part.smsc = "";
    return part;
}();

TEST_F(MessageFile, RecordsAreTheBytesOfTheFormat)
{
    load_messages(PATH.c_str());
    add({.text = "Hi", .sender = "491", .smsc = "1722"});
    int32_t first = 1;
    mark_messages_read(&first, 1);
    Incoming part = LONG_PART;
    part.date = "24-03-16xyz";
    add(part);
    part.text = "\xFF";
    part.index = 1;
    add(part);
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(file(), MAGIC + SINGLE_RECORD + LONG_RECORD);
    EXPECT_TRUE(messages_on_disk());

    EXPECT_EQ(restarted(), (Lines{"491 read Hi", "7 2=\0B 1=\xFF"s}));
    EXPECT_TRUE(message_array.file.current);
    EXPECT_EQ(rewritten(), file());
}

TEST_F(MessageFile, AppendingGivesTheBytesOfARewrite)
{
    load_messages(PATH.c_str());
    save();
    std::set<uint64_t> inodes;
    for (int i = 0; i < 30; i++) {
        int total = i % 3 == 2 ? 2 : 0;
        std::string text(static_cast<size_t>(i * 7 % 161), 'x');
        add({.text = text, .index = total / 2, .total = total, .ref = i, .time = std::to_string(i)});
        if (total) // the second part is joined before the first one was saved
            add({.text = "end", .index = 2, .total = total, .ref = i});
        if (i % 4 == 3)
            continue; // two at once
        ASSERT_EQ(save(), 0);
        inodes.insert(message_array.file.identity.inode);
    }
    EXPECT_EQ(inodes.size(), 1u) << "the file was replaced";
    EXPECT_EQ(rewritten(), file());
    EXPECT_EQ(restarted().size(), 30u);
}

TEST_F(MessageFile, NothingToSaveTouchesNothing)
{
    load(MAGIC + SINGLE_RECORD);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(fake_files.calls, 1) << "the open that looks whether the file is still there";
    fake_files.put(PATH, "somebody else's"); // replaced behind our back
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(file(), MAGIC + SINGLE_RECORD);
}

TEST_F(MessageFile, AFileCutAnywhereLosesOnlyTheRecordThatWasCut)
{
    std::string whole = MAGIC + SINGLE_RECORD + LONG_RECORD + SINGLE_RECORD;
    size_t ends[] = {MAGIC.size() + SINGLE_RECORD.size(), whole.size() - SINGLE_RECORD.size(), whole.size()};
    for (size_t size = MAGIC.size(); size <= whole.size(); size++) {
        ASSERT_EQ(load(whole.substr(0, size)), 0);
        unsigned complete = 0;
        for (size_t end : ends)
            complete += end <= size;
        ASSERT_EQ(message_array.count, complete) << size;
        add({.text = "new"});
        ASSERT_EQ(save(), 0);
        ASSERT_EQ(restarted().size(), complete + 1) << "behind a torn record at " << size;
        ASSERT_EQ(rewritten(), file());
    }
}

TEST_F(MessageFile, LoadsWhatItCanOfAnyRecordFile)
{
    std::string no_terminators = SINGLE_RECORD;
    no_terminators.replace(1, 18, "24-03-15x09:26:53y").replace(36, 1, "3").replace(40, 1, "2");
    std::string counts = SINGLE_RECORD; // a single-part message with a part count, a total and a part number of its own
    counts[26] = 9;
    counts[25] = 7;
    counts[41] = 4;
    std::string no_texts = SINGLE_RECORD.substr(0, 28) + "\0\0\0\0"s + SINGLE_RECORD.substr(41);
    std::string huge = SINGLE_RECORD;
    huge.replace(28, 4, "\xFF\xFF\xFF\xFF");
    struct Row {
        const char *what;
        std::string records;
        Lines messages;
        bool current;
    } rows[] = {
        {"magic only", "", {}, true},
        {"text without terminators", no_terminators, {"4912 read Hi"}, false},
        {"numbers that a single part has not", counts + SINGLE_RECORD, {"491 read Hi", "491 read Hi"}, false},
        {"texts of length 0", no_texts, {" read Hi"}, false},
        {"texts longer than the file", SINGLE_RECORD + huge, {"491 read Hi"}, false},
        {"a hole that a power cut left", SINGLE_RECORD + std::string(300, '\0'), {"491 read Hi"}, false},
        {"no content", SINGLE_RECORD.substr(0, 43) + "\0\0"s + LONG_RECORD, {"491 read ", "7 2=\0B 1=\xFF"s}, true},
        {"all parts there", LONG_RECORD.substr(0, 25) + "\2"s + LONG_RECORD.substr(26), {"7 2=\0B 1=\xFF +"s}, true},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(load(MAGIC + row.records), 0) << row.what;
        EXPECT_EQ(stored(), row.messages) << row.what;
        EXPECT_EQ(message_array.file.current, row.current) << row.what;
    }
}

TEST_F(MessageFile, AbsentEmptyAndUnreadableFiles)
{
    EXPECT_EQ(load_messages(PATH.c_str()), 0);
    EXPECT_EQ(log_count("message data file not exist.", -1), 1);
    EXPECT_TRUE(message_array.present);
    for (const std::string &content : {""s, MAGIC, "abcd"s}) {
        clear_log();
        EXPECT_EQ(load(content), 0);
        EXPECT_EQ(log_count("message data file empty.", -1), 1);
        EXPECT_EQ(message_array.count, 0u);
        EXPECT_EQ(message_array.file.current, content == MAGIC);
    }
    fake_files.open_error = EACCES;
    EXPECT_EQ(load(MAGIC), -1);
    EXPECT_EQ(log_count("open message data file failed: 13, Permission denied\n", -1), 1);
    EXPECT_FALSE(message_array.present);
    EXPECT_EQ(save(), -1) << "what could not be read is not overwritten";
    EXPECT_EQ(file(), MAGIC);
    EXPECT_EQ(add({}), AddResult::refused);
}

TEST_F(MessageFile, ReadErrorKeepsTheOldFile)
{
    fake_files.read_limit = 0;
    EXPECT_EQ(load(MAGIC + SINGLE_RECORD), -1);
    EXPECT_EQ(log_count("load message data file failed.", -1), 1);
    fake_files.read_limit = 16384;
    std::string many = MAGIC;
    while (many.size() < 20000)
        many += SINGLE_RECORD;
    EXPECT_EQ(load(many), 0);
    EXPECT_GT(message_array.count, 300u);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(fake_files.content(PATH + ".full"), many);
}

// A folder that is mounted after the start, a file that cannot be read at first, a file that somebody else put there.
TEST_F(MessageFile, AFileThatWasNeverLoadedIsTakenUp)
{
    const std::string other = MAGIC + SINGLE_RECORD + LONG_RECORD, long_one = "7 2=\0B 1=\xFF"s;
    const Incoming same = {.text = "Hi", .sender = "491", .smsc = "1722"};
    Incoming third = LONG_PART;
    third.text = "C";
    third.index = 3;
    third.time = "10:00:01";
    struct Row {
        const char *what;
        std::string before, after;
        std::vector<Incoming> arrived;
        Lines messages;
    } rows[] = {
        {"nothing came meanwhile", "", other, {}, {"491 read Hi", long_one}},
        {"a message came", "", other, {{.sender = "new"}}, {"491 read Hi", long_one, "new text"}},
        {"the same ones came", "", other, {same, third}, {"491 read Hi", long_one + " 3=C +"}},
        {"the store had its own file", MAGIC, other, {{.sender = "new"}}, {"491 read Hi", long_one, "new text"}},
        {"JSON appears", "", "[" + object() + "]", {same}, {"491 read Hi"}},
        {"what appears is damaged", "", "rubbish", {{.sender = "new"}}, {"new text"}},
    };
    for (bool routine : {true, false}) {
        for (const Row &row : rows) {
            SetUp();
            if (!row.before.empty())
                fake_files.put(PATH, row.before);
            load_messages(PATH.c_str());
            fake_files.put(PATH, row.after);
            for (const Incoming &in : row.arrived)
                add(in);
            EXPECT_EQ(routine ? retry_messages(PATH.c_str()) : save(), 0) << row.what;
            EXPECT_EQ(stored(), row.messages) << row.what;
            EXPECT_EQ(fake_files.has(PATH + ".damaged"), row.after == "rubbish") << row.what;
            EXPECT_EQ(restarted(), row.messages) << row.what;
        }
    }
}

TEST_F(MessageFile, WhatCannotBeReadYetIsReadLater)
{
    fake_files.open_error = EACCES;
    EXPECT_EQ(load(MAGIC + SINGLE_RECORD), -1);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(retry_messages(PATH.c_str()), -1);
    EXPECT_EQ(log_count("open message data file failed", -1), 1) << "told once";
    delete_all_messages();
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(file(), MAGIC + SINGLE_RECORD);
    fake_files.open_error = 0;
    EXPECT_EQ(retry_messages(PATH.c_str()), 0);
    EXPECT_EQ(stored(), (Lines{"491 read Hi"}));
    save_and_free_messages();
    fake_files.put(PATH, MAGIC + LONG_RECORD);
    EXPECT_EQ(retry_messages(PATH.c_str()), -1) << "the daemon stops";
    EXPECT_FALSE(message_array.present);
    forget_store();
}

// A copy is kept of every file of which something may be lost, before it is replaced.
TEST_F(MessageFile, AFlippedBitLosesNothingWithoutACopy)
{
    const std::string whole = MAGIC + SINGLE_RECORD + LONG_RECORD + SINGLE_RECORD;
    const size_t sizes[] = {SINGLE_RECORD.size(), LONG_RECORD.size(), SINGLE_RECORD.size()};
    unsigned kept = 0;
    for (size_t bit = 0; bit < whole.size() * 8; bit++) {
        std::string flipped = whole;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
        fake_files.reset();
        fake_files.put(PATH, flipped);
        forget_store();
        start_message_store();
        add({.sender = "new"});
        EXPECT_EQ(save(), 0);
        bool structure = message_array.count != 4;
        for (size_t i = 0; i < 3 && !structure; i++)
            structure = message_array.items[i]->size != sizes[i];
        if (structure) {
            EXPECT_EQ(fake_files.content(PATH + ".damaged"), flipped) << "bit " << bit;
            kept++;
        }
    }
    EXPECT_GT(kept, 100u);
}

TEST_F(MessageFile, AFileBeyondTheStoreIsKeptAside)
{
    std::string large(60000, 'x');
    std::string record = SINGLE_RECORD.substr(0, 43) + "\x60\xEA"s + large;
    std::string content = MAGIC;
    for (int i = 0; i < 150; i++)
        content += record;
    EXPECT_EQ(load(content), 0);
    EXPECT_LE(message_array.bytes, MOST_MESSAGE_BYTES);
    EXPECT_GT(message_array.bytes, MOST_MESSAGE_BYTES - 100000);
    EXPECT_EQ(add({.text = large}), AddResult::refused);
    EXPECT_EQ(save(), 0);
    EXPECT_LT(file().size(), content.size());
    EXPECT_EQ(fake_files.content(PATH + ".full"), content);
}

TEST_F(MessageFile, JsonText)
{
    const char *const failed = "failed to parse messages, file maybe corrupted, using empty data";
    const Lines none, one = {"491 read Hi"};
    const std::string complete = replaced(long_object("sent\":false", "sent\":true"), "total\":3", "total\":2");
    const struct {
        const char *what;
        std::string text;
        Lines messages;
        std::string printed;
    } rows[] = {
        {"both forms", "[" + object() + ",\n\t" + long_object() + " ]", {"491 read Hi", "7 2=\0B 1=\xFF"s}, ""},
        {"empty array", "\xEF\xBB\xBF [ ]  ", none, ""},
        {"all parts", "[" + complete + "]", {"7 2=\0B 1=\xFF +"s}, ""},
        {"text behind the array", "[" + object() + "] rest", one, ""},
        {"brackets in a text", "[" + object("\"491\"", R"("4}]\"9\\1")") + "]", {"4}]\"9\\1 read Hi"}, ""},
        {"an object instead", object(), none, "message data file not json array"},
        {"a number instead", "12345", none, "message data file not json array"},
        {"rubbish", "\x12 rubbish\x01", none, "error before: rubbish\n"},
        {"damaged magic", "\xAB\xCD\xEE\0"s + SINGLE_RECORD, none, failed},
        {"cut", "[" + object(), none, failed},
        {"cut within an object", "[" + object().substr(0, 50), none, failed},
        {"no comma", "[" + object() + object() + "]", none, failed},
        {"comma at the end", "[" + object() + ",]", none, failed},
        {"wrong bracket", "[" + object("105]", "105}") + "]", none, failed},
        {"second element broken", "[" + object() + ",{\"a\" 1}]", none, "error before:"},
        {"too deep", std::string(5000, '['), none, failed},
        {"sender of a wrong type", "[" + object() + "," + object("\"491\"", "491") + "]", one,
         "message 2 of the data file"},
        {"elements that are no objects", "[null,7,\"x\",[]," + object() + "]", one, "message 4"},
    };
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(load(row.text), 1) << row.what;
        EXPECT_EQ(stored(), row.messages) << row.what;
        EXPECT_EQ(log_count(row.printed, -1) > 0, !row.printed.empty()) << row.what;
        EXPECT_EQ(save(), 0);
        EXPECT_EQ(file().substr(0, 4), MAGIC) << row.what;
        EXPECT_EQ(restarted(), row.messages) << row.what;
    }
}

TEST_F(MessageFile, JsonElementsThatAreNoMessagesAreSkipped)
{
    for (const std::string &bad :
         {object("\"sender\":\"491\",", ""), object("true", "1"), object(",\"message\":[72, 105]", ""),
          object("105", "256"), object("105", "0.5"), object("-1", "1e9"), long_object("total\":3", "total\":0"),
          long_object("index\":2", "index\":0"), long_object("\"parts\":[", "\"parts\":7,\"x\":["),
          object("491", std::string(1u << 20, '4'))}) {
        clear_log();
        EXPECT_EQ(load("[" + bad + "," + object() + "]"), 1);
        EXPECT_EQ(stored(), Lines{"491 read Hi"}) << bad.substr(0, 300);
        EXPECT_EQ(log_count("message 1 of the data file", -1), 1) << bad.substr(0, 300);
    }
}

TEST_F(MessageFile, SkippedElementsDoNotFloodTheOutput)
{
    std::string text = "[0";
    for (int i = 0; i < 5000; i++)
        text += ",0";
    EXPECT_EQ(load(text + "]"), 1);
    EXPECT_EQ(log_count("skipped", -1), 11);
    EXPECT_EQ(log_count("5001 messages of the data file skipped", -1), 1);

    for (int i = 0; i < 250000; i++)
        text += ",0";
    EXPECT_EQ(load(text + "]"), 1) << "does not hold up the start";
    EXPECT_EQ(fake_files.content(PATH + ".full"), text + "]");
}

TEST_F(MessageFile, StartMovesTheOlderFile)
{
    const std::string legacy = LEGACY_MESSAGE_FILE;
    struct Row {
        const char *what;
        std::string file, older;
        Lines messages;
    } rows[] = {
        {"records only", MAGIC + SINGLE_RECORD, "", {"491 read Hi"}},
        {"JSON in the file itself", "[" + long_object() + "]", "", {"7 2=\0B 1=\xFF"s}},
        {"both: the older one replaces", MAGIC + SINGLE_RECORD, "[" + long_object() + "]", {"7 2=\0B 1=\xFF"s}},
        {"older one broken", MAGIC + SINGLE_RECORD, "[", {"491 read Hi"}},
        {"older one empty", MAGIC + SINGLE_RECORD, "[]", {"491 read Hi"}},
        {"older one with records", MAGIC + SINGLE_RECORD, MAGIC + LONG_RECORD, {"491 read Hi", "7 2=\0B 1=\xFF"s}},
    };
    for (const Row &row : rows) {
        SetUp();
        fake_files.put(PATH, row.file);
        if (!row.older.empty())
            fake_files.put(legacy, row.older);
        start_message_store();
        EXPECT_EQ(stored(), row.messages) << row.what;
        EXPECT_FALSE(fake_files.has(legacy)) << row.what;
        EXPECT_TRUE(row.file[0] == '[' || file().starts_with(row.file) ||
                    fake_files.content(PATH + ".replaced") == row.file)
            << row.what << ": what the file held is kept";
        EXPECT_EQ(restarted(), row.messages) << row.what;
    }
    SetUp();
    fake_files.put(legacy, "[" + object() + "]");
    fake_files.fail_at = 1;
    fake_files.cut = true;
    start_message_store();
    EXPECT_TRUE(fake_files.has(legacy)) << "not removed before its messages are saved";
    SetUp();
    fake_files.put(legacy, "[" + object() + "]");
    fake_files.open_error = EIO;
    start_message_store();
    EXPECT_TRUE(fake_files.has(legacy)) << "not removed unread";
}

// Every operation of a save fails once, and the power is cut at every operation once.
class FailingSave : public MessageFile, public ::testing::WithParamInterface<const char *> {
protected:
    static void prepare()
    {
        fake_files.reset();
        forget_store();
        load_messages(PATH.c_str());
        for (const char *sender : {"1", "2"})
            add({.text = std::string(3000, 'a'), .sender = sender});
        save();
    }
    static void change()
    {
        std::string how = GetParam();
        if (how == "append")
            add({.text = std::string(5000, 'b'), .sender = "3"});
        int32_t index = 1;
        if (how == "delete")
            delete_messages(&index, 1);
        else if (how == "mark")
            mark_messages_read(&index, 1);
        else if (how == "delete all")
            delete_all_messages();
        else
            save();
    }
};

TEST_P(FailingSave, LeavesTheOldOrTheNewFileAndIsMadeGoodByTheNextOne)
{
    prepare();
    const Lines before = stored();
    const int first = fake_files.calls;
    change();
    const Lines after = stored();
    const int last = fake_files.calls;
    ASSERT_GT(last, first + 2);
    for (bool cut : {false, true}) {
        for (int n = first + 1; n <= last; n++) {
            SCOPED_TRACE(std::string(GetParam()) + " failing at " + std::to_string(n - first) +
                         (cut ? " for good" : ""));
            prepare();
            fake_files.fail_at = n;
            fake_files.cut = cut;
            change();
            EXPECT_EQ(stored(), after) << "memory does not depend on the disk";
            const bool claimed = messages_on_disk();
            EXPECT_FALSE(cut && claimed);
            const auto disks = fake_files.after_cut();
            fake_files.fail_at = 0;
            EXPECT_EQ(save(), 0);
            EXPECT_TRUE(messages_on_disk());
            EXPECT_EQ(restarted(), after);
            for (const FakeFiles::Disk &disk : disks) {
                fake_files.restore(disk);
                forget_store();
                ASSERT_EQ(load_messages(PATH.c_str()), 0);
                EXPECT_TRUE(stored() == after || (!claimed && stored() == before));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, FailingSave, ::testing::Values("append", "mark", "delete", "delete all"));
