#include "test_modemsim_rig.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

std::string troubled(const std::string &rules)
{
    return R"({"seed":7,"troubles":[)" + rules + "]}";
}

const std::string csq = answer("+CSQ: 27,99");

TEST(ModemsimTroubles, ChangeWhatGoesOut)
{
    struct Row {
        const char *rule;
        std::string answer;
    };
    const Row rows[] = {
        {R"({"kind":"never"})", ""},
        {R"({"kind":"twice"})", csq + csq},
        {R"({"kind":"error"})", "\r\nERROR\r\n"},
        {R"({"kind":"error","text":"+CME ERROR: 100"})", "\r\n+CME ERROR: 100\r\n"},
        {R"({"kind":"unsolicited","where":"before","text":"+X: 1"})", "\r\n+X: 1\r\n" + csq},
        {R"({"kind":"unsolicited","where":"after","text":"+X: 1"})", csq + "\r\n+X: 1\r\n"},
        {R"({"kind":"cut","at":9})", csq.substr(0, 9)},
        {R"({"kind":"instead","text":"\u0000\r\nOK"})", std::string("\0\r\nOK", 5)},
        {R"({"kind":"endless","bytes":5})", "xxxxx"},
        {R"({"kind":"endless","bytes":5,"answer":true})", "xxxxx" + csq},
        {R"({"kind":"never","command":"at+csq"})", ""},
        {R"({"kind":"never","command":"AT+CREG"})", csq},
        {R"({"kind":"never","nth":2})", csq},
        {R"({"kind":"never","probability":0})", csq},
        {R"({"kind":"never","stage":"prompt"})", csq},
    };
    for (const Row &row : rows) {
        Rig rig(troubled(row.rule));
        EXPECT_EQ(rig.at("AT+CSQ", 1000), row.answer) << row.rule;
    }
}

TEST(ModemsimTroubles, PutLinesAndBytesInside)
{
    Rig rig(troubled(R"({"kind":"holds","text":"OK or ERROR"})"));
    std::string held = rig.at("AT+CSQ");
    size_t place = held.find("OK or ERROR\r\n");
    ASSERT_NE(place, held.npos);
    EXPECT_GT(place, 0u);
    EXPECT_EQ(held.erase(place, 13), csq);

    Rig noisy(troubled(R"({"kind":"rubbish","where":"inside","bytes":40})"));
    EXPECT_EQ(noisy.at("AT+CSQ").size(), csq.size() + 40);
}

// A report with pauses around it is alone on the line for so long.
TEST(ModemsimTroubles, PutReportsBetweenCommandAndAnswerAndIntoTheMiddleOfALine)
{
    const std::string report = "\r\nNO CARRIER\r\n";
    for (const char *where : {"before", "after"}) {
        const bool before = std::string(where) == "before";
        Rig rig(
            troubled(R"({"kind":"unsolicited","text":"NO CARRIER","ms":20,"where":")" + std::string(where) + "\"}"));
        EXPECT_EQ(rig.at("AT+CSQ", 19), before ? report : csq);
        rig.run(1);
        EXPECT_EQ(rig.out, before ? report + csq : csq + report);
    }
    Rig anywhere(troubled(R"({"kind":"unsolicited","where":"anywhere","text":"NO CARRIER","ms":5})"));
    bool in_a_line = false;
    for (int i = 0; i < 50; i++) {
        std::string all = anywhere.at("AT+CSQ", 10);
        size_t place = all.find(report);
        ASSERT_NE(place, all.npos);
        in_a_line = in_a_line || all[place - 1] != '\n';
        EXPECT_EQ(all.erase(place, report.size()), csq);
    }
    EXPECT_TRUE(in_a_line);
}

