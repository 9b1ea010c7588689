#include "test_modemsim_rig.h"

#include <gtest/gtest.h>

namespace {

struct Exchange {
    const char *profile;
    const char *command;
    const char *answer; ///< the lines before OK; as a whole answer when it begins with a line end
};

class ModemsimAnswer : public testing::TestWithParam<Exchange> {};

TEST_P(ModemsimAnswer, HasTheFormOfTheRealModem)
{
    Rig rig(GetParam().profile);
    std::string expected = GetParam().answer;
    if (expected[0] != '\r')
        expected = answer(expected);
    EXPECT_EQ(rig.at(GetParam().command), expected);
}

constexpr const char *usual = "{}";
constexpr const char *no_sim = R"({"modem":{"sim":{"state":"absent"}}})";
constexpr const char *no_sim_text = R"({"modem":{"sim":{"state":"absent"},"settings":{"cmee":2}}})";
constexpr const char *no_sim_fm160 = R"({"modem":{"sim":{"state":"absent"},"behaviour":{"no_sim":"fm160"}}})";
constexpr const char *no_errors = R"({"modem":{"sim":{"state":"absent"},"settings":{"cmee":0}}})";
constexpr const char *pin = R"({"modem":{"sim":{"state":"pin"}}})";
constexpr const char *endc = R"({"modem":{"network":{"cell":"endc","neighbours":[]},"settings":{"creg":2}}})";
constexpr const char *nr = R"({"modem":{"network":{"cell":"nr","nr":{"tac":10675968,"pci":656,"rsrp":-70}}}})";
constexpr const char *umts = R"({"modem":{"network":{"cell":"umts"}}})";
constexpr const char *nowhere = R"({"modem":{"network":{"cell":"none"}}})";
constexpr const char *off = R"({"modem":{"settings":{"cfun":4}}})";

const Exchange exchanges[] = {
    {usual, "AT", "\r\nOK\r\n"},
    {usual, "at+cgmi", "Fibocom Wireless Inc."},
    {usual, "AT+CGMI?", "+CGMI: \"Fibocom Wireless Inc.\""},
    {usual, "AT+CGSN", "860000000000009"},
    {usual, "AT+CGSN=1", "+CGSN: \"860000000000009\""},
    {usual, "AT+CCID", "+CCID: 89860000000000000009"},
    {usual, "ATI9", "\"Hardware version: V1.0.6\""},
    {usual, "ATI",
     "Manufacturer: Fibocom Wireless Inc.\r\nModel: FM160-CN\r\nRevision: 89614.1000.00.04.01.02\r\nSVN: 02\r\n"
     "IMEI: 860000000000009\r\n+GCAP: +CGSM"},
    {usual, "AT+CGMI?;+CGSN?", "+CGMI: \"Fibocom Wireless Inc.\"\r\n\r\n+CGSN: \"860000000000009\""},
    {usual, "AT+CGMI?;+NONSENSE;+CGSN?", "\r\n+CGMI: \"Fibocom Wireless Inc.\"\r\n\r\nERROR\r\n"},
    {usual, "0021\x0f noise AT+CMGF?", "+CMGF: 0"},
    {usual, "AT+CNMI?", "+CNMI: 2,1,0,0,0"},
    {usual, "AT+GTPCMOUT?", "+GTPCMOUT: 1"},
    {usual, "AT+MSMPD?", "+MSMPD: 1"},
    {usual, "AT+SIMSWAPCFG?", "+SIMSWAPCFG: 0"},
    {usual, "AT+GTRAT?", "+GTRAT: 20,6,3"},
    {usual, "AT+GTACT=,,,999999", "\r\nERROR\r\n"},
    {usual, "AT+GTACT=0", "\r\nERROR\r\n"},
    {usual, "AT+CREG?", "+CREG: 0,1"},
    {usual, "AT+C5GREG?", "+C5GREG: 0,0"},
    {usual, "AT+COPS?", "+COPS: 0,0,\"CHN-UNICOM\",7"},
    {usual, "AT+COPS=3,2;+COPS?", "+COPS: 0,2,\"46001\",7"},
    {usual, "AT+CESQ", "+CESQ: 99,99,255,255,24,63,255,255,255"},
    {usual, "AT+CLCK=\"SC\",2", "+CLCK: 0"},
    {usual, "AT+TPIN?", "+TPIN: 3,10,3,10"},
    {usual, "AT+CPINR=\"SIM PUK\"", "+CPINR: SIM PUK,10,10"},
    {usual, "AT+CLCC", "\r\nOK\r\n"},
    {usual, "AT+GTCELLINFO?", "+GTCELLINFO: 1\r\nLTE:\r\nCQI: 15\r\nPower: 2\r\nRANK: RANK1\r\nDLMCS: 5\r\nULMCS: 22"},
    {no_sim, "AT+CPIN?", "\r\n+CME ERROR: 10\r\n"},
    {no_sim, "AT+CCID", "\r\n+CME ERROR: 13\r\n"},
    {no_sim, "AT+CNUM", "\r\nERROR\r\n"},
    {no_sim, "AT+CMGL=4", "\r\n+CMS ERROR: 310\r\n"},
    {no_sim, "AT+CREG?", "+CREG: 0,2"},
    {no_sim, "AT+COPS?", "+COPS: 0"},
    {no_sim_text, "AT+CPIN?", "\r\n+CME ERROR: SIM not inserted\r\n"},
    {no_sim_fm160, "AT+CMGF?", "\r\n+CME ERROR: 10\r\n"},
    {no_sim_fm160, "AT+CPMS?", "\r\nERROR\r\n"},
    {no_errors, "AT+CPIN?", "\r\nERROR\r\n"},
    {pin, "AT+CPIN?", "+CPIN: SIM PIN"},
    {pin, "AT+CIMI?", "\r\n+CME ERROR: 11\r\n"},
    {pin, "AT+CMGF?", "\r\n+CMS ERROR: 311\r\n"},
    {usual, "AT+GTCCINFO?",
     "+GTCCINFO: \r\nLTE service cell: \r\n1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24\r\n"
     "LTE neighbor cell: \r\n2,4,,,,,672,190,,44,44,2\r\n2,4,,,,,64,EA,,32,32,10"},
    {nr, "AT+GTCCINFO?",
     "+GTCCINFO: \r\nNR service cell: \r\n1,9,460,01,A2E700,101EA212F,7EFAE,290,5041,100,113,87,87,65"},
    {endc, "AT+GTCCINFO?",
     "+GTCCINFO: \r\nLTE-NR EN-DC service cell: \r\n1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24\r\n"
     "1,9,460,01,4F50,101EA212F,7EFAE,290,5041,100,113,87,87,65\r\nLTE neighbor cell: "},
    {endc, "AT+CREG?", "+CREG: 2,1,\"4F50\",\"052AB337\",13"},
    {umts, "AT+GTCCINFO?", "+GTCCINFO: \r\nUMTS service cell: \r\n1,2,460,01,5D4,1BC7511,2A05,DB,8,37,41,1,41,0,37"},
    {nowhere, "AT+GTCCINFO?", "+GTCCINFO: "},
    {nowhere, "AT+CSQ", "+CSQ: 99,99"},
    {nowhere, "AT$QCRMCALL=1,1", "\r\nNO CARRIER\r\n"},
    {off, "AT+CREG?", "+CREG: 0,0"},
    {off, "AT+COPS=?", ""},
};

INSTANTIATE_TEST_SUITE_P(, ModemsimAnswer, testing::ValuesIn(std::begin(exchanges), std::end(exchanges) - 1));

TEST(Modemsim, EchoesUntilItIsTold)
{
    Rig rig(R"({"modem":{"settings":{"echo":true}}})");
    EXPECT_EQ(rig.at("AT"), "AT\r\r\nOK\r\n");
    EXPECT_EQ(rig.at("ATE0"), "ATE0\r\r\nOK\r\n");
    EXPECT_EQ(rig.at("AT"), ok);
}

TEST(Modemsim, TakesALineFeedAloneForTheEndOfACommand)
{
    Rig rig(R"({"modem":{"settings":{"echo":true}}})");
    EXPECT_EQ(rig.send("ATI8\n"), "ATI8\r\n\"89614.1000.00.04.01.02\"\r\n\r\nOK\r\n");
    EXPECT_EQ(rig.send("AT\r\n"), "AT\r\r\nOK\r\n");
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

TEST(Modemsim, CountsWrongPinsAndWantsThePukInTheEnd)
{
    Rig rig(R"({"modem":{"sim":{"state":"pin","lock":true}}})");
    EXPECT_EQ(rig.at("AT+CPIN=\"0000\""), "\r\n+CME ERROR: 16\r\n");
    EXPECT_EQ(rig.at("AT+TPIN?"), answer("+TPIN: 2,10,3,10"));
    rig.at("AT+CPIN=\"0000\"");
    EXPECT_EQ(rig.at("AT+CPIN=\"0000\""), "\r\n+CME ERROR: 12\r\n");
    EXPECT_EQ(rig.at("AT+CPIN?"), answer("+CPIN: SIM PUK"));
    EXPECT_EQ(rig.at("AT+CPIN=\"87654321\",\"4321\""), "\r\n+CME ERROR: 16\r\n");
    EXPECT_EQ(rig.at("AT+CPIN=\"12345678\",\"4321\""), ok);
    EXPECT_EQ(rig.at("AT+CPIN?", 1000), answer("+CPIN: READY") + "\r\n+SIM READY\r\n");
    EXPECT_EQ(rig.at("AT+TPIN?"), answer("+TPIN: 3,10,3,10"));
    EXPECT_EQ(rig.at("AT+CPIN=\"4321\""), "\r\n+CME ERROR: 3\r\n");
    EXPECT_EQ(rig.at("AT+CPWD=\"SC\",\"4321\",\"1111\""), ok);
    EXPECT_EQ(rig.at("AT+CLCK=\"SC\",0,\"4321\""), "\r\n+CME ERROR: 16\r\n");
    EXPECT_EQ(rig.at("AT+CLCK=\"SC\",0,\"1111\""), ok);
    EXPECT_EQ(rig.at("AT+CLCK=\"SC\",2"), answer("+CLCK: 0"));
}

TEST(Modemsim, RefusesOtherCommandsWhileItScans)
{
    Rig rig(R"({"modem":{"behaviour":{"scan_ms":5000}}})");
    EXPECT_EQ(rig.at("AT+COPS=?", 100), "");
    EXPECT_EQ(rig.at("AT+CSQ", 100), "\r\n+CME ERROR: 14\r\n");
    rig.out.clear();
    rig.run(5000);
    EXPECT_EQ(rig.out,
              answer("+COPS: (2,\"CHN-UNICOM\",\"UNICOM\",\"46001\",7),(1,\"CHINA MOBILE\",\"CMCC\",\"46000\",12),"
                     "(1,\"CHN-CT\",\"CT\",\"46011\",7),,(0,1,2,3,4,5),(0,1,2)"));
    EXPECT_EQ(rig.at("AT+CSQ"), answer("+CSQ: 27,99"));
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
    rig.at("AT+CGACT=1,1");
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
    EXPECT_EQ(rig.at("AT+CGACT?"), answer("+CGACT: 1,0\r\n+CGACT: 2,0"));
    EXPECT_EQ(rig.at("AT+CREG?"), answer("+CREG: 0,1"));
}

TEST(Modemsim, GivesActiveContextsTheirAddresses)
{
    Rig rig(R"({"modem":{"kept":{"contexts":{"2":null}}}})");
    EXPECT_EQ(rig.at("AT+CGDCONT=1,\"IP\",\"web\""), ok);
    EXPECT_EQ(rig.at("AT+CGDCONT?"), answer("+CGDCONT: 1,\"IP\",\"web\",\"0.0.0.0\",0,0,0,0"));
    EXPECT_EQ(rig.at("AT$QCRMCALL=1,1,3,2,1"), answer("$QCRMCALL: 1,V4") + "\r\n+CGEV: ME PDN ACT 1\r\n");
    EXPECT_EQ(rig.at("AT+CGDCONT?"), answer("+CGDCONT: 1,\"IP\",\"web\",\"10.9.99.100\",0,0,0,0"));
    EXPECT_EQ(rig.at("AT+CGAUTH=1,2,\"user\",\"secret\""), ok);
    EXPECT_EQ(rig.at("AT+CGAUTH?"), answer("+CGAUTH: 1,2,\"user\",\"secret\""));
    rig.ctl(R"(set {"behaviour":{"address":false}})");
    EXPECT_EQ(rig.at("AT+CGDCONT?"), answer("+CGDCONT: 1,\"IP\",\"web\",\"0.0.0.0\",0,0,0,0"));
    rig.at("AT+CGACT=0,1");
    EXPECT_EQ(rig.at("AT+CGACT?"), answer("+CGACT: 1,0"));
}

TEST(Modemsim, ChoosesACellThatItsRatAllows)
{
    Rig rig(R"({"modem":{"network":{"cell":"nr"}}})");
    EXPECT_EQ(rig.at("AT+COPS?"), answer("+COPS: 0,0,\"CHN-UNICOM\",11"));
    rig.at("AT+GTSET=\"5GSACTR\",0", 1000);
    EXPECT_EQ(rig.at("AT+COPS?"), answer("+COPS: 0,0,\"CHN-UNICOM\",13"));
    EXPECT_EQ(rig.at("AT+GTACT=2,,,103"), ok);
    EXPECT_EQ(rig.at("AT+CREG?", 1000), answer("+CREG: 0,2"));
    EXPECT_EQ(rig.at("AT+COPS?"), answer("+COPS: 0,0,\"CHN-UNICOM\",7"));
    EXPECT_EQ(rig.at("AT+GTACT?"), answer("+GTACT: 2,6,3,103"));
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
    EXPECT_EQ(rig.out, bell);
    EXPECT_EQ(rig.at("AT+CLCC"), answer("+CLCC: 1,1,4,0,0,\"+370000000\",145,\"\""));
    rig.run(3000);
    EXPECT_TRUE(rig.out.ends_with(bell));
    EXPECT_EQ(rig.at("ATH"), ok);
    EXPECT_EQ(rig.at("AT+CLCC", 10000), ok);
    rig.ctl("ring 112");
    rig.out.clear();
    rig.ctl("hangup");
    EXPECT_EQ(rig.out, "\r\nNO CARRIER\r\n");
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
         {"AT+", "AT+=", "AT+CGDCONT=99999999999,\"\",", "AT+CMGD=-1", "AT\"", "AT+CPIN=\"", "AT&", "ATD",
          "AT+CNMI=1,2,3,4,5,6,7", "AT+CMGS=", "AT+COPS=1,2", "AT+CLCK=\"SC\"", "ATE9", "AT;;"})
        EXPECT_NE(rig.at(line), "") << line;
    EXPECT_EQ(rig.at("AT"), ok);
}

} // namespace
