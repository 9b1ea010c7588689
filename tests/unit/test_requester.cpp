#include "requester.h"

#include <cstring>

#include "config.h"
#include "fake_clock.h"
#include "fake_port.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "indications.h"
#include "link.h"
#include "message_index.h"
#include "modem_init.h"
#include "modem_test.h"
#include "queues.h"
#include "resp_processor.h"
#include "waiting.h"

// What the requester needs of the units that it does not test: the messages, the response processor, the
// initialisation.
std::atomic<uint8_t> g_sms_sweep{0};
std::atomic<uint8_t> ip_family_updated{0};
std::atomic<int32_t> g_ip_family{-1};
static std::vector<int32_t> fetched;
static int routines, listings, listings_due;
static int modem_runs, modem_result, pre_execute_runs, pre_execute_result;

MessageFetch message_fetch_start()
{
    return {};
}

bool next_announced(int32_t *place, uint32_t wait_ms, const uint32_t *since)
{
    void *element =
        wait_ms ? pool_queue_pop_for(&incomming_sms_queue, wait_ms, since) : pool_queue_try_pop(&incomming_sms_queue);
    if (!element)
        return false;
    memcpy(place, element, sizeof *place);
    pool_queue_release(&incomming_sms_queue, element);
    return true;
}

void fetch_announced(MessageFetch *, int32_t place)
{
    fetched.push_back(place);
}

bool listing_is_due(const MessageFetch *)
{
    return listings_due > 0;
}

void fetch_listed(MessageFetch *)
{
    listings += listings_due > 0;
    listings_due -= listings_due > 0;
}

void fetch_routine(MessageFetch *)
{
    routines++;
}

int set_modem()
{
    modem_runs++;
    EXPECT_EQ(t_requester_ready.load(), 0);
    return modem_result;
}

int handle_pre_execute_cmds()
{
    pre_execute_runs++;
    return pre_execute_result;
}

class Requester : public ModemTest<fake_shell, fake_port, fake_clock, fake_wanmd> {
protected:
    void SetUp() override
    {
        fetched.clear();
        routines = listings = listings_due = 0;
        modem_runs = modem_result = pre_execute_runs = pre_execute_result = 0;
        settings_g.requester_interval_s = 5;
        for (auto *flag : {&g_connecting, &ip_family_updated, &g_scanning, &t_requester_ready, &g_sms_sweep})
            flag->store(0);
        for (auto *flag : {&running, &t_processor_ready, &t_listener_ready, &t_sender_ready})
            flag->store(1);
        g_ip_family.store(-1);
        pool_queue_init(&incomming_sms_queue, sizeof(int32_t), 127);
        state = requester_start();
    }
    void TearDown() override
    {
        pool_queue_destroy(&incomming_sms_queue);
    }

    static void announce(int32_t index)
    {
        void *element = pool_queue_try_alloc(&incomming_sms_queue);
        memcpy(element, &index, sizeof index);
        pool_queue_push(&incomming_sms_queue, element);
    }

    RequesterState state;
};

TEST_F(Requester, TheExpectedModemIsInitialised)
{
    const Answer busy = "\r\n+CME ERROR: 14\r\n", known = ok_answer({"+CGMI: \"Fibocom Wireless Inc.\""});
    struct {
        std::vector<Answer> answers; // of a killed daemon's command, or during a scan
        int result;
    } rows[] = {{{std::nullopt, "\r\n+CMS ERROR: 321\r\n", known}, -1},
                {{busy, busy, std::nullopt, busy, busy, known}, 0}};
    for (const auto &row : rows) {
        TearDown();
        SetUp();
        clear_log();
        running.store(1);
        fake_link.reset();
        fake_link.answer_in_turn(row.answers);
        modem_result = row.result;
        fake_clock.on_sleep = [](uint32_t) { running.store(modem_runs == 0); };
        g_connecting.store(1); // the first pass sleeps, and is the last
        requester(nullptr);
        EXPECT_EQ(Strings(fake_link.sent.begin(), fake_link.sent.end() - 1), Strings(row.answers.size(), "AT+CGMI?\r"));
        EXPECT_EQ(fake_link.expected.front(), "+CGMI:");
        EXPECT_EQ(modem_runs, 1);
        EXPECT_EQ(log_count("set_modem failed", LOG_INFO), row.result != 0);
        EXPECT_EQ(t_requester_ready.load(), 1);
        EXPECT_EQ(g_sms_sweep.load(), 1); // messages came while nobody listened
        EXPECT_EQ(log_count("requester thread exit gracefully", LOG_INFO), 1);
        EXPECT_TRUE(fake_shell.commands.empty());
    }
}

