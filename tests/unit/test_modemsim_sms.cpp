#include "modemsim/sms_deliver.h"
#include "modemsim/sms_submit.h"
#include "test_modemsim_rig.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using modemsim::Deliver;
using modemsim::deliver_pdus;

TEST(SmsDeliver, CutsLongTextsBetweenCharacters)
{
    struct Row {
        const char *what;
        std::string text;
        bool wide;
        std::vector<size_t> lengths; ///< of the parts' user data, in septets or octets
    };
    std::string smile = "\xF0\x9F\x98\x80";
    std::string smiles;
    for (int i = 0; i < 36; i++)
        smiles += smile;
    const Row rows[] = {
        {"160 fit into one", std::string(160, 'a'), false, {160}},
        {"161 need two", std::string(161, 'a'), false, {160, 15}},
        {"with a wide reference", std::string(161, 'a'), true, {160, 17}},
        {"no escape at a part's end", std::string(152, 'a') + "\xE2\x82\xAC" + std::string(10, 'b'), false, {159, 19}},
        {"no half surrogate pair at a part's end", smiles, false, {6 + 132, 6 + 12}},
    };
    for (const Row &row : rows) {
        Deliver message{.from = "+49", .text = row.text, .wide_reference = row.wide, .reference = 300};
        std::vector<size_t> lengths;
        for (const std::string &pdu : deliver_pdus(message)) {
            ASSERT_TRUE(modemsim::is_deliver_pdu(pdu));
            size_t length = (9 + 1 + 3 + 2 + 7) * 2; // behind centre, first octet, sender, PID, DCS and time
            lengths.push_back(std::stoul(pdu.substr(length, 2), nullptr, 16));
        }
        EXPECT_EQ(lengths, row.lengths) << row.what;
    }
}

TEST(SmsSubmit, DecodesWhatTheHostSends)
{
    struct Row {
        const char *pdu;
        const char *to;
        const char *text;
        int part, parts, reference;
    };
    const Row rows[] = {
        {"0011000B916407281553F80000AA0AE8329BFD4697D9EC37", "+46708251358", "hellohello", 1, 1, 0},
        {"0001000481445500080A00470072FC00D83DDE00", "4455", "Gr\xEF\xB0\x80\xF0\x9F\x98\x80", 1, 1, 0},
        {"0041000B916407281553F800000905000309020190CD", "+46708251358", "HM", 1, 2, 9},
        {"0041000B916407281553F800080906080401020302D83D", "+46708251358", "?", 2, 3, 258},
    };
    for (const Row &row : rows) {
        modemsim::Submit submit = modemsim::decode_submit(row.pdu);
        EXPECT_TRUE(submit.valid) << row.pdu;
        EXPECT_EQ(submit.to, row.to);
        EXPECT_EQ(submit.text, row.text);
        EXPECT_EQ(submit.part, row.part);
        EXPECT_EQ(submit.parts, row.parts);
        EXPECT_EQ(submit.reference, row.reference);
        for (size_t length = 0; length < strlen(row.pdu); length++)
            EXPECT_FALSE(modemsim::decode_submit(std::string_view(row.pdu, length)).valid) << length;
    }
    for (const char *pdu : {"xx", "0004000B916407281553F80000AA0AE8329BFD4697D9EC37", "0001000481445500040141"})
        EXPECT_FALSE(modemsim::decode_submit(pdu).valid) << pdu;
}

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