TEST(ModemsimControl, EmitsBetweenAnswersLinesOrBytes)
{
    for (auto [place, expected] : {std::pair("between", csq + "\r\nRING\r\n"),
                                   {"lines", "\r\n+CSQ: 27,99\r\n\r\nRING\r\n\r\nOK\r\n"},
                                   {"bytes", "\r\n+C\r\nRING\r\nSQ: 27,99\r\n\r\nOK\r\n"}}) {
        Rig rig(R"({"troubles":[{"kind":"split","parts":0,"ms":2}],"modem":{"behaviour":{"latency_ms":5}}})");
        rig.at("AT+CSQ", 11);
        EXPECT_EQ(rig.ctl(std::string("emit RING at=") + place)["ok"], true);
        rig.run(1000);
        EXPECT_EQ(rig.out, expected) << place;
    }
}

TEST(ModemsimTroubles, StrikeByCount)
{
    Rig rig(troubled(R"({"kind":"never","command":"AT+CSQ","every":3,"times":2})"));
    std::string pattern;
    for (int i = 0; i < 12; i++) {
        EXPECT_EQ(rig.at("AT"), ok);
        pattern += rig.at("AT+CSQ").empty() ? '-' : '+';
    }
    EXPECT_EQ(pattern, "++-++-++++++");
    EXPECT_EQ(rig.state("/troubles/counts/never"), 2);
}

TEST(ModemsimTroubles, SplitWithPauses)
{
    Rig rig(troubled(R"({"kind":"split","at":5,"ms":30})"));
    EXPECT_EQ(rig.at("AT+CSQ", 29), csq.substr(0, 5));
    rig.ctl("emit +X"); // stays behind the answer that is under way
    rig.run(1);
    EXPECT_EQ(rig.out, csq + "\r\n+X\r\n");

    Rig dribble(troubled(R"({"kind":"split","parts":0,"ms":2})"));
    EXPECT_EQ(dribble.at("AT+CSQ", 10), csq.substr(0, 6));
    dribble.run(1000);
    EXPECT_EQ(dribble.out, csq);
}

TEST(ModemsimTroubles, LateAnswersOvertakeNothingThatIsDueEarlier)
{
    Rig rig(troubled(R"({"kind":"late","command":"AT+CSQ","ms":500},{"kind":"late","command":"AT+CMGF","ms":100})"));
    EXPECT_EQ(rig.send("AT+CSQ\rAT+CMGF?\rAT+CNMI?\r", 50), answer("+CNMI: 2,1,0,0,0"));
    rig.out.clear();
    rig.run(1000);
    EXPECT_EQ(rig.out, answer("+CMGF: 0") + csq);
}

TEST(ModemsimTroubles, ALatePromptTakesWhatCameBeforeItForText)
{
    Rig rig(troubled(R"({"kind":"prompt_late","ms":1000})"));
    EXPECT_EQ(rig.send("AT+CMGS=17\rAT+CGMI?\r", 999), "");
    rig.run(1);
    EXPECT_EQ(rig.out, "\r\n> ");
    EXPECT_EQ(rig.send("\x1a"), "\r\n+CMS ERROR: 304\r\n");
    // An escape in front keeps the command out of the text.
    EXPECT_EQ(rig.send("AT+CMGS=17\r\x1b"
                       "AT+CMGF?\r",
                       2000),
              "\r\n> " + ok + answer("+CMGF: 0"));
}

TEST(ModemsimTroubles, ThePortVanishesAndComesBack)
{
    Rig rig(troubled(
        R"({"kind":"vanish","where":"answer","nth":1,"ms":500},{"kind":"vanish","where":"write","nth":2,"ms":500})"));
    std::string begun = rig.at("AT+CSQ", 100);
    EXPECT_FALSE(rig.present);
    EXPECT_LT(begun.size(), csq.size());
    EXPECT_EQ(csq.substr(0, begun.size()), begun);
    rig.run(500);
    EXPECT_TRUE(rig.present);
    EXPECT_EQ(rig.at("AT+CMGF=1"), "");
    EXPECT_FALSE(rig.present);
    rig.run(500);
    EXPECT_EQ(rig.at("AT+CMGF?"), answer("+CMGF: 0")); // the command that was lost was not carried out
    EXPECT_EQ(rig.state("/port/losses"), 2);
}

