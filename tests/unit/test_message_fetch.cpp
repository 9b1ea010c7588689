#include "message_fetch.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <syslog.h>

#include "captured_log.h"
#include "config.h"
#include "fake_clock.h"
#include "fake_files.h"
#include "fake_modem_link.h"
#include "link.h"
#include "message_index.h"
#include "message_unreadable.h"
#include "queues.h"
#include "stored_messages.h"
#include "uci_access.h"
#include "waiting.h"

using Lines = std::vector<std::string>;
using Places = std::vector<int>;

// The response processor is not there: no answer passes by it.
std::atomic<uint8_t> g_sms_sweep{0};
void sms_index_done(int32_t) {}

static std::string hex(const std::string &bytes)
{
    std::string text;
    for (unsigned char byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

static const std::string CENTRE = "0891947122575555F0";

static std::string deliver(const std::string &text)
{
    return CENTRE + "040C91947110325476000442305190623540" + hex(std::string(1, static_cast<char>(text.size())) + text);
}

static const std::string REPORT = CENTRE + "06400C91947110325476423051906235404230519062354000";
static const std::string SUBMIT = CENTRE + "01000C919471103254760004024869";

struct Slot {
    int status;
    std::string pdu;
    int damaged_reads = 0; // so many reads lose a byte on the line
    int length_error = 0;
};

class MessageFetchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_link.reset();
        fake_files.reset();
        fake_clock.reset();
        clear_log();
        forget_store();
        start_message_store();
        save_messages(MESSAGE_FILE);
        fake_files.calls = 0;
        settings_g.requester_interval_s = 5;
        running.store(1);
        g_scanning.store(0);
        g_sms_sweep.store(1);
        static const bool queue_made = pool_queue_init(&incomming_sms_queue, sizeof(int32_t), 127) == 0;
        ASSERT_TRUE(queue_made);
        std::filesystem::create_directories(folder + "/saved");
        std::filesystem::remove(folder + "/saved/modem");
        std::ofstream(folder + "/modem") << "config state 'state'\n\toption message_unread '0'\n";
        static const std::string saved = folder + "/saved";
        uci_access_set_folders(folder.c_str(), saved.c_str());
        sim.clear();
        text_mode = silent = deaf_to_deletion = keeps_all = false;
        stray.clear();
        next_place = 0;
        fake_link.answer = [this](const std::string &command) { return modem(command); };
        fetch = message_fetch_start();
    }
    void TearDown() override
    {
        fetch_routine(&fetch); // what a test let fail is over
        forget_store();
    }

    std::string entry(const std::string &header, int place, Slot &slot)
    {
        std::string pdu = slot.pdu;
        int octets = static_cast<int>(pdu.size() / 2) - static_cast<int>(CENTRE.size() / 2) + slot.length_error;
        if (slot.damaged_reads > 0 && header == "+CMGR: ") {
            slot.damaged_reads--;
            pdu.erase(40, 1);
        }
        static const char *const names[] = {"REC UNREAD", "REC READ", "STO UNSENT", "STO SENT"};
        std::string place_text = header == "+CMGL: " ? std::to_string(place) + "," : "";
        if (text_mode)
            return header + place_text + "\"" + names[slot.status] +
                   "\",\"+49170\",,\"24/03/15\"\r\nERROR 7 in pump\r\n";
        return header + place_text + std::to_string(slot.status) + ",," + std::to_string(octets) + "\r\n" + pdu +
               "\r\n";
    }
    FakeLink::Answer modem(const std::string &command)
    {
        static const std::string OK = "\r\nOK\r\n";
        int place = atoi(command.c_str() + 8);
        if (silent)
            return std::nullopt;
        if (command == "AT+CMGF?\r")
            return ok_answer({"+CMGF: " + std::to_string(text_mode)});
        if (command.starts_with("AT+CMGF=")) {
            text_mode = place;
            return OK;
        }
        if (command.starts_with("AT+CMGR="))
            return sim.contains(place) ? "\r\n" + entry("+CMGR: ", place, sim[place]) + OK : "\r\n+CMS ERROR: 321\r\n";
        if (command == "AT+CMGL=4\r") {
            std::string all = "\r\n";
            for (auto &[index, slot] : sim)
                all += entry("+CMGL: ", index, slot);
            return text_mode ? "\r\n+CMS ERROR: 302\r\n" : all + stray + OK;
        }
        if (deaf_to_deletion)
            return std::nullopt;
        EXPECT_TRUE(command.starts_with("AT+CMGD=")) << command;
        if (!keeps_all)
            sim.erase(place);
        if (place == next_place) {
            next_place = 0;
            sim[place] = {0, deliver("next")}; // the network waited for room
            announce(place);
        }
        return OK;
    }

    void announce(int32_t place)
    {
        void *element = pool_queue_try_alloc(&incomming_sms_queue);
        memcpy(element, &place, sizeof place);
        pool_queue_push(&incomming_sms_queue, element);
    }
    // So many passes of the requester, each a routine further.
    void pass(int routines = 1)
    {
        for (int i = 0; i < routines; i++) {
            fetch_routine(&fetch);
            int32_t place;
            while (next_announced(&place, 0))
                fetch_announced(&fetch, place);
            for (int again = 0; again < 20 && listing_is_due(&fetch); again++)
                fetch_listed(&fetch);
            fake_clock.now_ms += 5001;
        }
    }
    Places left() const
    {
        Places places;
        for (const auto &[place, slot] : sim)
            places.push_back(place);
        return places;
    }
    static Lines texts()
    {
        Lines lines;
        for (const std::string &line : stored())
            lines.push_back(line.substr(line.find(' ') + 1));
        return lines;
    }
    static std::string pending_changes()
    {
        std::ifstream file(folder + "/saved/modem");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static inline const std::string folder = [] {
        char name[] = "/tmp/test_message_fetch.XXXXXX";
        return std::string(mkdtemp(name));
    }();
    std::map<int, Slot> sim;
    bool text_mode, silent, deaf_to_deletion;
    bool keeps_all;    // the modem says that it deletes, and does not
    std::string stray; // what it says behind a listing
    int next_place;    // gets another message when it is cleared
    MessageFetch fetch;
};

TEST_F(MessageFetchTest, WhatTheSimHolds)
{
    const std::string a = deliver("a"), b = deliver("b");
    struct Row {
        const char *what;
        std::map<int, Slot> sim;
        Lines stored;
        Places left;
        const char *line;
    } rows[] = {
        {"unread and read ones", {{1, {0, a}}, {2, {1, b}}}, {"a", "b"}, {}, ""},
        {"own ones",
         {{1, {2, SUBMIT}}, {2, {3, SUBMIT}}, {3, {3, a}}, {4, {0, SUBMIT}}, {5, {0, b}}},
         {"b"},
         {1, 2, 3, 4},
         ""},
        {"a status report", {{1, {0, REPORT}}}, {}, {}, "status report in sms 1, taken off the SIM"},
        {"damaged twice", {{1, {0, a, 2}}, {2, {0, b}}}, {"a", "b"}, {}, ""},
        {"damaged always", {{1, {0, a, 9}}, {2, {0, b}}}, {"b"}, {}, "sms 1 is unreadable, kept in /data/in_messages"},
        {"a modem that counts otherwise", {{1, {0, a, 0, 9}}}, {"a"}, {}, ""},
        {"nothing in the place", {{1, {0, "", 0, 9}}}, {}, {1}, ""},
        {"twice the same", {{1, {0, a}}, {2, {0, a}}}, {"a"}, {}, ""},
    };
    for (bool announced : {true, false}) {
        for (bool text : {false, true}) {
            for (const Row &row : rows) {
                SetUp();
                sim = row.sim;
                text_mode = text;
                g_sms_sweep.store(!announced);
                for (const auto &[place, slot] : row.sim) {
                    if (announced)
                        announce(place);
                }
                pass();
                EXPECT_EQ(texts(), row.stored) << row.what;
                EXPECT_EQ(left(), row.left) << row.what;
                EXPECT_EQ(text_mode, text) << "the mode is the client's";
                EXPECT_EQ(log_count(row.line) > 0, *row.line != '\0' || !logged().empty()) << row.what;
                EXPECT_EQ(log_count("messages wait"), 0) << row.what;
                EXPECT_EQ(pending_changes(), row.stored.empty() ? "" : "modem.state.message_unread='1'\n") << row.what;
            }
        }
    }
}

TEST_F(MessageFetchTest, TheUnreadMarkIsSetWhenItChanges)
{
    for (int round = 0; round < 3; round++) {
        for (int place = 1; place <= 20; place++) {
            sim[place] = {0, deliver(std::to_string(100 * round + place))};
            announce(place);
        }
        pass();
    }
    EXPECT_EQ(texts().size(), 60u);
    EXPECT_EQ(pending_changes(), "modem.state.message_unread='1'\n") << "once";
    EXPECT_LT(fake_files.calls, 60) << "several messages share a save of three operations";
    EXPECT_EQ(sim.size(), 0u);
}

TEST_F(MessageFetchTest, WhatIsUnreadableIsKept)
{
    sim[7] = {1, deliver("a"), 99};
    fake_files.no_folder = true; // and no message before that would have it made
    pass();
    std::string damaged = deliver("a").erase(40, 1);
    EXPECT_EQ(fake_files.content(UNREADABLE_FILE), "7 1 20 " + damaged + "\n");
    const std::string old_line = "1 0 9 " + std::string(1000, 'A') + "\n";
    std::string old;
    for (int i = 0; i < 65; i++)
        old += old_line;
    fake_files.put(UNREADABLE_FILE, old);
    sim[7] = {1, deliver("a"), 99};
    g_sms_sweep.store(1);
    pass();
    std::string kept = fake_files.content(UNREADABLE_FILE);
    EXPECT_LE(kept.size(), 65536u);
    EXPECT_GT(kept.size(), 63000u);
    EXPECT_TRUE(kept.starts_with("1 0 9 ") && kept.ends_with("\n7 1 20 " + damaged + "\n"));
    EXPECT_EQ(left(), Places{});
}

TEST_F(MessageFetchTest, AFullDisk)
{
    for (int place = 1; place <= 4; place++)
        sim[place] = {0, deliver("m" + std::to_string(place))};
    fake_files.fail_at = 1;
    fake_files.cut = true;
    pass(5);
    EXPECT_EQ(texts().size(), 4u);
    EXPECT_EQ(left(), (Places{1, 2, 3, 4}));
    int32_t second = 2;
    delete_messages(&second, 1);
    pass(20);
    EXPECT_EQ(texts(), (Lines{"m1", "m3", "m4"}));
    EXPECT_EQ(left(), (Places{1, 3, 4})) << "what a client deleted is wanted nowhere";
    EXPECT_EQ(log_count("messages wait: the message file cannot be written", LOG_ERR), 1);
    EXPECT_EQ(log_count("file failed", -1), 1);
    fake_files.fail_at = 0;
    sim[2] = {0, deliver("m5")};
    announce(2);
    pass(2);
    EXPECT_EQ(left(), Places{});
    EXPECT_EQ(texts(), (Lines{"m1", "m3", "m4", "m5"}));
    EXPECT_EQ(log_count("no messages wait any more", LOG_ERR), 1);
    size_t commands = fake_link.sent.size();
    pass(100);
    EXPECT_EQ(fake_link.sent.size(), commands);
}

TEST_F(MessageFetchTest, AFullStore)
{
    for (uint32_t i = 0; i < MOST_MESSAGES; i++)
        ASSERT_EQ(array_append(&message_array, message_new({}, std::vector<MessagePart>(1))), 0);
    sim[1] = {0, deliver("a")};
    announce(1);
    pass(5);
    EXPECT_EQ(left(), Places{1});
    EXPECT_EQ(log_count("messages wait: the store takes no more", LOG_ERR), 1);
    EXPECT_EQ(log_count("Append failed", LOG_ERR), 1);
    delete_all_messages();
    pass();
    EXPECT_EQ(left(), Places{});
    EXPECT_EQ(texts(), Lines{"a"});
}

TEST_F(MessageFetchTest, AModemThatDoesNotListIsAskedLessAndLess)
{
    constexpr int HOUR = 720; // routines
    silent = true;
    pass(HOUR);
    size_t asked = fake_link.sent.size();
    EXPECT_GT(asked, 12u) << "every five minutes at last";
    EXPECT_LT(asked, 25u);
    EXPECT_EQ(log_count("messages wait: the modem does not list them", LOG_ERR), 1);
    silent = false;
    sim[3] = {0, deliver("a")};
    list_messages_at_once(); // as "+SIM READY" does
    pass();
    EXPECT_EQ(texts(), Lines{"a"});
    EXPECT_EQ(log_count("no messages wait any more", LOG_ERR), 1);
    fake_link.reset();
    fake_link.answer_always("\r\n+CMS ERROR: 310\r\n");
    list_messages_at_once();
    pass(10);
    EXPECT_EQ(fake_link.sent, Lines{"AT+CMGL=4\r"}) << "no SIM";
    EXPECT_EQ(fake_link.timeouts.front(), 10000u);
}

TEST_F(MessageFetchTest, AListingThatNeverEndsIsAskedForLessAndLess)
{
    for (bool lies : {true, false}) {
        SetUp();
        keeps_all = lies;
        stray = lies ? "" : "00112233445566\r\n";
        sim[1] = {0, deliver("a")};
        pass(720);
        EXPECT_EQ(texts(), Lines{"a"});
        EXPECT_LT(std::count(fake_link.sent.begin(), fake_link.sent.end(), "AT+CMGL=4\r"), 60);
        EXPECT_EQ(log_count("messages wait: the modem does not let them go", LOG_ERR), 1);
        keeps_all = false;
        stray.clear();
        pass(61);
        EXPECT_EQ(left(), Places{});
        EXPECT_EQ(log_count("no messages wait any more", LOG_ERR), 1);
    }
}

TEST_F(MessageFetchTest, ADeletionWithoutAnAnswer)
{
    sim[1] = {0, deliver("a")};
    sim[2] = {0, deliver("b")};
    deaf_to_deletion = true;
    pass();
    EXPECT_EQ(texts(), (Lines{"a", "b"}));
    int32_t first = 1;
    delete_messages(&first, 1);
    deaf_to_deletion = false;
    sim[2] = {0, deliver("c")}; // it was carried out, and the next message came
    pass(3);
    EXPECT_EQ(left(), Places{});
    EXPECT_EQ(texts(), (Lines{"b", "c"})) << "the deleted one does not come back";
}

TEST_F(MessageFetchTest, APlaceThatIsAnnouncedTwiceIsClearedOnce)
{
    g_sms_sweep.store(0);
    sim[1] = {0, deliver("a")};
    sim[2] = {0, deliver("b")};
    next_place = 1;
    for (int place : {1, 2, 1})
        announce(place);
    pass();
    EXPECT_EQ(texts(), (Lines{"a", "b", "next"}));
    EXPECT_EQ(left(), Places{});
}

TEST_F(MessageFetchTest, AnnouncedPlacesThatCannotBeRead)
{
    g_sms_sweep.store(0);
    announce(5);
    pass();
    EXPECT_EQ(fake_link.sent, Lines(3, "AT+CMGR=5\r")) << "there is no message";
    EXPECT_EQ(log_count("read sms 5 failed\n", LOG_ERR), 1);
    EXPECT_EQ(std::count(fake_clock.sleeps.begin(), fake_clock.sleeps.end(), 100u), 3);
    sim[5] = {0, deliver("a")};
    silent = true;
    announce(5);
    pass();
    silent = false;
    pass(3);
    EXPECT_EQ(texts(), Lines{"a"}) << "it is listed later";
}

// The power is cut at every operation of the disk: what has left the SIM is on the disk.
TEST_F(MessageFetchTest, APowerCutAnywhere)
{
    for (int cut = 1; cut < 40; cut++) {
        SetUp();
        for (int place = 1; place <= 10; place++)
            sim[place] = {0, deliver("<" + std::to_string(place) + ">"), place == 4 ? 99 : 0};
        fake_files.fail_at = cut;
        fake_files.cut = true;
        fetch_listed(&fetch);
        Places places = left();
        for (const FakeFiles::Disk &disk : fake_files.after_cut()) {
            fake_files.restore(disk);
            forget_store();
            start_message_store();
            Lines all = texts();
            for (int place = 1; place <= 10; place++) {
                bool on_sim = std::find(places.begin(), places.end(), place) != places.end();
                std::string text = "<" + std::to_string(place) + ">";
                bool on_disk = place == 4 ? fake_files.content(UNREADABLE_FILE).starts_with("4 0 ")
                                          : std::count(all.begin(), all.end(), text) == 1;
                EXPECT_TRUE(on_sim || on_disk) << place << " at " << cut;
            }
        }
    }
}
