#include "at_sim.h"

#include "modem_test.h"

namespace {

class Sim : public ModemTest<> {
protected:
    std::string retries_of(const std::string &answer)
    {
        fake_link.answer_always(answer);
        PinRetries retries = {};
        result_t code = at_get_remaining_pin_retries(nullptr, &retries);
        std::string text = code == RESULT_OK ? "" : "code " + std::to_string(code);
        const char *const names[] = {"pin1", "puk1", "pin2", "puk2"};
        for (unsigned i = 0; i < PIN_CODES; i++) {
            const PinRetryGroup &group = retries.codes[i];
            if (group.present || group.retries || group.default_retries)
                text += std::string(names[i]) + "=" + std::to_string(group.retries) + "/" +
                        std::to_string(group.default_retries) + " ";
        }
        return text;
    }
};

TEST_F(Sim, RetriesOfEachCode)
{
    const struct {
        std::string answer;
        const char *expected;
    } rows[] = {
        {ok_answer({"+CPINR: SIM PIN,3,3", "+CPINR: SIM PUK,10,10", "+CPINR: SIM PIN2,3,3", "+CPINR: SIM PUK2,10,10"}),
         "pin1=3/3 puk1=10/10 pin2=3/3 puk2=10/10 "},
        {ok_answer({"+CPINR: SIM PIN,3,3", "", "+CPINR: SIM PUK,10,10"}), "pin1=3/3 puk1=10/10 "},
        {ok_answer({"+CPINR: SIM PIN2,2,3"}), "pin2=2/3 "},
        {ok_answer({"+CPINR:SIM PIN, 0, 3"}), "pin1=0/3 "},
        {ok_answer({"+CPINR: PH-NET PIN,7,7", "+CPINR: SIM PUK,9,10"}), "puk1=9/10 "},
        {ok_answer({"+CPINR: SIM PIN,3,3", "+CPINR: SIM PUK,10", "+CPINR: SIM PIN2,3,3"}), "pin1=3/3 "},
        {ok_answer({"+CPINR: SIM PIN,-1,3", "+CPINR: SIM PUK,,3", "+CPINR: SIM PIN2,255,3"}), ""},
        {ok_answer({"+CPINR: SIM PIN,3,", "+CPINR: SIM PUK,10,999"}), "pin1=3/255 puk1=10/255 "},
        {ok_answer({"+CPINR: \"SIM PIN\",3,3", "+CTZV: +CPINR: SIM PUK,1,2"}), "pin1=3/3 "},
        {"\r\n+CPINR: SIM PIN,3,3\r\n", "code 65538pin1=3/3 "},
        {"\r\n+CPINR: SIM PIN,3\r\n\r\nOK\r\n", ""},
        {"\r\n+CPINR: SIM PIN", "code 65538"},
        {"\r\n+CPINR: SIM PIN,3,3\r\n+CME ERROR: 3\r\n", "code 65535"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(retries_of(row.answer), row.expected) << row.answer;
    EXPECT_EQ(fake_link.expected.at(0), "+CPINR:");
}

TEST_F(Sim, AttemptsAndLock)
{
    const struct {
        std::string line;
        int32_t pin, puk;
    } attempts[] = {{"+TPIN: 3,10", 3, 10},
                    {"+TPIN:2,10,3,10", 2, 10},
                    {"+TPIN: 3", 3, -1},
                    {"+TPIN: , 10", -1, 10},
                    {"+TPIN: x,-5", -1, -1},
                    {"+TPIN:", -1, -1},
                    {"+TPIN: 255,99999999999", -1, -1},
                    {"+CTZV: +TPIN: 8,1\r\n+TPIN: 3,10", 3, 10}};
    for (const auto &row : attempts) {
        int32_t pin = -1, puk = -1;
        fake_link.answer_always(ok_answer({row.line}));
        EXPECT_EQ(at_get_sim_remaining_attempts(&pin, &puk), RESULT_OK);
        EXPECT_EQ(pin, row.pin) << row.line;
        EXPECT_EQ(puk, row.puk) << row.line;
    }
    const struct {
        std::string answer;
        result_t code;
        int enabled;
    } locks[] = {{ok_answer({"+CLCK: 1"}), RESULT_OK, 1}, {ok_answer({"x+CLCK: 1", "+CLCK: 0"}), RESULT_OK, 0},
                 {ok_answer({"+CLCK:1"}), RESULT_OK, 1},  {"\r\n+CLCK: 1\r\n", RESULT_INCOMPLETE, 1},
                 {"\r\n+CLCK:", RESULT_INCOMPLETE, 0},    {"\r\n+CLCK: 1\r\nERROR\r\n", RESULT_ERROR, 7}};
    for (const auto &row : locks) {
        uint8_t enabled = 7;
        fake_link.answer_always(row.answer);
        EXPECT_EQ(at_get_sim_lock_status(&enabled), row.code) << row.answer;
        EXPECT_EQ(enabled, row.enabled) << row.answer;
    }
}

TEST_F(Sim, CodesThatCouldEndTheCommandAreRefused)
{
    const char *code = "12\"34";
    PinRetries retries = {};
    EXPECT_EQ(at_set_sim_lock_status(code, 1), RESULT_ERROR);
    EXPECT_EQ(at_unlock_sim(code, nullptr), RESULT_ERROR);
    EXPECT_EQ(at_unlock_sim("1234", code), RESULT_ERROR);
    EXPECT_EQ(at_change_sim_pin("1234", code), RESULT_ERROR);
    EXPECT_EQ(at_change_sim_pin(code, "1234"), RESULT_ERROR);
    EXPECT_EQ(at_get_remaining_pin_retries(code, &retries), RESULT_ERROR);
    EXPECT_EQ(log_count("refused", 3), 6);
    EXPECT_EQ(log_count("12"), 0);
    EXPECT_TRUE(fake_link.sent.empty());
}

} // namespace
