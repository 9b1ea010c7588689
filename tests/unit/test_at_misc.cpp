#include "at_misc.h"

#include "fake_clock.h"
#include "modem_test.h"
#include "waiting.h"

using AtMisc = ModemTest<fake_clock>;

TEST_F(AtMisc, LoopbackIsSwitchedOnAWhileAfterItIsOff)
{
    EXPECT_EQ(at_set_pcm_loopback_state("off"), RESULT_OK);
    EXPECT_TRUE(fake_clock.sleeps.empty());
    EXPECT_EQ(at_set_pcm_loopback_state("on"), RESULT_OK);
    EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>{500});
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
