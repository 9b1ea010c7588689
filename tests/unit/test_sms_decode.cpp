#include "sms_outputs.h"

#include <cctype>

namespace {

// Septets as octets, bit by bit, behind `header` and the fill bits that follow it.
std::string packed(const std::vector<unsigned char> &header, const std::string &septets)
{
    std::vector<bool> bits;
    const auto append = [&bits](int value, int count) {
        for (int i = 0; i < count; ++i) {
            bits.push_back(value >> i & 1);
        }
    };
    for (const unsigned char octet : header) {
        append(octet, 8);
    }
    bits.resize((bits.size() + 6) / 7 * 7);
    for (const char septet : septets) {
        append(septet, 7);
    }
    std::vector<unsigned char> octets((bits.size() + 7) / 8);
    for (std::size_t i = 0; i < bits.size(); ++i) {
        octets[i / 8] = static_cast<unsigned char>(octets[i / 8] | bits[i] << i % 8);
    }
    return hexadecimal(octets);
}

std::string octet(std::size_t value)
{
    return hexadecimal({static_cast<unsigned char>(value)});
}

const std::string smsc = "0891947122575555F0";
const std::string sender = "0C91947110325476";
const std::string stamp = "42305190623540";
const std::string deliver = smsc + "04" + sender + "00";

TEST(SmsDecode, CapturedMessages)
{
    const auto shown = [](const std::string &pdu) {
        const Outputs out = split(pdu);
        return std::to_string(out.result) + "|" + out.smsc + "|" + out.sender + "|" + out.date + "|" + out.time + "|" +
               text_of(out);
    };
    EXPECT_EQ(shown("0791190000000000240C911900000000100000511090718303220BC8B442012DD3CB721016"),
              "11|910000000000|910000000001|15-01-09|17:38:30|Hi\n\nPeter X");
    EXPECT_EQ(shown("079119000000000006400C91190000000010511090718384225110907183252200"), // a status report
              "0|910000000000|910000000001|15-01-09|17:38:48|");
    EXPECT_EQ(shown("0021000C91190000000010000004D3E61424"), "4||910000000001|||SMS "); // sent by a modem
}

TEST(SmsDecode, SubmitWithEachValidityPeriod)
{
    for (const auto &[first_octet, validity] : std::vector<std::pair<std::string, std::string>>{
             {"01", ""}, {"11", "A7"}, {"09", "01050000000000"}, {"19", "42305190623540"}}) {
        const Outputs out = split("00" + first_octet + "2A" + "05811A00FB" + "0008" + validity + "020041");
        EXPECT_EQ(text_of(out), "A") << first_octet;
        EXPECT_EQ(out.sender, "*100#");
        EXPECT_EQ(out.date, "");
    }
}

TEST(SmsDecode, DataCodingChoosesTheAlphabet)
{
    struct Row {
        int first, last, alphabet;
    };
    for (const Row &row :
         std::vector<Row>{{0x00, 0x03, -1}, {0x04, 0x07, 1},  {0x08, 0x0B, 2},  {0x0C, 0x0F, -1}, // general, no class
                          {0x10, 0x13, -1}, {0x14, 0x17, 1},  {0x18, 0x1B, 2},  {0x1C, 0x1F, -1}, // with a class
                          {0x20, 0x3F, 1},                                                        // compressed
                          {0x40, 0x43, -1}, {0x44, 0x47, 1},  {0x48, 0x4B, 2},  {0x50, 0x53, -1}, // automatic deletion
                          {0x54, 0x57, 1},  {0x58, 0x5B, 2},  {0x60, 0x7F, 1},                    // ... compressed
                          {0x80, 0xBF, -1},                                                       // reserved
                          {0xC0, 0xCF, -1}, {0xD0, 0xDF, -1}, {0xE0, 0xEF, 2},                    // message waiting
                          {0xF0, 0xF3, -1}, {0xF4, 0xF7, 1},  {0xF8, 0xFB, -1}, {0xFC, 0xFF, 1}}) { // class
        for (int coding = row.first; coding <= row.last; ++coding) {
            const Outputs out = split(deliver + octet(static_cast<std::size_t>(coding)) + stamp + "0441E19008");
            EXPECT_EQ(out.alphabet, row.alphabet) << coding;
            EXPECT_EQ(out.result, 4);
            EXPECT_EQ(hexadecimal(out.user_data), row.alphabet < 0 ? "41424344" : "41E19008") << coding;
        }
    }
}

TEST(SmsDecode, AddressesInEveryForm)
{
    struct Row {
        std::string address, sender, type;
    };
    std::vector<Row> rows = {
        {"0091", "", "international"},
        {"0181F1", "1", "national"},
        {"04A11032", "0123", "national"},
        {"05812143F5", "12345", "national"},
        {"0591BADCFE", "*#abc", "international"},
        {"03E121F4", "124", "national"},
    };
    for (int type = 0; type < 8; ++type) {
        rows.push_back({"02" + octet(static_cast<std::size_t>(0x80 | type << 4)) + "21", type == 5 ? "!" : "12",
                        type == 1   ? "international"
                        : type == 5 ? "alphanumeric"
                                    : "national"});
    }
    const std::string shown = "Ab@ 1234_x@";
    const std::string septets("Ab\0 1234\x11x\0", shown.size());
    for (std::size_t length = 1; length <= shown.size(); ++length) {
        rows.push_back({octet((length * 7 + 3) / 4) + "D0" + packed({}, septets.substr(0, length)),
                        shown.substr(0, length), "alphanumeric"});
    }
    for (const Row &row : rows) {
        const Outputs out = split(smsc + "04" + row.address + "0000" + stamp + "02E834");
        EXPECT_EQ(out.result, 2) << row.address;
        EXPECT_EQ(out.sender, row.sender) << row.address;
        EXPECT_EQ(out.type_of_address, row.type) << row.address;
        EXPECT_EQ(text_of(out), "hi");
    }
}

TEST(SmsDecode, TheLongestAddressesFit)
{
    // Eleven characters of two bytes each take the most bytes that a name can, and just fit the service centre.
    const std::string greek = packed({}, "\x10\x12\x13\x14\x15\x16\x17\x18\x19\x1A\x10");
    EXPECT_EQ(split("0BD0" + greek + "0414D0" + greek + "0000" + stamp + "00").smsc, "ΔΦΓΛΩΠΨΣΘΞΔ");
    const std::string euros = packed({}, "\x1B\x65\x1B\x65\x1B\x65\x1B\x65\x1B\x65\x65");
    const Outputs out = split("0BD0" + euros + "0414D0" + euros + "0000" + stamp + "00");
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.sender, "€€€€€e");
    EXPECT_EQ(out.smsc, "€€€€€e");
    const std::string digits = "9121436587092143658709";
    EXPECT_EQ(split("0B" + digits + "0414" + digits + "0000" + stamp + "00").sender, "12345678901234567890");
}

