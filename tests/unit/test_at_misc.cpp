#include "at_misc.h"

#include "fake_clock.h"
#include "modem_test.h"
#include "waiting.h"

using AtMisc = ModemTest<fake_clock>;

TEST_F(AtMisc, LoopbackIsSwitchedOffFirst)
{
    const std::string off = "AT+GTPCMLOOPBACK=0\r";
    struct {
        const char *state;
        Strings sent;
    } rows[] = {
        {"off", {off}},
        {"on", {off, "AT+GTPCMLOOPBACK=1,3\r"}},
        {"5", {off, "AT+GTPCMLOOPBACK=1,5\r"}},
        {"abc", {off, off}},
        {"0", {off, off}},
        {"-3", {off, off}},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        fake_clock.reset();
        EXPECT_EQ(at_set_pcm_loopback_state(row.state), RESULT_OK) << row.state;
        EXPECT_EQ(fake_link.sent, row.sent) << row.state;
        EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>(row.sent.size() - 1, 500)) << row.state;
    }
}

TEST_F(AtMisc, LoopbackOutcomeFallsBackOnTheFirstAnswer)
{
    struct {
        Answer first, second;
        result_t code;
        size_t sent;
    } rows[] = {
        {"\r\nOK\r\n", "\r\nERROR\r\n", RESULT_ERROR, 2},
        {"\r\nOK\r\n", "\r\n+CTZV: 1\r\n", RESULT_OK, 2},
        {"\r\nOK\r\n", std::nullopt, RESULT_REQUEST_FAILED, 2},
        {"\r\nERROR\r\n", "\r\nOK\r\n", RESULT_ERROR, 1},
        {std::nullopt, "\r\nOK\r\n", RESULT_REQUEST_FAILED, 1},
        {"\r\nNO CARRIER\r\n", "x", RESULT_NO_CARRIER, 2},
        {"odd", "\r\nOK\r\n", RESULT_OK, 2},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        fake_link.answer_in_turn({row.first, row.second});
        EXPECT_EQ(at_set_pcm_loopback_state("on"), row.code);
        EXPECT_EQ(fake_link.sent.size(), row.sent);
    }
}

TEST_F(AtMisc, RadioIsTriedSixTimes)
{
    struct {
        std::vector<Answer> answers;
        result_t code;
        size_t tries, pauses;
    } rows[] = {
        {{"\r\nERROR\r\n", "\r\nERROR\r\n", "\r\n+CME ERROR: 14\r\n", "\r\nOK\r\n"}, RESULT_OK, 4, 3},
        {{"\r\nERROR\r\n"}, RESULT_REQUEST_FAILED, 6, 6},
        {{std::nullopt}, RESULT_REQUEST_FAILED, 6, 6},
        {{"\r\n+SIM: Inserted\r\n"}, RESULT_OK, 1, 0},
        {{std::nullopt, "\r\nNO CARRIER\r\n"}, RESULT_NO_CARRIER, 2, 1},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        fake_clock.reset();
        fake_link.answer_in_turn(row.answers);
        EXPECT_EQ(at_set_functionality(1), row.code);
        EXPECT_EQ(fake_link.sent, Strings(row.tries, "AT+CFUN=1\r"));
        EXPECT_EQ(fake_link.timeouts, std::vector<uint32_t>(row.tries, 6000));
        EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>(row.pauses, 500));
    }
}

TEST_F(AtMisc, AStopEndsTheWaits)
{
    fake_clock.on_sleep = [](uint32_t) { running.store(0); };
    fake_link.answer_always("\r\nERROR\r\n");
    EXPECT_EQ(at_set_functionality(1), RESULT_REQUEST_FAILED);
    EXPECT_EQ(fake_link.sent.size(), 1u);
    running.store(1);
    fake_link.reset();
    EXPECT_EQ(at_set_pcm_loopback_state("on"), RESULT_REQUEST_FAILED);
    EXPECT_EQ(fake_link.sent.size(), 1u);
}
