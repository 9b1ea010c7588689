#include <climits>
#include <gtest/gtest.h>

#include "at_mask.h"
#include "at_text.h"
#include "captured_log.h"
#include "fake_modem_link.h"

namespace {

TEST(AtCommand, IsRefusedWhenItIsTooLongOrCouldEndItself)
{
    const auto refused = [](void (*append)(AtCommand *, std::string_view), const std::string &text) {
        fake_link.reset();
        clear_log();
        AtCommand command;
        at_begin(&command, "AT+X=");
        append(&command, text);
        at_append_number(&command, 1);
        bool error = at_send_setter(&command, "at_x") == RESULT_ERROR;
        EXPECT_EQ(fake_link.sent.empty(), error);
        return error && log_count("at_x refused", 3) == 1;
    };
    for (int c = 0; c < 256; c++) {
        bool control = c < ' ' || c == 0x7f;
        std::string text = std::string("a") + static_cast<char>(c) + "b";
        EXPECT_EQ(refused(at_append_quoted, text), control || c == '"') << c;
        EXPECT_EQ(refused(at_append_raw, text), control || c == '"' || c == ';') << c;
    }
    EXPECT_TRUE(refused(at_append_quoted, std::string(2000, 'x')));
    EXPECT_TRUE(refused(at_append_raw, std::string(2000, 'x')));
    EXPECT_TRUE(refused(at_append_raw, "\"a;b\";c"));
    EXPECT_FALSE(refused(at_append_raw, "\"a;b\",c"));
    AtCommand longest;
    at_begin(&longest, std::string(sizeof longest.text - 2, 'x'));
    EXPECT_TRUE(at_command_ok(&longest, "at_x"));
    at_begin(&longest, std::string(sizeof longest.text - 1, 'x'));
    EXPECT_FALSE(at_command_ok(&longest, "at_x"));
}

TEST(AtCommand, IsSentWithItsCarriageReturn)
{
    fake_link.reset();
    AtCommand command;
    at_begin(&command, "AT+X=");
    at_append_number(&command, INT64_MIN);
    at_append(&command, ",");
    at_append_quoted(&command, "Zürich, #1");
    EXPECT_EQ(at_send_setter(&command, "at_x", 6000), RESULT_OK);
    EXPECT_EQ(fake_link.sent, std::vector<std::string>{"AT+X=-9223372036854775808,\"Zürich, #1\"\r"});
    EXPECT_EQ(fake_link.timeouts, std::vector<uint32_t>{6000});
}

TEST(AtClassify, FirstMatchDecides)
{
    const struct {
        const char *text;
        const char *marker;
        result_t code;
    } rows[] = {
        {nullptr, "+X: ", RESULT_ERROR},
        {"\r\n+CME ERROR: 10\r\n", "+X: ", RESULT_ERROR},
        {"\r\nOK\r\nERROR\r\n", nullptr, RESULT_ERROR},
        {"\r\nNO CARRIER\r\nOK\r\n", nullptr, RESULT_OK},
        {"\r\nNO CARRIER\r\n", "+X: ", RESULT_NO_CARRIER},
        {"\r\n+X: 1\r\n", "+X: ", RESULT_INCOMPLETE},
        {"\r\n+X: 1\r\n", nullptr, RESULT_ERROR},
        {"", "+X: ", RESULT_ERROR},
    };
    for (const auto &row : rows)
        EXPECT_EQ(at_classify(row.text, row.marker), row.code) << (row.text ? row.text : "null");
}

// What `next` takes off the text, piece by piece.
std::vector<std::string> pieces(bool (*next)(std::string_view *, std::string_view *), std::string_view text)
{
    std::vector<std::string> all;
    for (std::string_view piece; next(&text, &piece);)
        all.emplace_back(piece);
    return all;
}

TEST(AtText, FieldsAndLines)
{
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(pieces(next_field, "a,,b"), (Pieces{"a", "", "b"}));
    EXPECT_EQ(pieces(next_field, "x,"), (Pieces{"x", ""}));
    EXPECT_EQ(pieces(next_field, " \"a,b\" ,\"c,d"), (Pieces{" \"a,b\" ", "\"c", "d"}));
    EXPECT_EQ(pieces(next_line, "\r\n\r\none\r\ntwo\nthree"), (Pieces{"one", "two", "three"}));
}

TEST(AtText, NumbersSaturateAndStopAtTheFirstOtherCharacter)
{
    const struct {
        const char *text;
        int32_t value;
    } rows[] = {{"", 0},
                {"x1", 0},
                {" 12x", 12},
                {"-7,", -7},
                {"+3", 3},
                {"-", 0},
                {"99999999999999999999", INT32_MAX},
                {"-99999999999", INT32_MIN}};
    for (const auto &row : rows)
        EXPECT_EQ(leading_int(row.text), row.value) << row.text;

    uint64_t value = 7;
    EXPECT_TRUE(parse_hex("5A4F00E", &value));
    EXPECT_EQ(value, 0x5A4F00Eu);
    EXPECT_TRUE(parse_hex("ffffffffffffffff", &value));
    EXPECT_EQ(value, UINT64_MAX);
    EXPECT_FALSE(parse_hex("10000000000000000", &value));
    EXPECT_FALSE(parse_hex("", &value));
    EXPECT_FALSE(parse_hex("xyz", &value));
}

TEST(AtText, CopiesWholeOrNotAtAll)
{
    char out[4] = "";
    EXPECT_TRUE(copy_text(out, "abc"));
    EXPECT_STREQ(out, "abc");
    EXPECT_FALSE(copy_text(out, "defg"));
    EXPECT_STREQ(out, "abc");
    copy_cut(out, "defg");
    EXPECT_STREQ(out, "def");
}

TEST(Masked, HidesSecretsAndNothingElse)
{
    const struct {
        const char *text;
        const char *shown;
    } rows[] = {
        {"AT+CPIN=\"1234\"\r", "AT+CPIN=\"****\"\r"},
        {"at+cpin=12345678,\"0000\"", "at+cpin=********,\"****\""},
        {"AT+CLCK=\"SC\",1,\"12,4\"\r", "AT+CLCK=\"SC\",1,\"****\"\r"},
        {"AT+CPWD=\"SC\",\"1234\",\"5678\"\r", "AT+CPWD=\"SC\",\"****\",\"****\"\r"},
        {"AT+CGAUTH=1,2,\"user\",\"pass\"\r\r\nOK\r\n", "AT+CGAUTH=1,2,\"user\",\"****\"\r\r\nOK\r\n"},
        {"+CGAUTH: 1,1,\"probe\",\"pro;be\"\r\n+CGAUTH: 0,0,\"\",\"\"\r\n",
         "+CGAUTH: 1,1,\"probe\",\"******\"\r\n+CGAUTH: 0,0,\"\",\"\"\r\n"},
        {"AT$QCPDPP=1,2,\"pass\",\"user\"\r", "AT$QCPDPP=1,2,\"****\",\"****\"\r"},
        {"$QCPDPP: 1,2,\"pass\"", "$QCPDPP: 1,2,\"****\""},
        {"AT+CPIN = \"4321\"\r", "AT+CPIN = \"****\"\r"},
        {"at + c pin\t=4321\r", "at + c pin\t=****\r"},
        {"AT+CMEE=1;+CPIN=\"1\";+CSQ", "AT+CMEE=1;+CPIN=\"*\";+CSQ"},
        {"AT+CPIN?\r", "AT+CPIN?\r"},
        {"+CPIN: READY", "+CPIN: READY"},
        {"AT+CLCK=\"SC\",2\r", "AT+CLCK=\"SC\",2\r"},
        {"", ""},
    };
    for (const auto &row : rows)
        EXPECT_STREQ(Masked(row.text).text, row.shown);
    EXPECT_EQ(Masked(std::string_view("+CPIN=12").substr(0, 7)).length, 7);
}

// However a read cuts it.
TEST(Masked, GoesOnInTheNextPiece)
{
    const std::string text = "AT+CPIN=\"4321\"\r\r\nOK\r\n1234";
    for (size_t cut = 0; cut <= text.size(); cut++) {
        SecretScan scan = {};
        std::string shown = Masked(std::string_view(text).substr(0, cut), &scan).text;
        shown.resize(std::min(shown.size(), cut));
        std::string rest = text.substr(cut);
        EXPECT_EQ(shown + Masked(rest, &scan).text, "AT+CPIN=\"****\"\r\r\nOK\r\n1234") << cut;
    }
}

} // namespace