TEST(SmsDecode, StampsGiveTheirDigitsPossibleOrNot)
{
    for (const auto &[digits, date, time] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"42305190623540", "24-03-15", "09:26:53"},
             {"4230519062350A", "24-03-15", "09:26:53"}, // west of Greenwich
             {"00000000000000", "00-00-00", "00:00:00"},
             {"99999999999999", "99-99-99", "99:99:99"},
             {"FFA1B0C2D3E4FF", "FF-1A-0B", "2C:3D:4E"}}) {
        const Outputs out = split(deliver + "00" + digits + "02E834");
        EXPECT_EQ(out.date, date);
        EXPECT_EQ(out.time, time);
        EXPECT_EQ(text_of(out), "hi");
    }
}

TEST(SmsDecode, SeptetsStartBehindTheHeaderAndItsFillBits)
{
    const std::string with_header = smsc + "44" + sender + "0000" + stamp;
    for (std::size_t length = 0; length <= 138; ++length) {
        std::vector<unsigned char> header(1 + length, 0x11);
        header[0] = static_cast<unsigned char>(length);
        const std::size_t header_septets = (header.size() * 8 + 6) / 7;
        const std::string text = std::string("fill bits").substr(0, 160 - header_septets);
        const Outputs out = split(with_header + octet(header_septets + text.size()) + packed(header, text));
        ASSERT_EQ(out.result, static_cast<int>(text.size())) << length;
        EXPECT_EQ(text_of(out), text);
        EXPECT_EQ(out.with_header, 1);
        EXPECT_EQ(out.header_text.size(), 3 * header.size() - 1);
    }
    const Outputs full = split(smsc + "44" + sender + "0004" + stamp + "8C" + octet(139) + std::string(278, 'C'));
    EXPECT_EQ(full.result, 0);
    EXPECT_EQ(full.header_text.size(), 3u * 140 - 1);
}

