#include "at_packet.h"

#include "fake_shell.h"
#include "fake_wanmd.h"
#include "modem_test.h"
#include "profile_store.h"

static const Strings NONE;

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

static ApnProfile profile(int32_t family, const char *apn, int32_t auth = 0, const char *user = nullptr,
                          const char *password = nullptr)
{
    ApnProfile record = {};
    record.ip_family = family;
    record.apn = apn;
    record.auth = auth;
    record.username = user;
    record.password = password;
    return record;
}

TEST_F(AtPacket, DataCallLeavesOutWhatIsNotGiven)
{
    const std::string long_apn(300, 'a');
    struct {
        RmnetCallRequest call;
        std::string sent; // empty: refused
    } rows[] = {
        {{1, 0, 0, 0, 0, 0, 0, 0, {}}, "AT$QCRMCALL=1,1\r"},
        {{1, 1, 1, 1, 1, 0, 0, 0, {}}, "AT$QCRMCALL=1,1,1,2,1\r"},
        {{0, 0, 0, 0, 0, 1, 7, 1, "net"}, "AT$QCRMCALL=0,1,7,\"net\"\r"},
        {{1, 1, 300, 0, 0, 0, 0, 1, ""}, "AT$QCRMCALL=1,1,300\r"},
        {{1, 0, 0, 0, 0, 0, 0, 1, long_apn}, "AT$QCRMCALL=1,1,\"" + long_apn + "\"\r"},
        {{1, 0, 0, 0, 0, 0, 0, 1, "a\"b"}, ""},
        {{1, 0, 0, 0, 0, 0, 0, 1, "a\bAT+CFUN=0"}, ""},
    };
    for (const auto &row : rows) {
        fake_link.sent.clear();
        clear_log();
        EXPECT_EQ(at_rmnet_call(&row.call), row.sent.empty() ? RESULT_ERROR : RESULT_OK) << row.sent;
        EXPECT_EQ(fake_link.sent, row.sent.empty() ? NONE : Strings{row.sent});
        EXPECT_EQ(logged().size(), row.sent.empty() ? 1u : 0u);
    }
}

