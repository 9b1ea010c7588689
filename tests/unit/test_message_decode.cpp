#include "message_decode.h"

#include <cstdlib>
#include <fstream>
#include <memory>

using std::string_literals::operator""s;

struct HeaderRow {
    const char *header;
    bool found;
    Concatenation part;
};

static const HeaderRow headers[] = {
    {"05 00 03 2A 03 01", true, {42, 3, 1}},
    {"06 08 04 01 02 03 01", true, {258, 3, 1}},
    {"06 08 04 ff FF FF ff", true, {65535, 255, 255}},
    {"0A 24 01 01 00 03 2A 03 02", true, {42, 3, 2}}, // behind another element; the length says more than there is
    {"08 24 01 01 00 03 2A 03 02", true, {42, 3, 2}},
    {"0B 05 04 15 81 15 81 00 03 07 02 02", true, {7, 2, 2}},
    {"0A 00 03 01 02 01 00 03 05 02 02", true, {5, 2, 2}}, // the last one counts
    {"0A 00 03 01 02 01 00 03 05 00 02", true, {1, 2, 1}}, // but not one that is to be ignored
    {"05 00 03 2A 03 00", false, {}},
    {"05 00 03 2A 03 04", false, {}},
    {"06 05 04 15 81 15 81", false, {}},
    {"05 00 03 2A 03", false, {}},
    {"05 00 FF 2A 03 01", false, {}},
    {"04 00 02 2A 03", false, {}},
    {"03 24 01 01 00 03 2A 03 02", false, {}}, // behind the end of the header
    {"05 00 03 2A 03 0G", false, {}},
    {"05 00 03 2A 03 100", false, {}},
    {"00", false, {}},
    {"", false, {}},
};

TEST(MessageDecode, FindsTheConcatenationElement)
{
    for (const HeaderRow &row : headers) {
        Concatenation part = {};
        std::unique_ptr<char[]> exact(new char[strlen(row.header)]);
        memcpy(exact.get(), row.header, strlen(row.header));
        EXPECT_EQ(parse_concatenation({exact.get(), strlen(row.header)}, &part), row.found) << row.header;
        EXPECT_EQ(part.csms_ref, row.part.csms_ref) << row.header;
        EXPECT_EQ(part.total, row.part.total) << row.header;
        EXPECT_EQ(part.index, row.part.index) << row.header;
    }
    std::string longest = "FF";
    for (int i = 0; i < 300; i++)
        longest += " 00";
    Concatenation part;
    EXPECT_FALSE(parse_concatenation(longest, &part));
}

static std::string json_of(const std::string &line, bool indented = false)
{
    DecodedMessage *message = nullptr;
    int result = decode_message(line, &message);
    if (result != 0)
        return std::to_string(result);
    char *text = message_json(message, indented);
    std::string json = text;
    free(text);
    free(message);
    return json;
}

TEST(MessageDecode, GivesTheRecordOfAPdu)
{
    EXPECT_EQ(json_of("0891947122575555F0040C919471103254760004423051906235400548656C6C6F"),
              R"({"alphabet":1,"sender":"491701234567","date":"24-03-15","time":"09:26:53","read":false,)"
              R"("message":[72,101,108,108,111],"smsc":"4917227555550","from_toa":"international"})");
    EXPECT_EQ(
        json_of("0891947122575555F0440C9194711032547600084230519062354008050003770201D83D"),
        R"({"alphabet":2,"sender":"491701234567","date":"24-03-15","time":"09:26:53","read":false,"message":[216,61],)"
        R"("smsc":"4917227555550","concatenation_info":{"csms_ref":119,"index":1,"total":2},"from_toa":"international"})");
    EXPECT_EQ(json_of("0891947122575555F0440C9194711032547600004230519062354012050003440000E6F4B09B0C0AB3DFEE32")
                  .find("concatenation_info"),
              std::string::npos);
    EXPECT_NE(
        json_of("0891947122575555F00405812143F500004230519062354002E834", true).find("\n\t\"sender\":\t\"12345\",\n"),
        std::string::npos);
}

// The store keeps no header: what needs the tables that one names is UTF-8 from here on.
TEST(MessageDecode, TextsInNationalLanguageTables)
{
    struct Row {
        const char *what, *rest; // behind the service-centre address
        int alphabet;
        std::string text;
    } rows[] = {
        {"Turkish", "440C91947110325476000042305190623540090325010148760E6B", 3, "Işık"},
        {"the same letters in both", "440C91947110325476000042305190623540070325010140A601", -1, "Hi"},
        {"a part", "440C919471103254760000423051906235400D08000307020125010120D901", 3, "Iş"},
    };
    for (const Row &row : rows) {
        DecodedMessage *message = nullptr;
        ASSERT_EQ(decode_message("0891947122575555F0" + std::string(row.rest), &message), 0) << row.what;
        EXPECT_EQ(message->alphabet, row.alphabet) << row.what;
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(user_data_of(message)), message->length), row.text)
            << row.what;
        free(message);
    }
}

TEST(MessageDecode, RefusesWhatIsNoPdu)
{
    for (const std::string &line :
         {""s, "OK"s, "Hello, world"s, "0891"s, std::string(100000, 'F'), std::string(4097, '0'), "\0\0"s})
        EXPECT_EQ(json_of(line), "-1") << line.substr(0, 20);
    EXPECT_EQ(decode_message("0891", nullptr), -1);
}
