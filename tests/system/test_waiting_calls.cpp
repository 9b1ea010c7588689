// Calls that wait for the modem: whom they keep waiting, in which order and when they end, and what becomes of them
// when somebody goes: the caller, the modem, the broker, the daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "daemon.h"
#include "pipelined_caller.h"

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int64_t request_failed = 0x10001;

class WaitingCalls : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
        ASSERT_TRUE(daemon.wait_until_calm());
    }
    PipelinedCaller caller()
    {
        return PipelinedCaller(root.path("/var/run/ubus/ubus.sock"));
    }
    void modem(const std::string &command)
    {
        ASSERT_TRUE(daemon.modem().control(command).value("ok", false)) << command;
    }
    // How often the modem has got the command so far.
    size_t sent(const std::string &command)
    {
        size_t count = 0;
        std::string record = daemon.modem().record();
        for (size_t at = record.find(command); at != std::string::npos; at = record.find(command, at + 1))
            count++;
        return count;
    }
    bool wait_until_sent(const std::string &command, size_t times = 1)
    {
        return wait_for([&] { return sent(command) >= times; });
    }
    // A call that holds the modem until the answer comes.
    void hold_modem(PipelinedCaller &caller, int timeout_ms = 20000)
    {
        (void)caller.call("at_passthrough", {{"at", "AT+SLOW"}, {"timeout_ms", timeout_ms}});
        ASSERT_TRUE(wait_until_sent("AT+SLOW"));
    }

    PrivateRoot root;
    Daemon daemon{root};
};

std::vector<int> numbers(const std::vector<PipelinedAnswer> &answers)
{
    std::vector<int> all;
    for (const PipelinedAnswer &answer : answers)
        all.push_back(answer.call);
    return all;
}

std::vector<int64_t> results(const std::vector<PipelinedAnswer> &answers)
{
    std::vector<int64_t> all;
    for (const PipelinedAnswer &answer : answers)
        all.push_back(answer.result());
    return all;
}

} // namespace

TEST_F(WaitingCalls, LeaveAllOthersAlone)
{
    PipelinedCaller holder = caller(), other = caller();
    modem("silent 0");
    hold_modem(holder);
    auto begin = steady_clock::now();
    for (const char *method : {"get_autoconnect", "get_all_messages", "get_profile_list", "delete_all_messages"})
        EXPECT_EQ(other.ask(method).result(), 0) << method;
    EXPECT_EQ(other.ask("set_autoconnect", {{"state", 1}}).result(), 0);
    EXPECT_EQ(other.ask("add_profile", {{"ip", 0}, {"apn", "internet"}}).result(), 0);
    EXPECT_EQ(other.ask("set_network_mode", {{"mode", 7}}).status, 2) << "refused at once";
    EXPECT_EQ(other.ask("set_default_apn", {{"apn", "x"}, {"ip", 4}}).status, 2);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    EXPECT_THAT(holder.answers(1, milliseconds(0)), IsEmpty());
}

TEST_F(WaitingCalls, FailSideBySideWhileTheModemIsSilent)
{
    PipelinedCaller one = caller();
    modem("silent 0");
    EXPECT_EQ(one.ask("get_imei").result(), request_failed);
    auto begin = steady_clock::now();
    std::vector<int64_t> expected;
    for (int i = 0; i < 20; i++) {
        (void)one.call(i % 2 ? "get_imsi" : "hangup_call");
        expected.push_back(request_failed);
    }
    // Its own time-out is longer, so all the others are over while it is being tried.
    PipelinedCaller patient = caller();
    (void)patient.call("wanmd_enable");
    EXPECT_EQ(results(one.answers(20)), expected);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(6000));
    (void)one.call("get_cell_info");
    std::vector<PipelinedAnswer> answers = one.answers(1);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].result(), request_failed);
    EXPECT_EQ(answers[0].data.value("CQI", ""), "--") << "the reply is the method's own";
    EXPECT_LT(steady_clock::now() - begin, milliseconds(11000));
    modem("silent end");
    EXPECT_TRUE(wait_for([&] { return one.ask("get_imei").result() == 0; }));
}

