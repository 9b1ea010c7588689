// No answer and no silence of the modem keeps the daemon from the next call: each case breaks one exchange and then
// asks again.
//
// By hand: CELMUX_DEAF=1,2,4,8,30 measures how long after a silence of so many seconds the first call is served.
#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

#include "daemon.h"
#include "scripted_modem.h"

namespace {

using nlohmann::json;
using Answers =
    std::map<std::string, Course>; // by the beginning of the command; "\x1A" and "\x1B" by the end of a message text

Course nothing()
{
    return {};
}

Course in_pieces(std::vector<Piece> pieces)
{
    size_t whole = pieces.size();
    return {std::move(pieces), whole};
}

Course prompt_after(double ms)
{
    Course course = at_once("\r\n> ", ms);
    course.prompt = true;
    return course;
}

struct Outcome {
    BusAnswer answer;
    int64_t ms;

    int64_t result() const
    {
        return answer.result();
    }
    std::string text() const
    {
        return answer.data.is_object() ? answer.data.value("resp", "") : "";
    }
};

class LinkStuck : public testing::Test {
protected:
    static constexpr int64_t at_once_ms = 1500; // for what is already known; far below every time-out

    // The modem's answers to some commands; the others are usual, and those to AT+CGSN=1 and AT+CSIM carry the number
    // of the input.
    void set(const Answers &answers)
    {
        std::lock_guard lock(mutex);
        for (const auto &[start, course] : answers)
            answers_[start] = course;
    }
    void clear()
    {
        std::lock_guard lock(mutex);
        answers_.clear();
    }
    Course course_of(const std::string &text, size_t number)
    {
        std::lock_guard lock(mutex);
        for (auto [start, course] : answers_) {
            if (!text.starts_with(start) && (start.size() > 1 || !text.ends_with(start)))
                continue;
            for (Piece &piece : course.pieces)
                if (size_t place = piece.bytes.find("#?"); place != std::string::npos)
                    piece.bytes.replace(place + 1, 1, std::to_string(number));
            return number == 0 || !first_only ? course : at_once(usual_answer(text), latency);
        }
        if (text.starts_with("AT+CGSN=1"))
            return at_once(framed({fmt::format("+CGSN: {:015}", number)}), latency);
        if (text.starts_with("AT+CSIM="))
            return at_once(framed({fmt::format("+CSIM: 4,\"#{}\"", number)}), latency);
        return at_once(usual_answer(text), latency);
    }
    // With `ready`: returns when the object is there and the start has come to its end.
    void start(bool ready = true)
    {
        DaemonOptions options;
        options.with_modem = false;
        options.wait_until_ready = ready;
        daemon.emplace(root, options);
        ASSERT_TRUE(!ready || daemon->wait_until_calm());
    }
    Outcome call(const std::string &method, const json &arguments = json::object())
    {
        Moment begin = Clock::now();
        BusAnswer answer = daemon->call(method, arguments);
        return {answer, std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count()};
    }
    Outcome pass(const std::string &at, int timeout_ms = 3000)
    {
        return call("at_passthrough", {{"at", at}, {"timeout_ms", timeout_ms}});
    }
    // A call whose answer was made for it.
    bool served()
    {
        Moment begin = Clock::now();
        BusAnswer answer = daemon->call("get_imei");
        std::vector<Input> inputs = modem->inputs();
        size_t number = answer.result() == 0 ? std::stoul(answer.data.value("imei", "0")) : inputs.size();
        return number < inputs.size() && inputs[number].text == "AT+CGSN=1" && inputs[number].came > begin;
    }
    void expect_served_at_once(const std::string &when)
    {
        Moment begin = Clock::now();
        EXPECT_TRUE(served()) << when;
        EXPECT_LT(Clock::now() - begin, milliseconds(at_once_ms)) << when;
    }
    bool asked(const std::string &part)
    {
        std::vector<Input> inputs = modem->inputs();
        return std::any_of(inputs.begin(), inputs.end(),
                           [&](const Input &each) { return each.text.find(part) != part.npos; });
    }

