#include "message_send.h"

#include <sms.h>

#include "captured_log.h"
#include "captured_reply.h"
#include "fake_modem_link.h"
#include "handler.h"
#include "log.h"

class MessageSend : public ::testing::Test {
protected:
    void SetUp() override
    {
        clear_log();
        fake_link.reset();
    }
    static std::string send(const std::string &content, const char *dest = "+491701234567")
    {
        return reply_of(handle_send_message,
                        (R"({"dest":")" + std::string(dest) + R"(","type":0,"content":")" + content + "\"}").c_str());
    }
};

TEST_F(MessageSend, OneExchangeForEachPdu)
{
    struct Row {
        size_t characters, pdus;
    };
    for (Row row : {Row{0, 1}, Row{160, 1}, Row{161, 2}, Row{400, 3}}) {
        SetUp();
        EXPECT_EQ(send(std::string(row.characters, 'a')), R"({"result":0})");
        ASSERT_EQ(fake_link.sent.size(), 2 * row.pdus) << row.characters;
        for (size_t i = 0; i < row.pdus; i++) {
            const std::string &pdu = fake_link.sent[2 * i + 1];
            EXPECT_EQ(fake_link.sent[2 * i], "AT+CMGS=" + std::to_string(pdu.size() / 2 - 1) + "\r");
            EXPECT_EQ(log_count("PDU: " + pdu, LOG_DEBUG), 1);
            EXPECT_EQ(fake_link.timeouts[i], 10000u);
        }
        EXPECT_EQ(log_count("waiting from 3s to 10s for IMS", LOG_DEBUG), static_cast<int>(row.pdus));
    }
}

TEST_F(MessageSend, EveryPartIsTriedAndOneFailureShows)
{
    fake_link.answer_in_turn({"+CMGS: 1\r\n\r\nOK\r\n", std::nullopt, "+CMGS: 3\r\n\r\nOK\r\n"});
    EXPECT_EQ(send(std::string(400, 'a')), R"({"result":-1})");
    EXPECT_EQ(fake_link.sent.size(), 6u);
    EXPECT_EQ(log_count("at_send_message return | 0\n", LOG_DEBUG), 1);
    EXPECT_EQ(log_count("at_send_message return | -1\n", LOG_DEBUG), 2);
}

TEST_F(MessageSend, NothingIsSentWithoutAPdu)
{
    for (const char *dest : {"", "+49170\\r\\nAT+CFUN=0", "name", "123456789012345678901"}) {
        EXPECT_EQ(send("hi", dest), R"({"result":-1})") << dest;
        EXPECT_EQ(log_count("encode_message fail\n", LOG_DEBUG), 1);
        clear_log();
    }
    for (const char *arguments : {"{}", R"({"dest":"1","type":0})", R"({"dest":"1","content":"x"})",
                                  R"({"type":0,"content":"x"})", R"({"dest":1,"type":0,"content":"x"})"})
        EXPECT_EQ(reply_of(handle_send_message, arguments), "status 2") << arguments;
    EXPECT_EQ(log_count("UBUS_STATUS_INVALID_ARGUMENT error\n", LOG_DEBUG), 5);
    EXPECT_TRUE(fake_link.sent.empty());
}