TEST_F(WaitingCalls, ShareAnAnswerUnlessItIsOlderThanTheQuestion)
{
    PipelinedCaller first = caller();
    std::vector<PipelinedCaller> others;
    for (int i = 0; i < 10; i++)
        others.push_back(caller());
    modem("latency 300");
    size_t before = sent("AT+CGSN=1");
    (void)first.call("get_imei");
    ASSERT_TRUE(wait_until_sent("AT+CGSN=1", before + 1));
    for (PipelinedCaller &other : others)
        (void)other.call("get_imei");
    others.front().leave(); // the asker of the question that the others share
    EXPECT_EQ(results(first.answers(1)), std::vector<int64_t>{0});
    for (size_t i = 1; i < others.size(); i++) {
        std::vector<PipelinedAnswer> answers = others[i].answers(1);
        ASSERT_EQ(answers.size(), 1U);
        EXPECT_EQ(answers[0].status, 0);
        EXPECT_NE(answers[0].data.value("imei", ""), "");
    }
    EXPECT_EQ(sent("AT+CGSN=1"), before + 2) << "one that was sent already is not shared";
    size_t counts = sent("AT+CPINR");
    for (int i = 0; i < 3; i++)
        (void)first.call("get_remaining_pin_retries");
    EXPECT_EQ(first.answers(3).size(), 3U);
    EXPECT_EQ(sent("AT+CPINR"), counts + 3) << "what takes arguments is not shared";
}

TEST_F(WaitingCalls, KeepACallersOrder)
{
    PipelinedCaller stranger = caller(), one = caller();
    modem("latency 100");
    (void)stranger.call("get_model");
    (void)stranger.call("get_imei"); // what `one` asks as well, but after other calls of its own
    const char *const methods[] = {"get_imsi", "hangup_call", "get_imei", "get_ccid", "get_imei", "get_rssi"};
    for (const char *method : methods)
        (void)one.call(method);
    (void)one.call("get_autoconnect");
    EXPECT_THAT(numbers(one.answers(7)), ElementsAre(7, 1, 2, 3, 4, 5, 6)) << "the one that needs no modem overtakes";
    EXPECT_THAT(results(stranger.answers(2)), Each(0));
}

TEST_F(WaitingCalls, AreSixtyFourAtMost)
{
    PipelinedCaller one = caller();
    modem("silent 0");
    hold_modem(one, 5000);
    for (int i = 1; i < 64; i++)
        (void)one.call("hangup_call");
    PipelinedCaller late = caller();
    auto begin = steady_clock::now();
    EXPECT_EQ(late.ask("get_imei").result(), request_failed);
    EXPECT_EQ(late.ask("wanmd_disable").result(), request_failed);
    EXPECT_EQ(late.ask("at_passthrough", {{"at", "AT"}}).data,
              json({{"result", -1}, {"resp", "failure to send at command"}}));
    EXPECT_EQ(late.ask("scan_network").data["result"], -1) << "a scan would have all that wait refused";
    EXPECT_EQ(late.ask("set_sms_message_format", {{"format", 2}}).status, 2);
    EXPECT_EQ(late.ask("get_autoconnect").result(), 0);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(3000));
    modem("silent end");
    EXPECT_TRUE(wait_for([&] { return late.ask("get_imei").result() == 0; }, milliseconds(60000)));
}

TEST_F(WaitingCalls, TakeNoMoreMemoryThanIsSet)
{
    PipelinedCaller one = caller();
    modem("silent 0");
    hold_modem(one);
    const json large = {{"at", std::string(900000, 'x')}};
    int refused = 0;
    for (int i = 0; i < 4; i++) {
        (void)one.call("at_passthrough", large);
        refused += static_cast<int>(one.answers(1, milliseconds(500)).size());
    }
    EXPECT_EQ(refused, 2);
}

