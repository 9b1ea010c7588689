#include "sms_outputs.h"

#include <set>
#include <thread>

namespace {

std::string repeated(const std::string &text, std::size_t count)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

// What each part carries, in septets or UCS2 units.
std::vector<int> units(const Parts &parts)
{
    std::vector<int> counts;
    for (const sms_pdu &part : parts.pdus) {
        counts.push_back(split(part.pdu).result / (part.alphabet == SMS_ALPHABET_UCS2 ? 2 : 1));
    }
    return counts;
}

TEST(SmsEncode, KnownPdu)
{
    const Parts parts = encode("+46708251358", SMS_NUMBER_BY_PLUS, "hellohello");
    ASSERT_EQ(parts.pdus.size(), 1u);
    EXPECT_STREQ(parts.pdus[0].pdu, "0011000B916407281553F80000A70AE8329BFD4697D9EC37");
    EXPECT_EQ(parts.pdus[0].length, 23);
    EXPECT_EQ(parts.pdus[0].alphabet, SMS_ALPHABET_GSM);
    EXPECT_EQ(parts.pdus[0].number_type, SMS_NUMBER_INTERNATIONAL);
    EXPECT_STREQ(parts.pdus[0].number, "46708251358");
    EXPECT_STREQ(encode("*100#", 0, "ж").pdus.at(0).pdu, "00110005811A00FB0008A7020436");
    EXPECT_STREQ(encode("12", 0, "").pdus.at(0).pdu, "001100028121"
                                                     "0000A700");
}

TEST(SmsEncode, LongTextsAreCutWherePairsEnd)
{
    struct Row {
        std::string text;
        std::vector<int> units;
    };
    for (const Row &row : std::vector<Row>{{"", {0}},
                                           {repeated("a", 160), {160}},
                                           {repeated("a", 161), {153, 8}},
                                           {repeated("a", 306), {153, 153}},
                                           {repeated("a", 307), {153, 153, 1}},
                                           {repeated("a", 158) + "€", {160}},
                                           {repeated("a", 159) + "€", {153, 8}},
                                           {repeated("a", 152) + "€" + repeated("b", 10), {152, 12}},
                                           {repeated("€", 80), {160}},
                                           {repeated("€", 81), {152, 10}},
                                           {repeated("ж", 70), {70}},
                                           {repeated("ж", 71), {67, 4}},
                                           {repeated("😀", 35), {70}},
                                           {repeated("😀", 36), {66, 6}},
                                           {repeated("ж", 66) + "😀" + repeated("ж", 4), {66, 6}}}) {
        const Parts parts = encode("+491701234567", 0, row.text);
        EXPECT_EQ(parts.error, 0);
        EXPECT_EQ(units(parts), row.units) << row.text;
        EXPECT_EQ(joined_text(parts), row.text);
    }
}

TEST(SmsEncode, PartsAreNumberedAndShareAReference)
{
    const Parts parts = encode("+491701234567", 0, repeated("0123456789", 40));
    ASSERT_EQ(parts.pdus.size(), 3u);
    const std::string header = split(parts.pdus[0].pdu).header_text;
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string pdu = parts.pdus[i].pdu;
        EXPECT_EQ(split(pdu).header_text, "05 00 03 " + header.substr(9, 2) + " 03 0" + std::to_string(i + 1));
        EXPECT_TRUE(pdu.starts_with("0051"));
        EXPECT_EQ(2u * static_cast<std::size_t>(parts.pdus[i].length) + 2, pdu.size());
    }
}

TEST(SmsEncode, AtMost255Parts)
{
    for (const auto &[character, room] : std::vector<std::pair<std::string, std::size_t>>{{"a", 153}, {"ж", 67}}) {
        const Parts most = encode("1", 0, repeated(character, 255 * room));
        EXPECT_EQ(most.pdus.size(), 255u);
        EXPECT_EQ(split(most.pdus.at(254).pdu).header_text.substr(12), "FF FF");
        const Parts more = encode("1", 0, repeated(character, 255 * room + 1));
        EXPECT_EQ(more.error, SMS_ERROR_TOO_LONG);
        EXPECT_TRUE(more.pdus.empty());
    }
}

