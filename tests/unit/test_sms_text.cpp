#include "sms_outputs.h"

namespace {

std::vector<unsigned char> bytes(const std::string &text)
{
    return {text.begin(), text.end()};
}

std::string gsm(const std::string &septets, const std::string &header = "")
{
    return text_of(bytes(septets), SMS_ALPHABET_GSM, header);
}

std::string shifts(unsigned locking, unsigned single_shift)
{
    char text[32];
    std::snprintf(text, sizeof text, "06 25 01 %02X 24 01 %02X", locking, single_shift);
    return text;
}

TEST(SmsText, EscapesOfTheDefaultAlphabet)
{
    const std::string escape = "\x1B";
    EXPECT_EQ(gsm("a" + escape + "eb"), "a€b");
    EXPECT_EQ(gsm(escape + "A"), "A");
    EXPECT_EQ(gsm(escape + escape + "A"), " A");
    EXPECT_EQ(gsm("a" + escape), "a ");
    EXPECT_EQ(gsm("\x09\x0B\x1A"), "ÇØΞ");
    EXPECT_EQ(gsm("a\x80" + escape + "\xFF" + "b"), "a\uFFFD \uFFFDb");
}

TEST(SmsText, WordsInNationalTables)
{
    struct Row {
        unsigned language;
        std::string septets, text;
    };
    // Locking table and single shift table of the same language.
    for (const Row &row : std::vector<Row>{
             {1, "I\x1Ds \x07\x04 \x1Bg\x1BI\x60", "Işs ı€ ğİç"},
             {2, "\x60\x1B\x41\x1B\x09\x1Bu}\x04", "¿Áçúñè"},
             {3, "cora\x09{o \x1B\x15\x1B\x60 \x16", "coração Ω~ ^"},
             {4, "\x42\x50\x01\x3F\x43\x1B\x19", "মাং?য০"},
             {5, "\x17\x57\x1B\x1C\x7F", "ગૅ૦૱"},
             {6, "\x2F\x42\x4C\x5F\x27\x59 \x1B\x1D\x1B\x1E\x1B\x19", "नमस्ते १२।"},
             {7, "\x17\x2F\x5F\x2F\x22 \x1B\x27", "ಗನ್ನಟ ೱ"},
             {8, "\x42\x46\x43\x50\x48\x01\x1B\x33", "മലയാഴംൾ"},
             {9, "\x03\x1B\x26\x1B\x2C\x60", "\u0B05\u0B5C\u0B71\u0B56"},
             {10, "\x3D\x01\x1D\x50\x40\x51\x1B\x2B\x7D", "ਪਂਜਾਬਿੜੲ"},
             {11, "\x27\x42\x51\x48\x5F\x1B\x25\x7F", "தமிழ்௯௹"},
             {12, "\x27\x58\x46\x53\x12\x53\x1B\x2A", "తెలుఒు౸"},
             {13, "\x25\x53\x3D\x1B\x3F\x1B\x1D", "روس۔۱"},
         }) {
        EXPECT_EQ(gsm(row.septets, shifts(row.language, row.language)), row.text) << row.language;
    }
}

TEST(SmsText, EveryTableKeepsWhatAllHaveInCommon)
{
    for (unsigned language = 0; language <= 15; ++language) {
        const std::string header = shifts(language, language);
        EXPECT_EQ(gsm("abcxyz 0123456789,.:;!?\n\r", header), "abcxyz 0123456789,.:;!?\n\r") << language;
        EXPECT_EQ(gsm("\x1B\x28\x1B\x29\x1B<\x1B>\x1B\x2F\x1B\x14\x1B\x65\x1B\x40\x1B\x0A", header), "{}[]\\^€|\f")
            << language;
        for (int septet = 0; septet < 128; ++septet) {
            const char pair[] = {'\x1B', static_cast<char>(septet)};
            EXPECT_NE(gsm({pair, 2}, header)[0], '\0') << septet;
            EXPECT_NE(gsm({pair, 2}, header), "\uFFFF");
            EXPECT_NE(gsm({pair + 1, 1}, header), "\uFFFF");
        }
    }
}

TEST(SmsText, HeadersThatNameNoTable)
{
    for (const std::string header :
         {"", "00", "03 25 01 0E", "03 25 01 FF", "03 25 02 01", "04 25 01 01", "02 25 01 01", "03 25 01", "03 25 01 0",
          "03 25 01 1G", "03,25,01,01", "0325 01 01", "04 25 02 01 01", "05 00 03 25 01 01"}) {
        EXPECT_EQ(gsm("\x0B\x1D", header), "Øæ") << header;
    }
    EXPECT_EQ(gsm("\x0B", std::string(1000, '0')), "Ø");
    // The last of several counts, and other elements do not hide it.
    EXPECT_EQ(gsm("\x0B", "0B 25 01 03 00 03 2A 02 01 25 01 01"), "Ğ");
    // An escape that the single shift table does not know falls back on the locking table.
    EXPECT_EQ(gsm("\x1B\x0B", "03 25 01 01"), "Ğ");
}

TEST(SmsText, Ucs2WithWholeAndBrokenPairs)
{
    const auto ucs2 = [](const std::string &octets) { return text_of(bytes(octets), SMS_ALPHABET_UCS2); };
    EXPECT_EQ(ucs2(std::string("\0A\xD8\x3D\xDE\0\0B", 8)), "A😀B");
    EXPECT_EQ(ucs2("\xD8\x3D"), "\uFFFD");
    EXPECT_EQ(ucs2(std::string("\xD8\x3D\0A", 4)), "\uFFFDA");
    EXPECT_EQ(ucs2(std::string("\xDE\0\xD8\x3D\xD8\x3D\xDE\0", 8)), "\uFFFD\uFFFD😀");
    EXPECT_EQ(ucs2(std::string("\0A\0", 3)), "A\uFFFD");
}

TEST(SmsText, OtherAlphabets)
{
    EXPECT_EQ(text_of(bytes("gr\xFC\xDF"), SMS_ALPHABET_ISO), "grüß");
    EXPECT_EQ(text_of(bytes("grü\xC3(\xE2\x82"), SMS_ALPHABET_UTF8), "grü\uFFFD(\uFFFD\uFFFD");
    EXPECT_EQ(text_of(bytes("a"), SMS_ALPHABET_BINARY), "error -1");
    EXPECT_EQ(text_of(bytes("a"), 4), "error -1");
}

TEST(SmsText, TextThatDoesNotFitIsNotCut)
{
    const std::vector<unsigned char> data = bytes("ab\x1B"
                                                  "ec");
    const std::string whole = "ab€c";
    for (std::size_t size = 1; size <= whole.size() + 1; ++size) {
        ExactBuffer text(size);
        const int length = sms_text(data.data(), data.size(), SMS_ALPHABET_GSM, nullptr, text.bytes.get(), size);
        EXPECT_EQ(length, size <= whole.size() ? SMS_ERROR_TOO_LONG : static_cast<int>(whole.size()));
        EXPECT_EQ(text.bytes.get(), size <= whole.size() ? std::string() : whole);
    }
    EXPECT_LT(sms_text(data.data(), data.size(), SMS_ALPHABET_GSM, nullptr, nullptr, 0), 0);
}

} // namespace
