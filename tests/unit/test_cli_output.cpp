// What the tool prints: escaping, widths, JSON, tables, bars and sparklines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "json.h"
#include "output.h"
#include "radio_figures.h"
#include "result_text.h"
#include "table.h"
#include "text.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

using namespace std::string_literals;
using testing::HasSubstr;

static std::string escaped(const std::string &text, Escapes escapes = Escapes::text)
{
    std::string result;
    std::string_view rest(text);
    while (!rest.empty()) {
        char one[ESCAPED_SIZE];
        size_t length = escape_character(rest, escapes, one);
        EXPECT_EQ(strlen(one), length);
        result += one;
    }
    return result;
}

TEST(Escape, NothingDrivesATerminal)
{
    const struct {
        std::string text;
        const char *shown;
        const char *json;
    } rows[] = {
        {"plain, \"quoted\" \\ ", "plain, \"quoted\" \\ ", "plain, \\\"quoted\\\" \\\\ "},
        {"gr\u00fc\u00df \u4f60 \U0001F600", "gr\u00fc\u00df \u4f60 \U0001F600", "gr\u00fc\u00df \u4f60 \U0001F600"},
        {"\x1b[2J\a\n\r\t\x7f", "\\x1b[2J\\x07\\n\\r\\t\\x7f", "\\u001b[2J\\u0007\\n\\u000d\\u0009\\u007f"},
        {"a\0b"s, "a\\x00b", "a\\u0000b"},
        {"\u009b31m\u0080", "\\u009b31m\\u0080", "\\u009b31m\\u0080"}, // C1, the CSI of eight-bit terminals
        {"\x9b"
         "31m",
         "\\x9b31m", "\\ufffd31m"},
        {"\u202eabc\u2066\u200f\ufeff\u2028", "\\u202eabc\\u2066\\u200f\\ufeff\\u2028",
         "\\u202eabc\\u2066\\u200f\\ufeff\\u2028"},
        {"\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xe2\x82",
         "\\xc0\\xaf \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xe2\\x82",
         "\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd\\ufffd \\ufffd\\ufffd"},
        {"\U000E0041", "\\ue0041", "\\ufffd"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(escaped(row.text), row.shown);
        EXPECT_EQ(escaped(row.text, Escapes::json), row.json);
        EXPECT_TRUE(nlohmann::json::accept('"' + escaped(row.text, Escapes::json) + '"'));
    }
    EXPECT_EQ(escaped("a\nb\r", Escapes::lines), "a\nb\\r");
}

TEST(Escape, ALongTextIsCutBetweenCharacters)
{
    for (size_t size = 4; size < 20; size++) {
        std::string buffer(size, '#');
        size_t length = escape_text("ab\u20ac\x1b"
                                    "cdefgh",
                                    buffer.data(), size);
        ASSERT_LT(length, size);
        EXPECT_EQ(strlen(buffer.c_str()), length);
        std::string text(buffer.c_str());
        if (size > 15)
            EXPECT_EQ(text, "ab\u20ac\\x1bcdefgh");
        else
            EXPECT_TRUE(text.ends_with("...")) << text;
        EXPECT_EQ(escaped(text), text) << "a character was cut";
    }
}

TEST(Width, OfWhatATerminalShows)
{
    EXPECT_EQ(text_width("abc"), 3U);
    EXPECT_EQ(text_width("gr\u00fc\u00df"), 4U);
    EXPECT_EQ(text_width("e\u0301"), 1U);
    EXPECT_EQ(text_width("\u4f60\u597d"), 4U);
    EXPECT_EQ(text_width("\U0001F600\uFE0F"), 2U);
    EXPECT_EQ(text_width("\u2582\u00b7"), 2U);
    EXPECT_EQ(fitting_bytes("a\u4f60b", 2), 1U);
    EXPECT_EQ(fitting_bytes("a\u4f60b", 3), 4U);
    EXPECT_EQ(fitting_bytes("e\u0301x", 1), 3U);
    EXPECT_EQ(fitting_bytes("ab", 5), 2U);
}

TEST(Bars, FollowTheValue)
{
    char bars[BARS_SIZE];
    const struct {
        int value;
        const char *bars;
        const char *spark;
    } rows[] = {{-2000, "▂····", "▁"}, {-1200, "▂····", "▁"}, {-1000, "▂▃▅··", "▄"},
                {-701, "▂▃▅▆█", "█"},  {-700, "▂▃▅▆█", "█"},  {0, "▂▃▅▆█", "█"}};
    for (const auto &row : rows) {
        write_bars(row.value, -1200, -700, bars);
        EXPECT_STREQ(bars, row.bars) << row.value;
        EXPECT_STREQ(spark(row.value, -1200, -700), row.spark) << row.value;
    }
}

// What `print` writes to standard output.
static std::string printed(bool json, void (*print)())
{
    testing::internal::CaptureStdout();
    output_start(json);
    print();
    EXPECT_TRUE(output_end());
    return testing::internal::GetCapturedStdout();
}

static void print_a_bit()
{
    static const Column columns[] = {{"name", "NAME", false},
                                     {"level", "LEVEL", true},
                                     {"hidden", "", false},
                                     {"", "SHOWN", false},
                                     {"good", "GOOD", false}};
    json_open(nullptr, '{');
    json_text("sender", "\x1b[1m\"");
    json_text("none", nullptr);
    json_tenths("rsrq", -85);
    json_tenths("half", -5);
    json_number("big", 1234567890123);
    json_bool("unknown", std::nullopt);
    table_begin("rows", columns);
    cell_text("gr\u00fc\u00df\n");
    cell_tenths(-785);
    cell_number(7);
    cell_text(nullptr, "x");
    cell_bool(true, "yes", "no");
    cell_text(nullptr);
    cell_number(std::nullopt);
    cell_number(std::nullopt);
    cell_text(nullptr, "yy");
    cell_bool(std::nullopt, "yes", "no");
    EXPECT_TRUE(table_end("nothing"));
    table_begin("empty", columns);
    EXPECT_TRUE(table_end("nothing"));
    json_close();
    print_row("Label", "%s %d", "\a", 5);
    print_row("Unknown", "%s", "");
    print_colour(Colour::red);
    print_line("%s", "\u009b");
    print_text("two\nlines\x1b\n");
}

TEST(Output, TheSameAsTextAndAsJson)
{
    EXPECT_EQ(printed(false, print_a_bit), "NAME    LEVEL  SHOWN  GOOD\n"
                                           "gr\u00fc\u00df\\n  -78.5  x      yes\n"
                                           "-           -  yy     -\n"
                                           "nothing\n"
                                           "Label         \\x07 5\n"
                                           "Unknown       unknown\n"
                                           "\\u009b\n"
                                           "two\nlines\\x1b\n");
    EXPECT_EQ(printed(true, print_a_bit),
              R"({"sender":"\u001b[1m\"","none":null,"rsrq":-8.5,"half":-0.5,"big":1234567890123,"unknown":null,)"
              R"("rows":[{"name":"grüß\n","level":-78.5,"hidden":7,"good":true},)"
              R"({"name":null,"level":null,"hidden":null,"good":null}],"empty":[]})"
              "\n");
}

static blob_buf answer = {};

TEST(Output, AnyAnswerAsJson)
{
    std::string nest = R"({"t":1})";
    for (int i = 0; i < 100; i++)
        nest = R"({"t":)" + nest + "}";
    const std::string given = R"({"n":-5,"l":1099511627776,"b":true,"d":0.25,"a":["\u001b",{}],"t":)" + nest + "}";
    blob_buf_init(&answer, 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(&answer, given.c_str()));
    blobmsg_add_u16(&answer, "s", static_cast<uint16_t>(-2));
    blobmsg_add_field(&answer, BLOBMSG_TYPE_UNSPEC, "u", nullptr, 0);
    blobmsg_add_string(&answer, "c", "\xff");
    std::string text = printed(true, [] {
        json_open(nullptr, '{');
        json_members(answer.head);
        json_close();
    });
    blob_buf_free(&answer);
    EXPECT_THAT(text, HasSubstr(R"({"n":-5,"l":1099511627776,"b":true,"d":0.25,"a":["\u001b",{}],"t":{"t":{)"));
    EXPECT_THAT(text, HasSubstr(R"("t":null})")) << "too deep";
    EXPECT_THAT(text, HasSubstr(R"("s":-2,"u":null,"c":"\ufffd"})"));
    EXPECT_TRUE(nlohmann::json::accept(text)) << text;
}

TEST(Results, InWordsAndAsExitStatus)
{
    const struct {
        int bus_status;
        int32_t result;
        int elapsed_ms;
        ExitCode code;
        const char *text;
    } rows[] = {
        {0, 0, 5, EXIT_DONE, ""},
        {0, 65535, 5, EXIT_REFUSED, "the modem refused it"},
        {0, 65537, 3004, EXIT_TIMED_OUT, "the modem did not answer within 3 s"},
        {0, 65537, 4, EXIT_REFUSED, "the modem is busy (a network scan, or it is starting) or has nothing to tell"},
        {0, 65535 | 65537, 4, EXIT_REFUSED, "the modem refused a part of it, or did not answer"},
        {0, 3, 4, EXIT_REFUSED, "the router's settings could not be changed (error 3)"},
        {UBUS_STATUS_TIMEOUT, 0, 1002, EXIT_TIMED_OUT, "the daemon did not answer within 1 s"},
        {UBUS_STATUS_NOT_FOUND, 0, 1, EXIT_NO_DAEMON, "celmuxd is not on the bus; is it running?"},
        {UBUS_STATUS_CONNECTION_FAILED, 0, 1, EXIT_NO_DAEMON, "no connection to the bus"},
        {UBUS_STATUS_INVALID_ARGUMENT, 0, 1, EXIT_USAGE, "the daemon does not accept these arguments"},
    };
    for (const auto &row : rows) {
        Reply reply;
        reply.bus_status = row.bus_status;
        reply.answered = row.bus_status == 0;
        reply.result = row.result;
        reply.elapsed_ms = row.elapsed_ms;
        testing::internal::CaptureStderr();
        EXPECT_EQ(explain("x", reply), row.code) << row.text;
        std::string line = *row.text ? "celmux: x: "s + row.text + "\n" : "";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    }
}

TEST(Figures, OfTheDaemonsTexts)
{
    EXPECT_EQ(figure_tenths("-78 dBm"), -780);
    EXPECT_EQ(figure_tenths("-0.5 dB"), -5);
    EXPECT_EQ(figure_tenths("22.0 dB"), 220);
    for (const char *unknown : {"--", "", "x", "99999999999 dB", "-20000 dB"})
        EXPECT_EQ(figure_tenths(unknown), std::nullopt) << unknown;
    EXPECT_EQ(figure_tenths(nullptr), std::nullopt);
}

// One line for each cell: serving, rat, band, channel, PCI, area, identity, level, quality, noise.
static std::string cells_of(std::string_view text)
{
    auto shown = [](auto value) { return value ? std::to_string(*value) : "-"s; };
    bool labelled = false;
    std::string result;
    Cell cell;
    while (next_cell(text, &labelled, &cell)) {
        result += (cell.serving ? "1 " : "2 ") + std::to_string(cell.rat);
        for (const auto &value : {cell.band, cell.arfcn, cell.pci, cell.area, cell.id})
            result += " " + shown(value);
        for (const auto &value : {cell.rsrp, cell.rsrq, cell.sinr})
            result += " " + shown(value);
        result += "\n";
    }
    return result;
}

TEST(Cells, OfEachFormOfTheAnswer)
{
    EXPECT_EQ(cells_of("\r\n+GTCCINFO: \r\nLTE service cell: \r\n1,4,262,02,BFD3,2DA201,189C,30,120,50,16,42,42,26\r\n"
                       "LTE neighbor cell: \r\n2,4,,,,,189C,190,,24,24,2\r\n2,4,,,,,64,EA,,12,12,255\r\n\r\nOK\r\n"),
              "1 4 20 6300 48 49107 2990593 -990 -70 80\n"
              "2 4 - 6300 400 - - -1170 -190 -\n"
              "2 4 - 100 234 - - -1290 - -\n");
    EXPECT_EQ(
        cells_of(
            "+GTCCINFO: \r\nNR service cell: \r\n1,9,310,260,A2E700,101EA212F,7EFAE,290,5041,100,113,87,87,64\r\n"),
        "1 9 41 520110 656 10675968 4327088431 -690 -115 330\n");
    EXPECT_EQ(cells_of("UMTS service cell: \r\n1,2,460,01,5D4,1BC7511,2A05,DB,8,37,41,1,41,0,37"),
              "1 2 8 10757 219 1492 29127953 -800 -60 -\n");
    // Without labels channels and PCI are decimal; all ones are no area.
    EXPECT_EQ(cells_of("+GTCCINFO:\r\n1,4,001,01,ABCD,00ABCDEF0,1850,123,103,100,4,44,44,13\r\n"
                       "1,9,,,FFFFFFF,00FFFFFFF,645312,130,5078,400,2,49,49,69\r\nOK"),
              "1 4 3 1850 123 43981 180150000 -970 -135 20\n"
              "1 9 78 645312 130 - - -1070 -90 -225\n");
    for (const char *none : {"", "\r\nERROR\r\n", "1,4,1", "1,5,,,,,,,,,,,,,", "3,4,,,,,1,1,103,,1,1,1,1",
                             "1,99999999999999999999,,,,,,,,,,,,"})
        EXPECT_EQ(cells_of(none), "") << none;
}