TEST_F(Requester, AnyOtherModemStopsTheDaemon)
{
    struct {
        Answer answer;
        size_t tries;
    } rows[] = {{ok_answer({"+CGMI: \"Quectel\""}), 1}, {"\r\n+CME ERROR: 100\r\n", 3}, {std::nullopt, 3}};
    for (const auto &row : rows) {
        fake_link.reset();
        fake_shell.reset();
        fake_clock.reset();
        clear_log();
        fake_link.answer_always(row.answer);
        requester(nullptr);
        EXPECT_EQ(fake_link.sent, Strings(row.tries, "AT+CGMI?\r"));
        EXPECT_EQ(log_count("AT+CGMI? failed", LOG_INFO), row.tries == 3);
        EXPECT_EQ(log_count("Quit celmuxd\n", -1), 1);
        EXPECT_EQ(fake_shell.commands, Strings{"/etc/init.d/celmux stop &"});
        EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>{1000});
    }
    EXPECT_EQ(modem_runs + t_requester_ready.load(), 0);
}

TEST_F(Requester, AStopBeforeTheModemIsKnownStartsNothing)
{
    running.store(0);
    t_sender_ready.store(0);
    requester(nullptr);
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_TRUE(fake_shell.commands.empty());
    EXPECT_EQ(log_count("requester thread exit gracefully", LOG_INFO), 1);
}

TEST_F(Requester, RoutineRunsAtOnceAndThenAtEveryInterval)
{
    pre_execute_result = -1;
    const int64_t start = fake_clock.now_ms;
    while (fake_clock.now_ms <= start + 20000) {
        pre_execute_result = fake_clock.now_ms < start + 8000 ? -1 : 0;
        requester_pass(&state);
    }
    EXPECT_EQ(log_count("Doing routine", LOG_INFO), 4); // at 0, 5, 10 and 15 s, each time a little later than due
    EXPECT_EQ(pre_execute_runs, 3);                     // until it succeeds
    settings_g.requester_interval_s = 0;
    clear_log();
    const int64_t then = fake_clock.now_ms;
    for (int i = 0; i < 10; i++)
        requester_pass(&state);
    EXPECT_GE(fake_clock.now_ms, then + 1000); // never spins
}

