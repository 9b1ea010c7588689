#include "test_modemsim_rig.h"

#include <gtest/gtest.h>

namespace {

struct Exchange {
    const char *profile;
    const char *command;
    const char *answer; ///< the lines before OK; as a whole answer when it begins with a line end
};

constexpr const char *usual = "{}";
constexpr const char *no_sim = R"({"modem":{"sim":{"state":"absent"}}})";
constexpr const char *no_sim_text = R"({"modem":{"sim":{"state":"absent"},"settings":{"cmee":2}}})";
constexpr const char *no_sim_fm160 = R"({"modem":{"sim":{"state":"absent"},"behaviour":{"no_sim":"fm160"}}})";
constexpr const char *no_errors = R"({"modem":{"sim":{"state":"absent"},"settings":{"cmee":0}}})";
constexpr const char *pin = R"({"modem":{"sim":{"state":"pin"}}})";
constexpr const char *endc = R"({"modem":{"network":{"cell":"endc"},"settings":{"creg":2}}})";
constexpr const char *nowhere = R"({"modem":{"network":{"cell":"none"}}})";
constexpr const char *off = R"({"modem":{"settings":{"cfun":4}}})";

const Exchange exchanges[] = {
    {usual, "at+cgmi", "Fibocom Wireless Inc."},
    {usual, "AT+CGMI?;+NONSENSE;+CGSN?", "\r\n+CGMI: \"Fibocom Wireless Inc.\"\r\n\r\nERROR\r\n"},
    {usual, "0021\x0f noise AT+CMGF?", "+CMGF: 0"},
    {usual, "AT+GTACT=,,,999999", "\r\nERROR\r\n"},
    {usual, "AT+COPS=3,2;+COPS?", "+COPS: 0,2,\"46001\",7"},
    {usual, "AT+CPINR=\"SIM PUK\"", "+CPINR: SIM PUK,10,10"},
    {usual, "AT+CLCC", "\r\nOK\r\n"},
    {no_sim, "AT+CPIN?", "\r\n+CME ERROR: 10\r\n"},
    {no_sim, "AT+CCID", "\r\n+CME ERROR: 13\r\n"},
    {no_sim, "AT+CNUM", "\r\nERROR\r\n"},
    {no_sim, "AT+CMGL=4", "\r\n+CMS ERROR: 310\r\n"},
    {no_sim, "AT+COPS?", "+COPS: 0"},
    {no_sim_text, "AT+CPIN?", "\r\n+CME ERROR: SIM not inserted\r\n"},
    {no_sim_fm160, "AT+CMGF?", "\r\n+CME ERROR: 10\r\n"},
    {no_sim_fm160, "AT+CPMS?", "\r\nERROR\r\n"},
    {no_errors, "AT+CPIN?", "\r\nERROR\r\n"},
    {pin, "AT+CIMI?", "\r\n+CME ERROR: 11\r\n"},
    {pin, "AT+CMGF?", "\r\n+CMS ERROR: 311\r\n"},
    {usual, "AT+GTCCINFO?",
     "+GTCCINFO: \r\nLTE service cell: \r\n1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24\r\n"
     "LTE neighbor cell: \r\n2,4,,,,,672,190,,44,44,2\r\n2,4,,,,,64,EA,,32,32,10"},
    {endc, "AT+CREG?", "+CREG: 2,1,\"4F50\",\"052AB337\",13"},
    {nowhere, "AT+GTCCINFO?", "+GTCCINFO: "},
    {nowhere, "AT+CSQ", "+CSQ: 99,99"},
    {nowhere, "AT$QCRMCALL=1,1", "\r\nNO CARRIER\r\n"},
    {off, "AT+CREG?", "+CREG: 0,0"},
};

TEST(ModemsimAnswer, HasTheFormOfTheRealModem)
{
    for (const Exchange &exchange : exchanges) {
        Rig rig(exchange.profile);
        const std::string text = exchange.answer;
        EXPECT_EQ(rig.at(exchange.command), text.starts_with("\r") ? text : answer(text)) << exchange.command;
    }
}

TEST(Modemsim, EchoesUntilItIsTold)
{
    Rig rig(R"({"modem":{"settings":{"echo":true}}})");
    EXPECT_EQ(rig.send("ATI8\n"), "ATI8\r\n\"89614.1000.00.04.01.02\"\r\n\r\nOK\r\n"); // a line feed ends it, too
    EXPECT_EQ(rig.send("AT\r\n"), "AT\r\r\nOK\r\n");
    EXPECT_EQ(rig.at("ATE0"), "ATE0\r\r\nOK\r\n");
    EXPECT_EQ(rig.at("AT"), ok);
}

TEST(Modemsim, CarriesOutOneCommandAfterTheOther)
{
    Rig rig(R"({"modem":{"behaviour":{"latency_ms":10,"delays":{"AT+CSQ":50}}}})");
    EXPECT_EQ(rig.send("AT+CSQ\rAT+CMGF?\r", 59), "");
    rig.run(1);
    EXPECT_EQ(rig.out, answer("+CSQ: 27,99"));
    rig.run(10);
    EXPECT_EQ(rig.out, answer("+CSQ: 27,99") + answer("+CMGF: 0"));
}

TEST(Modemsim, RecordsWhatComesInWithNumbersAndSaysThemInItsAnswers)
{
    Rig rig(R"({"modem":{"behaviour":{"serial_numbers":true}}})");
    EXPECT_EQ(rig.at("AT+CMGF?"), answer("+CMGF: 0\r\n+SN: 1"));
    EXPECT_EQ(rig.at("ATE0"), answer("+SN: 2"));
    EXPECT_EQ(rig.at("AT+NONSENSE"), "\r\n+SN: 3\r\n\r\nERROR\r\n");
    rig.at("AT+CMGS=3");
    EXPECT_EQ(rig.send("\x1b"), answer("+SN: 4"));
    EXPECT_EQ(rig.recorded,
              (std::vector<std::string>{"1 AT+CMGF?\r", "2 ATE0\r", "3 AT+NONSENSE\r", "4 AT+CMGS=3\r", "4 \x1b"}));
}

TEST(Modemsim, LetsOtherCommandsWaitForTheScanWhereSoSet)
{
    Rig rig(R"({"modem":{"behaviour":{"scan_ms":5000,"scan_refusal":"queue"}}})");
    rig.at("AT+COPS=?");
    EXPECT_EQ(rig.at("AT+CSQ", 4999), "");
    rig.run(1);
    EXPECT_TRUE(rig.out.starts_with("\r\n+COPS: (")) << rig.out;
    EXPECT_TRUE(rig.out.ends_with(answer("+CSQ: 27,99"))) << rig.out;
}

TEST(Modemsim, LosesItsSettingsWithARestart)
{
    Rig rig(R"({"modem":{"settings":{"creg":1}}})");
    EXPECT_EQ(rig.at("AT+CFUN=15"), ok);
    rig.run(60);
    EXPECT_FALSE(rig.present);
    EXPECT_EQ(rig.at("AT"), "");
    rig.run(1500);
    EXPECT_TRUE(rig.present);
    EXPECT_EQ(rig.at("AT+CPIN?"), "AT+CPIN?\r\r\n+CME ERROR: 14\r\n");
    rig.out.clear();
    rig.run(1000);
    EXPECT_EQ(rig.out, "\r\n+SIM READY\r\n");
    rig.at("ATE0");
    EXPECT_EQ(rig.at("AT+CNMI?"), answer("+CNMI: 0,0,0,0,0"));
    EXPECT_EQ(rig.at("AT+CREG?"), answer("+CREG: 0,1"));
}

TEST(Modemsim, ReportsRegistrationAndTheCardUnasked)
{
    Rig rig(R"({"modem":{"settings":{"creg":1,"cereg":1}}})");
    rig.at("AT+CFUN=4");
    EXPECT_EQ(
        rig.at("AT+CFUN=1", 1000),
        ok +
            "\r\n+SIM: Inserted\r\n\r\n+CREG: 2\r\n\r\n+CEREG: 2\r\n\r\n+SIM READY\r\n\r\n+CREG: 1\r\n\r\n+CEREG: 1\r\n");
    rig.out.clear();
    rig.ctl("sim pull");
    EXPECT_TRUE(rig.out.starts_with("\r\n+SIM: Removed\r\n\r\n+SIM DROP\r\n")) << rig.out;
}

TEST(Modemsim, RingsUntilTheCallIsOver)
{
    Rig rig;
    rig.ctl("ring +370000000");
    const std::string bell = "\r\nRING\r\n\r\n+CLIP: \"+370000000\",145\r\n";
    rig.run(3000);
    EXPECT_TRUE(rig.out.starts_with(bell) && rig.out.ends_with(bell));
    EXPECT_EQ(rig.at("AT+CLCC"), answer("+CLCC: 1,1,4,0,0,\"+370000000\",145,\"\""));
    EXPECT_EQ(rig.at("ATH"), ok);
    EXPECT_EQ(rig.at("AT+CLCC", 10000), ok);
}

TEST(Modemsim, SurvivesWhateverComesIn)
{
    Rig rig;
    std::string noise;
    for (int i = 0; i < 200000; i++)
        noise += static_cast<char>(i * 7919 >> 3);
    rig.send(noise + "\x1b\r");
    EXPECT_EQ(rig.send(std::string(10000, 'A') + "\r"), "\r\nERROR\r\n");
    for (const char *line :
         {"AT+=", "AT+CGDCONT=99999999999,\"\",", "AT+CMGD=-1", "AT\"", "AT+CPIN=\"", "AT&", "AT+CMGS=", "AT;;"})
        EXPECT_NE(rig.at(line), "") << line;
    EXPECT_EQ(rig.at("AT"), ok);
}

} // namespace