TEST(SmsEncode, ReferencesDifferAlsoBetweenThreads)
{
    constexpr std::size_t threads = 4, messages = 64;
    std::vector<std::string> found[threads];
    std::vector<std::thread> running;
    for (auto &mine : found) {
        running.emplace_back([&mine] {
            for (std::size_t k = 0; k < messages; ++k) {
                const std::string first = encode("1", 0, repeated("a", 161)).pdus.at(0).pdu;
                mine.push_back(split(first).header_text.substr(9, 2));
            }
        });
    }
    std::set<std::string> different;
    for (std::size_t i = 0; i < threads; ++i) {
        running[i].join();
        different.insert(found[i].begin(), found[i].end());
    }
    EXPECT_EQ(different.size(), threads * messages);
}

TEST(SmsEncode, Destinations)
{
    struct Row {
        std::string destination;
        int type;
        std::string address; // empty: refused
    };
    for (const Row &row : std::vector<Row>{{"+49 170-123 4567", 0, "0C91947110325476"},
                                           {"  +1", 0, "0191F1"},
                                           {"491701234567", SMS_NUMBER_INTERNATIONAL, "0C91947110325476"},
                                           {"+491701234567", SMS_NUMBER_INTERNATIONAL, "0C91947110325476"},
                                           {"01701234567", SMS_NUMBER_NATIONAL, "0BA11007214365F7"},
                                           {"01701234567", 0, "0B811007214365F7"},
                                           {"*#", 0, "0281BA"},
                                           {"12345678901234567890", 0, "148121436587092143658709"},
                                           {"123456789012345678901", 0, ""},
                                           {"", 0, ""},
                                           {"+", 0, ""},
                                           {" - ", 0, ""},
                                           {"++1", 0, ""},
                                           {"1+2", 0, ""},
                                           {"12a", 0, ""},
                                           {"(030) 123", 0, ""},
                                           {"+49170\r\nAT+CFUN=0", 0, ""},
                                           {"١٢٣", 0, ""},
                                           {"123", 3, ""},
                                           {"123", -1, ""}}) {
        const Parts parts = encode(row.destination, row.type, "hi");
        EXPECT_EQ(parts.error == 0, !row.address.empty()) << row.destination;
        ASSERT_EQ(parts.pdus.size(), row.address.empty() ? 0u : 1u);
        if (!parts.pdus.empty()) {
            EXPECT_EQ(std::string(parts.pdus[0].pdu), "001100" + row.address + "0000A702E834");
        }
    }
}

TEST(SmsEncode, InvalidUtf8IsRefused)
{
    for (const char *text : {"a\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xED\xA0\x80",
                             "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF", "\xE2\x82"}) {
        const Parts parts = encode("1", 0, text);
        EXPECT_EQ(parts.error, SMS_ERROR_TEXT);
        EXPECT_TRUE(parts.pdus.empty());
    }
}

TEST(SmsEncode, MissingArgumentsAreRefused)
{
    sms_pdu *head = reinterpret_cast<sms_pdu *>(&head);
    EXPECT_NE(encode_pdu(nullptr, 0, "a", 1, &head, 0), 0);
    EXPECT_EQ(head, nullptr);
    EXPECT_NE(encode_pdu("1", 0, nullptr, 0, &head, 0), 0);
    EXPECT_NE(encode_pdu("1", 0, "a", -1, &head, 0), 0);
    EXPECT_NE(encode_pdu("1", 0, "a", 1, nullptr, 0), 0);
    free_list(&head);
    free_list(nullptr);
}

TEST(SmsEncode, DescriptionEscapesControlCharacters)
{
    sms_pdu element = encode("*100#", SMS_NUMBER_BY_PLUS, "hi").pdus.at(0);
    element.number[1] = '\x1B';
    testing::internal::CaptureStdout();
    print_sms_pdu(&element);
    print_sms_pdu(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Alphabet: -1 (GSM 7-bit)\n"
                                                      "PDU: 00110005811A00FB0000A702E834\n"
                                                      "Number type: 0 (unknown)\n"
                                                      "Number: *\\x1B00#\n"
                                                      "Length: 13\n"
                                                      "no PDU\n");
}

} // namespace