TEST_F(WaitingCalls, AllHaveTheirAnswerAtAStop)
{
    std::vector<PipelinedCaller> callers;
    for (int i = 0; i < 10; i++)
        callers.push_back(caller());
    modem("silent 0");
    hold_modem(callers[0]);
    const char *const methods[] = {"get_imei", "hangup_call", "wanmd_enable", "get_rssi"};
    for (size_t i = 1; i < callers.size(); i++)
        (void)callers[i].call(methods[i % 4]);
    EXPECT_EQ(callers[9].ask("get_autoconnect").result(), 0) << "the calls before it have come";
    auto begin = steady_clock::now();
    daemon.celmuxd().signal(SIGTERM);
    for (PipelinedCaller &one : callers) {
        std::vector<PipelinedAnswer> answers = one.answers(1, milliseconds(3000));
        ASSERT_EQ(answers.size(), 1U);
        EXPECT_EQ(answers[0].status, 0);
        EXPECT_TRUE(answers[0].data.is_object());
    }
    EXPECT_LT(steady_clock::now() - begin, milliseconds(1500));
    std::optional<ExitStatus> status = daemon.celmuxd().wait_exit(milliseconds(3000));
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0);
}

TEST_F(WaitingCalls, MayComeWhileTheStopWaitsForAScript)
{
    PipelinedCaller one = caller(), late = caller();
    root.write_file("/sbin/nvram", "echo > /tmp/hangs; sleep 60\n");
    (void)one.call("wanmd_disable");
    ASSERT_TRUE(wait_for([&] { return root.exists("/tmp/hangs"); }));
    daemon.celmuxd().signal(SIGTERM);
    std::this_thread::sleep_for(milliseconds(300)); // the event loop has ended
    auto begin = steady_clock::now();
    for (const char *method : {"get_autoconnect", "get_imei", "wanmd_enable"})
        (void)late.call(method);
    EXPECT_THAT(results(late.answers(3, milliseconds(3000))), ElementsAre(0, request_failed, request_failed));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
    EXPECT_EQ(one.answers(1, milliseconds(3000)).size(), 1U);
}

TEST_F(WaitingCalls, DoNotWaitForWhoeverHasLockedTheSettings)
{
    constexpr int64_t not_readable = 4;
    PipelinedCaller one = caller(), other = caller();
    int fd = open(root.path("/etc/config/modem").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(one.ask("get_autoconnect").result(), not_readable);
    EXPECT_EQ(other.ask("get_imei").result(), 0);
    (void)one.call("get_autoconnect");
    EXPECT_EQ(daemon.stop().code, 0) << "and no thread is left behind";
    close(fd);
}

TEST_F(WaitingCalls, AreForgottenWithTheirBroker)
{
    PipelinedCaller one = caller();
    modem("latency 1500");
    hold_modem(one);
    for (int i = 0; i < 10; i++)
        (void)one.call("hangup_call");
    EXPECT_EQ(one.ask("get_autoconnect").result(), 0);
    daemon.stop_broker();
    ASSERT_TRUE(wait_for([&] { return root.syslog().contains("connection to ubus lost"); }));
    modem("latency 0");
    daemon.start_broker();
    ASSERT_TRUE(daemon.bus.wait_for_object("celmux"));
    EXPECT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }, milliseconds(60000)));
    EXPECT_EQ(sent("ATH"), 0U) << "nobody waits for these any more";
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST_F(WaitingCalls, OutliveTheirCallers)
{
    modem("latency 200");
    {
        PipelinedCaller sent_already = caller(), waiting = caller();
        hold_modem(sent_already);
        (void)waiting.call("get_imei");
        (void)waiting.call("hangup_call");
        EXPECT_EQ(waiting.ask("get_autoconnect").result(), 0);
    }
    modem("latency 0");
    // Half of these never read what comes for them, and all go without a word.
    for (int round = 0; round < 4; round++) {
        std::vector<PipelinedCaller> callers;
        for (int i = 0; i < 50; i++) {
            callers.push_back(caller());
            (void)callers.back().call(i % 3 ? "get_imei" : "get_all_messages");
            (void)callers.back().call("get_profile_list");
        }
        for (size_t i = 0; i < callers.size(); i += 2)
            EXPECT_EQ(callers[i].answers(2).size(), 2U);
    }
    EXPECT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    EXPECT_EQ(daemon.stop().code, 0);
}
