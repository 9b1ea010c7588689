#include "at_packet.h"

#include "fake_shell.h"
#include "fake_wanmd.h"
#include "modem_test.h"
#include "profile_store.h"
#include "waiting.h"

// Everything that leaves the daemon, in order.
static Strings events;

class AtPacket : public ModemTest<fake_shell, fake_wanmd> {
protected:
    void SetUp() override
    {
        events.clear();
        fake_shell.status = [](const std::string &command) {
            events.push_back(command);
            return 1; // is not looked at
        };
        fake_wanmd.on_notice = [](const std::string &notice) { events.push_back(notice); };
        answer("\r\nOK\r\n");
    }
    static void answer(Answer text)
    {
        fake_link.answer = [text](const std::string &command) {
            events.push_back(command);
            return text;
        };
    }
};

static ApnProfile profile(int32_t family, const char *apn)
{
    ApnProfile record = {};
    record.ip_family = family;
    record.apn = apn;
    return record;
}

TEST_F(AtPacket, ContextTellsTheFamilyBeforeItIsDefined)
{
    const ApnProfile ipv6 = profile(2, "internet"), ipv4 = profile(0, ""), odd = profile(1, "x;y");
    const ApnProfile hostile = profile(0, "a\rATZ");
    struct {
        int32_t cid;
        const ApnProfile *record;
        const char *notice, *family, *command; // null: not there
    } rows[] = {
        {1, &ipv6, "apn_ipv6", "IPV6", "AT+CGDCONT=1,\"IPV6\",\"internet\"\r"},
        {3, &ipv4, "apn_ipv4", "IPV4", "AT+CGDCONT=3,\"IP\"\r"},
        {2, &odd, nullptr, nullptr, "AT+CGDCONT=2,\"IPV4V6\",\"x;y\"\r"},
        {2, nullptr, nullptr, nullptr, "AT+CGDCONT=2,\"IPV4V6\",\"ims\"\r"},
        {1, &hostile, nullptr, nullptr, nullptr},
        {3, nullptr, nullptr, nullptr, nullptr},
    };
    for (const auto &row : rows) {
        Strings expected;
        if (row.notice)
            expected.push_back(row.notice);
        if (row.family)
            expected.insert(expected.end(),
                            {"uci set wanmd.@profile[0].ip_family=" + std::string(row.family), "uci commit wanmd"});
        if (row.command)
            expected.push_back(row.command);
        events.clear();
        result_t code = at_set_pdp_context(row.cid, row.record);
        EXPECT_EQ(code, row.command ? RESULT_OK : row.record ? RESULT_ERROR : RESULT_REFUSED);
        EXPECT_EQ(events, expected);
    }
    EXPECT_EQ(log_count("execute: AT+CGDCONT=1,\"IPV6\",\"internet\"\n"), 1);
    EXPECT_EQ(log_count("refused", LOG_ERR), 1);
    EXPECT_EQ(at_set_pdp_auth(2, nullptr), RESULT_REFUSED) << "IMS has no default";
    answer("\r\n+CME ERROR: 3\r\n");
    EXPECT_EQ(at_set_pdp_context(3, &ipv4), RESULT_ERROR);
}

TEST_F(AtPacket, TheEmptyContextIsToldWhenItIsDefined)
{
    EXPECT_EQ(at_set_pdp_context(1, nullptr), RESULT_OK);
    EXPECT_EQ(events, (Strings{"AT+CGDCONT=1,\"IPV4V6\",\"\"\r", "apn_ipv4v6"}));
    answer(std::nullopt);
    EXPECT_EQ(at_set_pdp_context(1, nullptr), RESULT_REQUEST_FAILED);
    EXPECT_EQ(fake_wanmd.notices, (Strings{"apn_ipv4v6"})) << "of the first call alone";
}

TEST_F(AtPacket, ImsVoiceIsSetOnlyWhenItsStateDiffers)
{
    const std::string query = "AT+CAVIMS?\r", set = "AT+CAVIMS=1\r", OK = "\r\nOK\r\n";
    const Answer none = std::nullopt;
    struct {
        std::vector<Answer> answers;
        int32_t enable;
        result_t code;
        Strings sent;
    } rows[] = {
        {{ok_answer({"+CAVIMS: 1"})}, 1, RESULT_OK, {query}},
        {{ok_answer({"+CAVIMS: 0"})}, 0, RESULT_OK, {query}},
        {{ok_answer({"+CAVIMS:1"})}, 1, RESULT_OK, {query}},
        {{"+CAVIMS: 1"}, 1, RESULT_ERROR, {query}},
        {{ok_answer({"+CAVIMS: 0"}), OK}, 1, RESULT_OK, {query, set}},
        // A digit elsewhere says nothing about the state.
        {{ok_answer({"+CTZV: +1,+CAVIMS: 1", "+CAVIMS: 0"}), OK}, 1, RESULT_OK, {query, set}},
        {{ok_answer({"+CAVIMS: (0,1)"}), OK}, 0, RESULT_OK, {query, "AT+CAVIMS=0\r"}},
        {{"\r\n+CME ERROR: 100\r\n", "\r\nERROR\r\n"}, 1, RESULT_ERROR, {query, set}},
        {{none, none, ok_answer({"+CAVIMS: 1"})}, 1, RESULT_OK, {query, query, query}},
        {{none, none, none, none, none, none, OK}, 1, RESULT_OK, {query, query, query, query, query, set, set}},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        fake_link.answer_in_turn(row.answers);
        EXPECT_EQ(at_set_ims_voice(row.enable), row.code) << row.sent.size();
        EXPECT_EQ(fake_link.sent, row.sent);
    }
    fake_link.reset();
    fake_link.answer_always(std::nullopt);
    EXPECT_EQ(at_set_ims_voice(1), RESULT_ERROR);
    EXPECT_EQ(fake_link.sent.size(), 10u);
    EXPECT_EQ(fake_link.expected.front(), "+CAVIMS:");
    EXPECT_EQ(fake_link.expected.back(), "OK");
}