TEST_F(AtPacket, AuthenticationNamesUserAndPasswordOnlyWhenThereIsOne)
{
    const ApnProfile with_user = profile(0, "net", 1, "me", "secret");
    const ApnProfile without_user = profile(0, "net", 2);
    const ApnProfile none = profile(0, "net", 0, "me", "secret");
    const ApnProfile hostile = profile(0, "net", 1, "me\",\"\"\rATZ", "x");
    struct {
        int32_t cid;
        const ApnProfile *record;
        result_t code;
        Strings sent;
    } rows[] = {
        {1, nullptr, RESULT_OK, {"AT+CGAUTH=1,0,\"\",\"\"\r"}},
        {2, nullptr, RESULT_REFUSED, {}},
        {1, &with_user, RESULT_OK, {"AT+CGAUTH=1,1,\"me\",\"secret\"\r"}},
        {1, &without_user, RESULT_OK, {"AT+CGAUTH=1,2,\"\",\"\"\r"}},
        {2, &none, RESULT_OK, {"AT+CGAUTH=2,0\r"}},
        {1, &hostile, RESULT_ERROR, {}},
    };
    for (const auto &row : rows) {
        fake_link.sent.clear();
        EXPECT_EQ(at_set_pdp_auth(row.cid, row.record), row.code);
        EXPECT_EQ(fake_link.sent, row.sent);
    }
    EXPECT_EQ(log_count("secret"), 0);
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
    const std::string query = "AT+CAVIMS?\r";
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
        {{ok_answer({"+CAVIMS: 0"}), "\r\nOK\r\n"}, 1, RESULT_OK, {query, "AT+CAVIMS=1\r"}},
        // A digit elsewhere says nothing about the state.
        {{ok_answer({"+CTZV: +1,+CAVIMS: 1", "+CAVIMS: 0"}), "\r\nOK\r\n"}, 1, RESULT_OK, {query, "AT+CAVIMS=1\r"}},
        {{ok_answer({"+CAVIMS: (0,1)"}), "\r\nOK\r\n"}, 0, RESULT_OK, {query, "AT+CAVIMS=0\r"}},
        {{"\r\n+CME ERROR: 100\r\n", "\r\nERROR\r\n"}, 1, RESULT_ERROR, {query, "AT+CAVIMS=1\r"}},
        {{std::nullopt, std::nullopt, ok_answer({"+CAVIMS: 1"})}, 1, RESULT_OK, {query, query, query}},
        {{std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt, "\r\nOK\r\n"},
         1,
         RESULT_OK,
         {query, query, query, query, query, "AT+CAVIMS=1\r", "AT+CAVIMS=1\r"}},
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

static const char DUAL_STACK[] =
    "\r\n+CGDCONT: 0,\"IPV4V6\",\"CMIOT\",\"10.9.99.100,32.1.13.184.0.30.4.217.0.0.0.0.0.0.0.1\",0,0,0,0\r\n"
    "+CGDCONT: 1,\"IPV4V6\",\"CMIOT\",\"10.9.99.100,32.1.13.184.0.30.4.217.0.0.0.0.0.0.0.1\",0,0,0,0\r\n"
    "+CGDCONT: 2,\"IPV4V6\",\"\",\"0.0.0.0,0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0\",0,0,0,0\r\n"
    "+CGDCONT: 11,\"IPV6\",\"ims\",\"0.0.0.0,0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0\",0,0,0,0\r\n\r\nOK\r\n";

TEST_F(AtPacket, ConnectedMeansAnAddressOfContextOne)
{
    struct {
        Answer answer;
        result_t code;
        uint8_t connected;
    } rows[] = {
        {DUAL_STACK, RESULT_OK, 1},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"auto\",\"10.1.2.3\",0,0,0,0"}), RESULT_OK, 1},
        {"\r\n+CGDCONT: 1,\"IP\",\"auto\",\"10.1.2.3\"\r\n", RESULT_OK, 1},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"auto\",\"0.0.0.0\",0,0,0,0"}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 1,\"IPV4V6\",\"a,b\",\"0.0.0.0,32.1.13.184.0.30.4.217.0.0.0.0.0.0.0.1\",0,0,0,0"}),
         RESULT_OK, 1},
        {ok_answer({"+CGDCONT: 1,\"IPV4V6\",\"\",\"0.0.0.0, 0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0\",0,0"}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 1,\"IPV6\",\"\",\"::\",0,0"}), RESULT_OK, 0},
        {ok_answer({"+CTZV: +CGDCONT: 1,\"IP\",\"auto\",\"10.1.2.3\"", "+CGDCONT:1,\"IP\",\"auto\",\"0.0.0.0\""}),
         RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 1,\"IPV4V6\",\"x\",\"\",,,,,,,,,,"}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"auto\""}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 11,\"IP\",\"auto\",\"10.1.2.3\",0"}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 2,\"IP\",\"auto\",\"10.1.2.3\",0"}), RESULT_OK, 0},
        {ok_answer({"+CGDCONT: 1,\"IP\"", "+CGDCONT: 2,\"IP\",\"x\",\"10.1.2.3\""}), RESULT_OK, 0},
        {"+CGDCONT: 1,", RESULT_INCOMPLETE, 0},
        {"+CGDCONT: ", RESULT_INCOMPLETE, 0},
        {"\r\nERROR\r\n", RESULT_ERROR, 0},
        {std::nullopt, RESULT_REQUEST_FAILED, 0},
    };
    for (const auto &row : rows) {
        uint8_t connected = 0;
        answer(row.answer);
        EXPECT_EQ(at_check_connectivity(&connected), row.code) << row.answer.value_or("silence");
        EXPECT_EQ(connected, row.connected) << row.answer.value_or("silence");
    }
}

TEST_F(AtPacket, CurrentApnIsOfItsContextAlone)
{
    const std::string apn63(63, 'a');
    struct {
        Answer answer;
        int32_t cid;
        result_t code;
        std::string apn;
        int32_t family;
    } rows[] = {
        {DUAL_STACK, 1, RESULT_OK, "CMIOT", 3},
        {DUAL_STACK, 2, RESULT_OK, "", 3},
        {DUAL_STACK, 11, RESULT_OK, "ims", 2},
        {DUAL_STACK, 3, RESULT_OK, "", -1},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"auto\",\"0.0.0.0\",0,0,0,0"}), 1, RESULT_OK, "auto", 0},
        {ok_answer({"+CGDCONT: 1,\"PPP\",\"auto\""}), 1, RESULT_OK, "auto", -1},
        {ok_answer({"+CGDCONT: 1,\"IP\""}), 1, RESULT_OK, "", 0},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"" + apn63 + "\",\"\""}), 1, RESULT_OK, apn63, 0},
        {ok_answer({"+CGDCONT: 1,\"IP\",\"" + apn63 + "a\",\"\""}), 1, RESULT_ERROR, "", -1},
        {"\r\n+CGDCONT: 1,\"IPV6\",\"x\"", 1, RESULT_INCOMPLETE, "x", 2},
        {"\r\n+CME ERROR: 10\r\n", 1, RESULT_ERROR, "", -1},
        {std::nullopt, 1, RESULT_REQUEST_FAILED, "", -1},
    };
    for (const auto &row : rows) {
        char apn[64] = "";
        int32_t family = -1;
        answer(row.answer);
        EXPECT_EQ(at_get_current_apn(row.cid, apn, &family), row.code) << row.answer.value_or("silence");
        EXPECT_EQ(apn, row.apn) << row.answer.value_or("silence");
        EXPECT_EQ(family, row.family) << row.answer.value_or("silence");
    }
    EXPECT_EQ(fake_link.expected.front(), "+CGDCONT:");
}
