#include "at_rat.h"

#include "modem_test.h"

namespace {

class Rat : public ModemTest<> {
protected:
    // The command that is sent, or "code <n>".
    std::string sent_for(const RatSelection &selection)
    {
        return outcome(at_select_rat(&selection));
    }
    std::string sent_for(const RatAndBand &selection)
    {
        return outcome(at_select_rat_and_band(&selection));
    }

private:
    static std::string outcome(result_t code)
    {
        Strings sent;
        sent.swap(fake_link.sent);
        EXPECT_EQ(sent.size(), code == RESULT_OK ? 1u : 0u);
        return code == RESULT_OK ? sent.at(0) : "code " + std::to_string(static_cast<int32_t>(code));
    }
};

TEST_F(Rat, RomanNumeralsBothWays)
{
    const struct {
        const char *numeral;
        int32_t number;
    } rows[] = {{"I", 1},   {"IV", 4},  {"VIII", 8}, {"IX", 9},         {"XIX", 19},
                {"XL", 40}, {"XC", 90}, {"CD", 400}, {"MCMXCIV", 1994}, {"MMMM", 4000}};
    for (const auto &row : rows) {
        char text[16] = "";
        EXPECT_EQ(roman_to_int(row.numeral), row.number);
        EXPECT_TRUE(int_to_roman(row.number, text));
        EXPECT_STREQ(text, row.numeral);
    }
    EXPECT_EQ(roman_to_int(""), 0);
    EXPECT_EQ(roman_to_int("XaI"), 11);
}

TEST_F(Rat, NumeralsAreAppendedWholeOrNotAtAll)
{
    std::vector<char> exact = {'I', ',', '\0', '#', '#', '#'};
    EXPECT_TRUE(int_to_roman(3, exact));
    EXPECT_STREQ(exact.data(), "I,III");
    EXPECT_FALSE(int_to_roman(1, exact));
    for (int32_t number : {0, -1, INT32_MIN})
        EXPECT_TRUE(int_to_roman(number, exact)) << number;
    EXPECT_STREQ(exact.data(), "I,III");
    std::vector<char> small = {'\0', '#', '#', '#'};
    EXPECT_FALSE(int_to_roman(8, small));
    EXPECT_FALSE(int_to_roman(INT32_MAX, small));
    EXPECT_STREQ(small.data(), "");
}

TEST_F(Rat, EverySelectedBandIsLogged)
{
    sent_for(RatSelection{10, 0, 0, 0, 0, "n78,B,VIII,BC0,b3,b41,w5,1800,nothing"});
    for (const char *band : {"NR band: 5078", "TD-SCDMA band: 202", "UMTS band: 8", "CDMA/EVDO band: BC0",
                             "LTE band: 103", "LTE band: 141", "UMTS band: 5", "GSM band: 1800"})
        EXPECT_EQ(log_count(std::string("select ") + band, 6), 1) << band;
    EXPECT_EQ(log_count("[CELMUX: at_select_rat:", 6), 8);
}

TEST_F(Rat, OverlongBandListsAreRefused)
{
    std::string bands;
    while (bands.size() < 1004)
        bands += "n789,"; // 4 characters and a comma become ",50789"
    EXPECT_EQ(sent_for(RatSelection{1, 0, 0, 0, 0, bands.c_str()}), "code 65535");
    EXPECT_EQ(log_count("at_select_rat", 3), 1);
    bands.resize(168 * 5);
    EXPECT_EQ(sent_for(RatSelection{1, 0, 0, 0, 0, bands.c_str()}).size(), 12 + 168 * 6 + 1u);
    EXPECT_EQ(sent_for(RatAndBand{1, 6, 3, bands.c_str()}), "code 65535");
    bands.resize(80 * 5);
    EXPECT_EQ(sent_for(RatAndBand{1, 6, 3, bands.c_str()}).size(), 14 + 80 * 6 + 1u);
    // Neither the time nor the log grows with what is refused.
    clear_log();
    std::string huge;
    while (huge.size() < 1'000'000)
        huge += "b1,";
    EXPECT_EQ(sent_for(RatSelection{1, 0, 0, 0, 0, huge.c_str()}), "code 65535");
    EXPECT_LT(logged().size(), 500u);
}

TEST_F(Rat, ABrokenOffAnswerGivesItsBandsAllTheSame)
{
    fake_link.answer_always("\r\n+GTACT: 20,6,3,103,5078");
    RatAndBand current = {}, numbers = {};
    std::vector<char> bands(BANDS_SIZE, '#');
    EXPECT_EQ(at_get_current_rat_and_band(&current, bands), RESULT_INCOMPLETE);
    EXPECT_EQ(current.pref_act2, 3);
    EXPECT_STREQ(bands.data(), "b3,n78");
    EXPECT_EQ(at_get_current_rat_and_band(&numbers, {}), RESULT_INCOMPLETE) << "without a buffer for the bands";
    EXPECT_EQ(numbers.rat, 20);
    fake_link.answer_always(ok_answer({"+GTACT: 2"}));
    EXPECT_EQ(at_get_current_rat_and_band(&current, bands), RESULT_OK);
    EXPECT_STREQ(bands.data(), "");
}

TEST_F(Rat, BandsThatDoNotFitAreAnError)
{
    std::vector<char> exact(6, '#');
    RatAndBand current = {};
    fake_link.answer_always(ok_answer({"+GTACT: 20,6,3,103,88"}));
    EXPECT_EQ(at_get_current_rat_and_band(&current, exact), RESULT_ERROR);
    EXPECT_STREQ(exact.data(), "");
    fake_link.answer_always(ok_answer({"+GTACT: 20,6,3,103,2"}));
    EXPECT_EQ(at_get_current_rat_and_band(&current, exact), RESULT_OK);
    EXPECT_STREQ(exact.data(), "b3,II");
}

} // namespace