    std::mutex mutex; // guards what stands up to `latency`
    Answers answers_;
    bool first_only = false; // they are for the modem's first input alone
    double latency = 0;
    PrivateRoot root;
    std::optional<ScriptedModem> modem{
        std::in_place, root.path("/dev/ttyMODEM"),
        [this](const std::string &text, size_t number) { return course_of(text, number); }};
    std::optional<Daemon> daemon;
};

TEST_F(LinkStuck, APromptThatACallerAskedForIsItsAnswerAndIsLeft)
{
    start();
    set({{"AT+CMGS=", prompt_after(10)}});
    Outcome outcome = pass("AT+CMGS=20");
    EXPECT_EQ(outcome.result(), 0);
    EXPECT_NE(outcome.text().find('>'), std::string::npos);
    EXPECT_LT(outcome.ms, at_once_ms);
    expect_served_at_once("afterwards");
    EXPECT_FALSE(modem->at_prompt());
}

TEST_F(LinkStuck, ADaemonStartsOnAModemThatSitsAtAPrompt)
{
    set({{"AT+CMGS=", prompt_after(0)}});
    int fd = open(root.path("/dev/ttyMODEM").c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(write(fd, "AT+CMGS=20\r", 11), 11);
    ASSERT_TRUE(wait_for([&] { return modem->at_prompt(); }));
    (void)close(fd);
    start(false);
    EXPECT_TRUE(daemon->bus.wait_for_object("celmux"));
    EXPECT_TRUE(wait_for([&] { return served(); }, milliseconds(5000)));
}

TEST_F(LinkStuck, AStopBeforeThePromptLeavesTheModemAtNone)
{
    start();
    set({{"AT+CMGS=", prompt_after(400)}});
    Process caller =
        root.start({"ubus", "call", "celmux", "send_message", R"({"dest":"+491701234567","type":0,"content":"x"})"});
    ASSERT_TRUE(wait_for([&] { return asked("AT+CMGS="); }));
    EXPECT_EQ(daemon->stop().code, 0);
    std::this_thread::sleep_for(milliseconds(600)); // the prompt comes meanwhile
    EXPECT_FALSE(modem->at_prompt());
}

TEST_F(LinkStuck, APauseInAnAnswerDoesNotEndIt) // burst_gap_ms is missing here
{
    start();
    for (double ms : {2, 20, 200}) {
        set({{"AT+CIMI?", in_pieces({{0, "\r\n+CIMI: 26201"}, {ms, "0000000001\r\n"}, {ms, "\r\nO"}, {ms, "K\r\n"}})}});
        Outcome outcome = call("get_imsi");
        EXPECT_EQ(outcome.result(), 0) << ms;
        EXPECT_EQ(outcome.answer.data.value("imsi", ""), "262010000000001") << ms;
    }
    const std::string head = "\r\n+CMGL: 1,\"REC READ\",\"+49\",,\"24/03/01\"\r\nOK, see you\r\n",
                      tail = "+CMGL: 2,\"REC READ\",\"+49\"\r\nlast\r\n\r\nOK\r\n";
    set({{"AT+CMGL=\"ALL\"", in_pieces({{0, head}, {30, tail}})}});
    Outcome listing = pass("AT+CMGL=\"ALL\"");
    EXPECT_NE(listing.text().find("OK, see you"), std::string::npos);
    EXPECT_NE(listing.text().find("last"), std::string::npos);
    expect_served_at_once("after the listing");
}

TEST_F(LinkStuck, AModemThatWasDeafIsServedSoonAfter)
{
    start();
    const char *given = getenv("CELMUX_DEAF");
    std::string list = given ? given : "1,2,4,8";
    for (size_t at = 0; at < list.size(); at = std::min(list.find(',', at), list.size() - 1) + 1) {
        int seconds = atoi(list.c_str() + at);
        Moment begin = Clock::now();
        modem->be_deaf(seconds * 1000);
        EXPECT_TRUE(wait_for([&] { return served(); }, milliseconds(1000 * seconds + 30000)));
        auto ms = std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count();
        fmt::print("deaf for {} s: served after {} ms\n", seconds, ms);
        EXPECT_LE(ms, std::max(1000 * seconds + 2000, 3500)) << seconds; // the first call waits out its 3 s
    }
}

TEST_F(LinkStuck, LateAnswersToTheProbeAreNotTakenForTheStarts)
{
    modem.reset();
    json configuration = json::parse(root.read_file("/etc/ril.json"));
    configuration["settings"].update({{"port", "/dev/mhi_at"}, {"type", "file"}});
    root.write_file("/etc/ril.json", configuration.dump());
    latency = 20;
    first_only = true;
    for (int late_ms : {500, 1200, 2500}) {
        clear();
        set({{"AT+CGSN", at_once(framed({"+CGSN: 860000000000001"}), late_ms)}});
        modem.emplace(root.path("/dev/mhi_at"), [this](const std::string &text, size_t number) {
            return text == "AT+SIMSWAPCFG?" ? at_once(framed({"+SIMSWAPCFG: 1"}), 20) : course_of(text, number);
        });
        start(false);
        EXPECT_TRUE(daemon->bus.wait_for_object("celmux"));
        for (const char *setting : {"AT+GTPCMOUT=1", "AT+MSMPD=1", "AT+SIMSWAPCFG=0"})
            EXPECT_EQ(modem->count(setting), 1U) << setting << " with a first answer " << late_ms << " ms late";
        daemon.reset();
    }
}

TEST_F(LinkStuck, AModemThatLosesItsFirstCommandsDoesNotEndTheDaemon)
{
    modem->be_deaf(6000);
    start(false);
    EXPECT_TRUE(daemon->bus.wait_for_object("celmux"));
    EXPECT_TRUE(daemon->celmuxd().running());
    EXPECT_EQ(daemon->celmuxd().output().find("Quit celmuxd"), std::string::npos);
    EXPECT_TRUE(wait_for([&] { return served(); }, milliseconds(5000)));
}

TEST_F(LinkStuck, AListingThatIsNeverAnsweredDoesNotStarveTheBus)
{
    set({{"AT+CMGL=4", nothing()}});
    start(false);
    ASSERT_TRUE(daemon->bus.wait_for_object("celmux"));
    int good = 0, bad = 0;
    for (Moment end = Clock::now() + milliseconds(35000); Clock::now() < end;) {
        (served() ? good : bad)++;
        std::this_thread::sleep_for(milliseconds(900));
    }
    fmt::print("{} calls served, {} not, while {} listings were not answered\n", good, bad, modem->count("AT+CMGL=4"));
    EXPECT_GE(good, 12);
    EXPECT_LE(bad, 8);
}

TEST_F(LinkStuck, WhatIsKnownIsNotWaitedFor)
{
    start();
    struct Row {
        const char *method;
        json arguments;
        const char *command;
        const char *final;
        int64_t result;
    };
    const json text = {{"dest", "+491701234567"}, {"type", 0}, {"content", "x"}};
    set({{"AT+CMGS=", prompt_after(0)}, {"\x1B", at_once(framed({}))}});
    const Row rows[] = {
        {"get_caller_id", json::object(), "AT+CLCC", "OK", 65537},
        {"get_msisdn", json::object(), "AT+CNUM", "OK", 65537},
        {"get_pdp_contexts", json::object(), "AT+CGACT?", "OK", 65537},
        {"get_imsi", json::object(), "AT+CIMI?", "OK", 65537},
        {"get_imsi", json::object(), "AT+CIMI?", "+CME ERROR: 10", 65535},
        {"set_roaming_enable", {{"state", 1}}, "AT+GTROAMCFG=", "ERROR", 65535},
        {"send_message", text, "\x1A", "+CMS ERROR: 500", -1},
        {"send_message", text, "AT+CMGS=", "+CMS ERROR: 302", -1},
        {"send_message", text, "AT+CMGS=", "ERROR", -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.method) + " answered " + row.final);
        set({{row.command, at_once(framed({}, row.final), 5)}});
        Outcome outcome = call(row.method, row.arguments);
        EXPECT_EQ(static_cast<int32_t>(outcome.result()), static_cast<int32_t>(row.result));
        EXPECT_LT(outcome.ms, at_once_ms);
        expect_served_at_once("afterwards");
    }
}

TEST_F(LinkStuck, AnAnswerIsWholeOrAFailure)
{
    start();
    std::string huge;
    while (huge.size() < 600000)
        huge += "+GTHUGE: " + std::string(90, 'x') + "\r\n";
    set({{"AT+GTHUGE", at_once("\r\n" + huge + "\r\nOK\r\n")},
         {"AT+CCID", at_once(std::string(1, '\0') + framed({"+CCID: 89860000000000000009"}))}});
    Outcome outcome = pass("AT+GTHUGE", 10000);
    EXPECT_TRUE(outcome.result() != 0 || outcome.text().size() > huge.size()) << outcome.text().size();
    expect_served_at_once("after a huge answer");
    outcome = call("get_ccid");
    EXPECT_EQ(outcome.answer.data.value("ccid", ""), "89860000000000000009") << "with a NUL in front";
    EXPECT_LT(outcome.ms, at_once_ms);
    expect_served_at_once("after a NUL");
}

TEST_F(LinkStuck, ReportsWithinAnAnswerAreNotItsValues)
{
    start();
    struct Row {
        const char *method, *command, *answer, *key;
        std::string value;
    };
    const Row rows[] = {
        {"get_pdp_contexts", "AT+CGACT?", "\r\n+CEREG: 2,1\r\n\r\n+CGACT: 1,0\r\n\r\nOK\r\n", "pdp_contexts", "0"},
        {"get_pdp_contexts", "AT+CGACT?",
         "\r\n+CGACT: 1,0\r\n\r\n+GTDUALSIM: 0,\"SUB1\",\"No Service\"\r\n+CGACT: 2,1\r\n\r\nOK\r\n", "pdp_contexts",
         "01"},
        {"get_hw_version", "ATI9", "\r\n+CTZV: +8,1\r\n\r\n\"Hardware version: V1.0\"\r\n\r\nOK\r\n", "hw_version",
         "V1.0"},
        {"get_roaming_status", "AT+CREG?", "\r\n+CGEV: ME PDN ACT 1,3\r\n\r\n+CREG: 0,5\r\n\r\nOK\r\n",
         "roaming_status", "5"},
        {"get_imsi", "AT+CIMI?", "\r\nRING\r\n\r\n+CIMI: 1\r\n\r\nNO CARRIER\r\n\r\nOK\r\n", "imsi", "1"},
        {"get_imsi", "AT+CIMI?", "\r\nNO CARRIER\r\n\r\n+CIMI: 2\r\n\r\nOK\r\n", "imsi", "2"},
    };
    for (const Row &row : rows) {
        set({{row.command, at_once(row.answer)}});
        Outcome outcome = call(row.method);
        EXPECT_EQ(outcome.result(), 0) << row.answer;
        EXPECT_EQ(outcome.answer.data.value(row.key, ""), row.value) << row.answer;
    }
}

} // namespace
