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

TEST_F(Rat, SelectionCommands)
{
    const struct {
        RatSelection selection;
        const char *sent;
    } rows[] = {
        {{10, 0, 0, 0, 0, "n78,b3,VIII,1800"}, "AT+GTACT=10,,,5078,103,8,1800\r"},
        {{2, 1, 3, 0, 0, nullptr}, "AT+GTACT=2,3\r"},
        {{20, 1, 6, 1, 3, nullptr}, "AT+GTACT=20,6,3\r"},
        {{1, 0, 0, 1, 2, "b41"}, "AT+GTACT=1,,2,141\r"},
        {{1, 0, 0, 0, 0, "n1,n257,XIX,w8,A,F,BC0,850E"}, "AT+GTACT=1,,,501,50257,19,8,201,206,300,850E\r"},
        {{1, 0, 0, 0, 0, "G,900,n,b,w,8,,foo,bc0,n78:+CFUN=0,n\"1,1800 1,n00000000000000001"}, "AT+GTACT=1,,\r"},
        {{1, 0, 0, 0, 0, " n78 , b3 "}, "AT+GTACT=1,,,5078,103\r"},
        {{1, 0, 0, 0, 0, "n78,foo\t"}, "code 65535"},
        {{1, 0, 0, 0, 0, "n78;+CFUN=0"}, "code 65535"},
        {{1, 0, 0, 0, 0, "n78,\rAT+CFUN=0"}, "code 65535"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(sent_for(row.selection), row.sent) << (row.selection.bands ? row.selection.bands : "none");
}

TEST_F(Rat, SelectionCommandsWithBothPreferences)
{
    const struct {
        RatAndBand selection;
        const char *sent;
    } rows[] = {
        {{20, 6, 3, "b3,n78,w8,II"}, "AT+GTACT=20,6,3,103,5078,2\r"},
        {{20, 6, 3, nullptr}, "AT+GTACT=20,6,3\r"},
        {{4, 0, 3, "b3"}, "AT+GTACT=4,3\r"},
        {{-4, 2, 0, "b3"}, "AT+GTACT=-4,2\r"},
        {{4, 4, 0, nullptr}, "code -1"},
        {{4, 3, -1, nullptr}, "code -1"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(sent_for(row.selection), row.sent);
    EXPECT_EQ(log_count("invalid preferred act", 3), 2);
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

TEST_F(Rat, CurrentBandsInBandNotation)
{
    const struct {
        std::string answer;
        int32_t rat, pref1, pref2;
        const char *bands;
    } rows[] = {
        {"\r\n+GTACT: 20,6,3,1,8,101,103,105,108,134,138,139,140,141,501,5028,5041,5078,5079\r\n\r\nOK\r\n", 20, 6, 3,
         "I,VIII,b1,b3,b5,b8,b34,b38,b39,b40,b41,n1,n28,n41,n78,n79"},
        {ok_answer({"+GTACT: 20,6,3,1,8,103,141,201,300,1800,5078"}), 20, 6, 3, "I,VIII,b3,b41,A,BC0,1800,n78"},
        {ok_answer({"+GTACT: 2"}), 2, 0, 0, ""},
        {ok_answer({"+GTACT:14,,2,103"}), 14, 0, 2, "b3"},
        {ok_answer({"+GTACT: 20, 6, 3, 103 , 900,501", "1,2,3"}), 20, 6, 3, "b3,900,n1"},
        {ok_answer({"+GTACT: 10,0,0,0,00,206,200,50257,12345,123456,,x,xyz,-1,850,5001,19"}), 10, 0, 0,
         "F,n257,850,n1,XIX"},
        {"\r\n+GTACT: 20,6,3,103,5078", 20, 6, 3, "b3,n78"},
        {ok_answer({"+CTZV: +GTACT: 8,1", "+GTACT: 20,255,-1,103,255,1", "+CEREG: 2,1"}), 20, 0, 0, "b3,I"},
    };
    for (const auto &row : rows) {
        fake_link.answer_always(row.answer);
        RatAndBand current = {};
        std::vector<char> bands(BANDS_SIZE, '#');
        result_t code = at_get_current_rat_and_band(&current, bands);
        EXPECT_EQ(code, row.answer.ends_with("OK\r\n") ? RESULT_OK : RESULT_INCOMPLETE);
        EXPECT_EQ(current.rat, row.rat);
        EXPECT_EQ(current.pref_act1, row.pref1);
        EXPECT_EQ(current.pref_act2, row.pref2);
        EXPECT_STREQ(bands.data(), row.bands);
        // Without a buffer for the bands the numbers come all the same.
        RatAndBand numbers = {};
        at_get_current_rat_and_band(&numbers, {});
        EXPECT_EQ(numbers.rat, row.rat);
    }
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

TEST_F(Rat, QueryFailuresLeaveTheOutputAlone)
{
    for (const Answer &answer : {Answer(), Answer("\r\n+GTACT: 20\r\nERROR\r\n"), Answer("\r\nOK\r\n"), Answer("")}) {
        fake_link.answer_always(answer);
        RatAndBand current = {};
        char bands[4] = "old";
        at_get_current_rat_and_band(&current, bands);
        EXPECT_EQ(current.rat, 0);
        EXPECT_STREQ(bands, "old");
    }
    EXPECT_EQ(fake_link.expected.at(0), "+GTACT:");
}

} // namespace