TEST(SmsDecode, WritingAndPaddingOfTheLineDoNotMatter)
{
    const std::string pdu = deliver + "00" + stamp + "02E834";
    std::string lower = pdu;
    std::transform(pdu.begin(), pdu.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::string reserved_type = smsc + "07" + sender + "0000" + stamp + "02E834";
    for (const std::string &line : {lower, " \t" + pdu + " \r\n\n", pdu + std::string(4096, 'F'), reserved_type}) {
        EXPECT_EQ(text_of(split(line)), "hi");
    }
}

TEST(SmsDecode, EveryTruncationIsRefused)
{
    const std::string header = "44" + sender + "0000" + stamp + "0E050003CC0202A0FB5BCE268700";
    for (const std::string &pdu : {smsc + header, smsc + "04" + sender + "0008" + stamp + "0400410042",
                                   smsc + "1905" + sender + "0000" + stamp + "02E834",
                                   std::string("079119000000000006400C91190000000010511090718384225110907183252200")}) {
        ASSERT_GE(split(pdu).result, 0) << pdu;
        for (std::size_t length = 0; length < pdu.size(); ++length) {
            const Outputs out = split(pdu.substr(0, length));
            EXPECT_LT(out.result, 0) << pdu.substr(0, length);
            EXPECT_TRUE(out.all_zero);
        }
    }
}

TEST(SmsDecode, WhatCannotBeMeantIsRefused)
{
    const std::string data(400, '1');
    for (const auto &[pdu, error] : std::vector<std::pair<std::string, int>>{
             {"", SMS_ERROR_HEXADECIMAL},
             {" \r\n", SMS_ERROR_HEXADECIMAL},
             {deliver + "00" + stamp + "02E8 34", SMS_ERROR_HEXADECIMAL},
             {deliver + "00" + stamp + "02E834" + "0x", SMS_ERROR_HEXADECIMAL},
             {"0C91" + data, SMS_ERROR_ADDRESS},
             {"FF91" + data, SMS_ERROR_ADDRESS},
             {smsc + "041591" + data, SMS_ERROR_ADDRESS},
             {smsc + "04FF91" + data, SMS_ERROR_ADDRESS},
             {smsc + "04FFD0" + data, SMS_ERROR_ADDRESS},
             {deliver + "00" + stamp + "A1" + data, SMS_ERROR_LENGTH},
             {deliver + "04" + stamp + "8D" + data, SMS_ERROR_LENGTH},
             {smsc + "44" + sender + "0000" + stamp + "00", SMS_ERROR_HEADER},
             {smsc + "44" + sender + "0000" + stamp + "07" + "06" + data, SMS_ERROR_HEADER},
             {smsc + "44" + sender + "0004" + stamp + "06" + "06" + data, SMS_ERROR_HEADER},
             {smsc + "44" + sender + "0008" + stamp + "8C" + "FF" + data, SMS_ERROR_HEADER}}) {
        const Outputs out = split(pdu);
        EXPECT_EQ(out.result, error) << pdu;
        EXPECT_TRUE(out.all_zero);
    }
}

TEST(SmsDecode, OutputsThatNobodyWantsMayBeNull)
{
    const std::string pdu = deliver + "00" + stamp + "02E834";
    const auto call = [](const char *line, const char *mode) {
        return splitpdu(line, mode, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
    };
    EXPECT_EQ(call(pdu.c_str(), "old"), 2);
    EXPECT_EQ(call(nullptr, "old"), SMS_ERROR_ARGUMENT);
    EXPECT_EQ(call(pdu.c_str(), nullptr), SMS_ERROR_ARGUMENT);
    EXPECT_EQ(call(pdu.c_str(), "new"), SMS_ERROR_ARGUMENT);
}

} // namespace
