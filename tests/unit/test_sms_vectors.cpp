// PDUs of other people's modems and of the standards, one row of tests/data/pdu-vectors.jsonl each.
#include "sms_outputs.h"

#include <nlohmann/json.hpp>

#include <fstream>

namespace {

using nlohmann::json;

std::vector<json> rows(const std::string &kind)
{
    std::ifstream file(TEST_DATA_DIR "/pdu-vectors.jsonl");
    std::vector<json> found;
    for (std::string line; std::getline(file, line);) {
        json row = json::parse(line);
        if (row["kind"] == kind) {
            found.push_back(row);
        }
    }
    return found;
}

TEST(SmsVectors, DeliverRowsDecode)
{
    const auto all = rows("deliver");
    ASSERT_EQ(all.size(), 51u);
    for (const json &row : all) {
        SCOPED_TRACE(row["id"]);
        const Outputs out = split(row["pdu"]);
        ASSERT_GE(out.result, 0);
        EXPECT_EQ(out.smsc, row["smsc"]);
        EXPECT_EQ(out.sender, row["sender"]);
        EXPECT_EQ(out.type_of_address.find("international") != std::string::npos, row["international"]);
        EXPECT_EQ(out.alphabet, row["alphabet"]);
        EXPECT_EQ(out.date, row["date"]);
        EXPECT_EQ(out.time, row["time"]);
        EXPECT_EQ(out.with_header, row["udh"].is_null() ? 0 : 1);
        EXPECT_EQ(out.header_text, row["udh"].is_null() ? "" : row["udh"]);
        if (!row["text"].is_null()) {
            EXPECT_EQ(text_of(out), row["text"]);
        }
        if (!row["user_data_hex"].is_null()) {
            EXPECT_EQ(hexadecimal(out.user_data), row["user_data_hex"]);
        }
    }
}

TEST(SmsVectors, BadRowsAreRefusedOrHarmless)
{
    const auto all = rows("bad");
    ASSERT_EQ(all.size(), 29u);
    for (const json &row : all) {
        SCOPED_TRACE(row["id"]);
        const Outputs out = split(row["input"]);
        const std::string expected = row["expect"];
        if (expected == "error") {
            EXPECT_LT(out.result, 0);
        } else if (expected == "not_deliver") {
            EXPECT_EQ(out.result, 0);
        } else if (out.result >= 0 && out.alphabet != SMS_ALPHABET_BINARY) {
            EXPECT_NO_THROW((void)json(text_of(out)).dump());
        }
        EXPECT_NO_THROW((void)json(out.sender).dump());
        if (out.result < 0) {
            EXPECT_TRUE(out.all_zero);
        }
    }
}

TEST(SmsVectors, SubmitRowsEncodeAndComeBack)
{
    const auto all = rows("submit");
    ASSERT_EQ(all.size(), 24u);
    for (const json &row : all) {
        SCOPED_TRACE(row["id"]);
        const std::string text = row["text"];
        const std::string destination = row["dest"];
        const Parts parts = encode(destination, SMS_NUMBER_BY_PLUS, text);
        EXPECT_EQ(parts.error == 0, row["expected_parts"] > 0);
        ASSERT_EQ(parts.pdus.size(), row["expected_parts"]);
        if (parts.pdus.empty()) {
            continue;
        }
        EXPECT_EQ(parts.pdus[0].alphabet, row["alphabet"] == "gsm7" ? SMS_ALPHABET_GSM : SMS_ALPHABET_UCS2);
        EXPECT_EQ(joined_text(parts), text);
        const Outputs first = split(parts.pdus[0].pdu);
        EXPECT_EQ(first.sender, destination.substr(destination[0] == '+' ? 1 : 0));
        EXPECT_EQ(first.type_of_address, destination[0] == '+' ? "international" : "national");
    }
}

} // namespace
