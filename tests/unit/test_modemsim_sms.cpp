#include "test_modemsim_rig.h"

#include <gtest/gtest.h>

namespace {

TEST(ModemsimSms, AnnouncesListsReadsAndDeletes)
{
    Rig rig;
    std::string pdu = rig.ctl("sms +491701234567 Hello")["pdus"][0];
    EXPECT_EQ(rig.out, "\r\n+CMTI: \"SM\",1\r\n");
    rig.ctl("sms +491701234567 World");
    EXPECT_EQ(rig.at("AT+CMGL=0").substr(0, 22 + pdu.size()), "\r\n+CMGL: 1,0,,24\r\n" + pdu + "\r\n+C");
    EXPECT_EQ(rig.at("AT+CMGL=0"), ok);
    EXPECT_EQ(rig.at("AT+CMGR=1"), answer("+CMGR: 1,,24\r\n" + pdu));
    EXPECT_EQ(rig.at("AT+CMGD=1"), ok);
    EXPECT_EQ(rig.at("AT+CMGR=1"), "\r\n+CMS ERROR: 321\r\n");
    EXPECT_EQ(rig.at("AT+CPMS?"), answer("+CPMS: \"SM\",1,20,\"SM\",1,20,\"SM\",1,20"));
    EXPECT_EQ(rig.at("AT+CPMS=\"ME\",\"ME\",\"SM\""), answer("+CPMS: 0,20,0,20,1,20"));
    auto first = rig.state("/messages/history/0");
    EXPECT_EQ(first["reads"], 2);
    EXPECT_EQ(first["handed_over"], 2);
    EXPECT_EQ(first["deleted"], true);
    EXPECT_EQ(rig.state("/messages/handed_over"), 2);
}

TEST(ModemsimSms, DeliversDirectlyWhereAsked)
{
    Rig rig;
    rig.at("AT+CNMI=2,2");
    rig.out.clear();
    std::string pdu = rig.ctl("sms +491701234567 Hello")["pdus"][0];
    EXPECT_EQ(rig.out, "\r\n+CMT: ,24\r\n" + pdu + "\r\n");
    EXPECT_EQ(rig.at("AT+CNMA"), ok);
    EXPECT_EQ(rig.state("/messages/used/SM"), 0);
}

TEST(ModemsimSms, SubmitsAfterThePrompt)
{
    const std::string pdu = "0001000B911346610089F60000046B7B5A0E"; // 17 octets behind the empty centre
    struct Row {
        const char *command, *data, *answer;
        int submissions;
    };
    const Row rows[] = {
        {"AT+CMGS=17", "\x1a", "\r\n+CMGS: 1\r\n\r\nOK\r\n", 1},
        {"AT+CMGS=16", "\x1a", "\r\n+CMS ERROR: 304\r\n", 1},
        {"AT+CMGS=17", "0\x1a", "\r\n+CMS ERROR: 304\r\n", 1},
        {"AT+CMGS=17", "\x1b", "\r\nOK\r\n", 0},
    };
    for (const Row &row : rows) {
        Rig rig;
        EXPECT_EQ(rig.at(row.command), "\r\n> ");
        EXPECT_EQ(rig.send(pdu), "");
        EXPECT_EQ(rig.send(row.data), row.answer) << row.command;
        EXPECT_EQ(rig.state("/submissions").size(), row.submissions);
        EXPECT_EQ(rig.at("AT"), ok);
    }
    Rig nowhere(R"({"modem":{"network":{"cell":"none"}}})");
    nowhere.at("AT+CMGS=17");
    EXPECT_EQ(nowhere.send(pdu + "\x1a"), "\r\n+CMS ERROR: 331\r\n");
    EXPECT_EQ(nowhere.at("AT+CMGS=x"), "\r\n+CMS ERROR: 304\r\n");
}

TEST(ModemsimSms, HoldsUnsolicitedLinesBackWhileATextIsTaken)
{
    Rig rig;
    rig.at("AT+CMGS=17");
    rig.out.clear();
    rig.ctl("sms +49 hi");
    EXPECT_EQ(rig.out, "");
    EXPECT_EQ(rig.send("\x1b"), ok + "\r\n+CMTI: \"SM\",1\r\n");
}

} // namespace