TEST_F(Requester, AddressesAreCheckedWhenTheFamilyIsSeenLate)
{
    const std::string v4 = "/tmp/ipv4config0", v6 = "/tmp/ipv6config0";
    struct {
        int32_t family;
        Strings files;
        const char *message; // null: nothing to complain about
        Strings notices;
    } rows[] = {
        {0, {v4}, nullptr, {}},
        {0, {v6}, "IPV4 ip incomplete, restarting wanmd", {"re_call"}},
        {2, {v6}, nullptr, {}},
        {2, {v4}, "IPV6 ip incomplete, restarting wanmd", {"re_call"}},
        {3, {v4, v6}, nullptr, {}},
        {3, {v6}, "IPV4V6 ip incomplete, restarting wanmd", {"re_call"}},
        {3, {v4}, "IPV4V6 ip incomplete, restarting wanmd", {"re_call"}},
        {-1, {}, "IP family incorrect", {}},
        {1, {v4, v6}, "IP family incorrect", {}},
    };
    for (int64_t seen_after_ms : {2000, 10000, 10001}) {
        for (const auto &row : rows) {
            const bool checked = seen_after_ms > 10000;
            fake_port.reset();
            fake_wanmd.reset();
            clear_log();
            for (const std::string &file : row.files)
                fake_port.contents[file] = "";
            g_ip_family.store(row.family);
            begin_connect_watch();
            EXPECT_EQ(g_connecting.load(), 1);
            fake_clock.now_ms += seen_after_ms;
            ip_family_updated.store(1);
            requester_pass(&state);
            EXPECT_EQ(g_connecting.load() + ip_family_updated.load(), 0);
            EXPECT_EQ(fake_wanmd.notices, checked ? row.notices : Strings{}) << row.family;
            EXPECT_EQ(log_count("Checking if acquire ip successfully", LOG_DEBUG), checked);
            EXPECT_EQ(log_count(row.message ? row.message : "ip"), checked) << row.family;
            EXPECT_EQ(logged().size(), checked ? 1u + (row.message != nullptr) : 0u) << row.family;
        }
    }
}

TEST_F(Requester, FamilyIsAskedForOnceInEachAttempt)
{
    announce(1);
    begin_connect_watch();
    for (int i = 0; i < 5; i++)
        requester_pass(&state);
    EXPECT_EQ(fake_link.sent, Strings(1, "AT+CGDCONT?\r"));
    EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>(5, 1000));
    EXPECT_EQ(routines, 0);
    for (bool ended : {false, true}) { // a new attempt before the first has ended, and one behind it
        ip_family_updated.store(ended);
        if (ended)
            requester_pass(&state);
        fake_link.reset();
        begin_connect_watch();
        requester_pass(&state);
        requester_pass(&state);
        EXPECT_EQ(fake_link.sent, Strings(1, "AT+CGDCONT?\r"));
    }
    EXPECT_TRUE(fetched.empty());
}

TEST_F(Requester, AnAttemptThatBeginsDuringTheCheckIsWatched)
{
    g_ip_family.store(0);
    begin_connect_watch();
    fake_clock.now_ms += 11000;
    ip_family_updated.store(1);
    fake_wanmd.on_notice = [](const std::string &) { begin_connect_watch(); };
    requester_pass(&state);
    EXPECT_EQ(g_connecting.load(), 1);
    requester_pass(&state);
    EXPECT_EQ(fake_link.sent, Strings{"AT+CGDCONT?\r"});
}

TEST_F(Requester, AContextThatIsNeverReportedIsNotWaitedForForEver)
{
    begin_connect_watch();
    fake_link.enqueue_result = -1;
    int passes = 0;
    for (; g_connecting.load() && passes < 1000; passes++)
        requester_pass(&state);
    EXPECT_LT(passes, 1000);
    EXPECT_EQ(log_count("no longer watched", LOG_ERR), 1);
    announce(3);
    requester_pass(&state);
    EXPECT_EQ(fetched, std::vector<int32_t>{3});
}

TEST_F(Requester, MessagesAreTakenBetweenScans)
{
    announce(1);
    announce(2);
    g_scanning.store(1);
    requester_pass(&state);
    EXPECT_TRUE(fetched.empty());
    g_scanning.store(0);
    requester_pass(&state);
    EXPECT_EQ(fetched, std::vector<int32_t>{1});
    EXPECT_EQ(listings, 0) << "the announced ones come first";
    requester_pass(&state);
    EXPECT_EQ(fetched, (std::vector<int32_t>{1, 2}));
    const int64_t then = fake_clock.now_ms;
    listings_due = 3;
    for (int i = 0; i < 3; i++)
        requester_pass(&state);
    EXPECT_EQ(listings, 3);
    EXPECT_EQ(fake_clock.now_ms, then + 5001 - 100) << "waits for the next routine when nothing is due";
    EXPECT_EQ(routines, log_count("Doing routine"));
}