TEST(ModemsimTroubles, AMessageInALostAnswerWasNotHandedOver)
{
    Rig rig(troubled(R"({"kind":"never","command":"AT+CMGR","nth":1})"));
    rig.ctl("sms +49 hi");
    EXPECT_EQ(rig.at("AT+CMGR=1"), "");
    EXPECT_EQ(rig.state("/messages/handed_over"), 0);
    rig.at("AT+CMGR=1");
    EXPECT_EQ(rig.state("/messages/handed_over"), 1);
    EXPECT_EQ(rig.state("/messages/history/0/reads"), 2);
}

TEST(ModemsimTroubles, TheEchoComesBack)
{
    Rig rig(troubled(R"({"kind":"echo"})"));
    EXPECT_EQ(rig.at("AT"), ok);
    EXPECT_EQ(rig.at("AT"), "AT\r" + ok);
}

TEST(ModemsimTroubles, SilenceLastsAsLongAsItIsSaidTo)
{
    Rig rig(troubled(R"({"kind":"silent","ms":4000,"nth":2})"));
    EXPECT_EQ(rig.at("AT"), ok);
    EXPECT_EQ(rig.at("AT", 4000), "");
    EXPECT_EQ(rig.at("AT", 1), "");
    EXPECT_EQ(rig.at("AT"), ok);
}

std::string course(const std::string &profile, uint64_t seed)
{
    Rig rig(profile);
    rig.engine.troubles.seed(seed);
    std::string all;
    for (int i = 0; i < 200; i++) {
        rig.engine.input("AT+CSQ\rAT+CMGL=4\r");
        rig.run(50);
        all += rig.out + "|";
        rig.out.clear();
    }
    return all;
}

std::string read_file(const std::filesystem::path &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(ModemsimProfiles, AreRepeatableBySeed)
{
    std::string mixed = read_file(SOURCE_DIR "/modemsim/profiles/mixed.json");
    std::string once = course(mixed, 3);
    EXPECT_EQ(once, course(mixed, 3));
    EXPECT_NE(once, course(mixed, 4));
}

TEST(ModemsimProfiles, AllLoadAndRun)
{
    int loaded = 0;
    for (const auto &entry : std::filesystem::directory_iterator(SOURCE_DIR "/modemsim/profiles")) {
        SCOPED_TRACE(entry.path());
        Rig rig(read_file(entry.path()));
        for (int i = 0; i < 60; i++) {
            rig.engine.input("AT+CSQ\r");
            rig.run(1000);
        }
        EXPECT_EQ(rig.control.event_error(), "");
        loaded++;
    }
    EXPECT_GT(loaded, 20);
}

TEST(ModemsimProfiles, RefuseWhatTheyDoNotKnow)
{
    for (const char *profile :
         {"nonsense", R"({"modemm":{}})", R"({"modem":{"sim":{"state":"burnt"}}})", R"({"modem":{"kept":{"imx":1}}})",
          R"({"troubles":[{"kind":"late","sm":1}]})", R"({"events":[{"do":"dance"}]})"}) {
        Rig rig;
        EXPECT_THROW(rig.control.load_profile(profile), std::invalid_argument) << profile;
    }
}

TEST(ModemsimControl, SaysWhyItRefuses)
{
    Rig rig;
    for (const char *line : {"", "dance", "sms +49", "sms \"", "pdu XY", "set {", "{\"do\":\"ping\",\"x\":1}", "[1]"}) {
        auto reply = rig.ctl(line);
        EXPECT_EQ(reply["ok"], false) << line;
        EXPECT_NE(reply["error"], "") << line;
    }
}

} // namespace
