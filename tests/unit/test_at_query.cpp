#include "at_query.h"

#include "modem_test.h"
#include "query_methods.h"
#include "wanmd.h"

namespace {

using Get = result_t (*)(std::span<char>);

struct QueryRow {
    const char *name;
    Get get;
    size_t size;
    const char *command;
    const char *expected;
    const char *line;  // a good answer line, as such modems give it
    const char *value; // what is cut out of it
};

const QueryRow query_rows[] = {
    {"imei", at_get_imei, 18, "AT+CGSN=1\r", "+CGSN:", "+CGSN: \"860000000000009\"", "860000000000009"},
    {"imei unquoted", at_get_imei, 18, "AT+CGSN=1\r", "+CGSN:", "+CGSN: 860000000000009", "860000000000009"},
    {"imsi", at_get_imsi, 16, "AT+CIMI?\r", "+CIMI:", "+CIMI: \"250010000000001\"", "250010000000001"},
    {"ccid", at_get_ccid, 21, "AT+CCID\r", "+CCID:", "+CCID: 89701000000000000000", "89701000000000000000"},
    {"msisdn", get_msisdn_row.get, get_msisdn_row.size, "AT+CNUM\r",
     "+CNUM:", "+CNUM: \"A, B\",\"+410000000000009\",145", "+410000000000009"},
    {"roaming", at_get_roaming_status, 3, "AT+CREG?\r", "+CREG:", "+CREG: 2,1,\"5D4\",\"01BC7511\",13", "1"},
    {"roaming, report first", at_get_roaming_status, 3, "AT+CREG?\r", "+CREG:", "+CREG: 1,\"BD4\"\r\n+CREG: 0, 5", "5"},
    {"support", at_get_support_tech, 1024, "AT+GTRAT=?\r", "+GTRAT:", "+GTRAT: (1,2,4,10),(2,3,6)",
     "(1,2,4,10),(2,3,6)"},
    {"prefer", at_get_prefer_tech, 16, "AT+GTRAT?\r", "+GTRAT:", "+GTRAT: 20,6,3", "20,6,3"},
    {"current", at_get_current_tech, 6, "AT+GTRAT?\r", "+GTRAT:", "+GTRAT: 10,3,2", "10"},
    {"requested", at_get_network_requested, 16, "AT+GTRAT?\r", "+GTRAT:", "+GTRAT: 10,3,2", "10,3,2"},
    {"model", at_get_model, 22, "AT+GMM?\r", "+GMM:", "+GMM: \"L850 LTE Module\",\"L850\"", "L850 LTE Module"},
    {"maker", at_get_manufacturer, 50, "AT+CGMI?\r", "+CGMI:", "+CGMI: \"Fibocom Wireless Inc.\"",
     "Fibocom Wireless Inc."},
    {"hardware", at_get_hw_version, 30, "ATI9\r", "Hardware version:", "\"Hardware version: V1.0.6\"", "V1.0.6"},
    {"software", at_get_sw_version, 50, "AT+CGMR?\r", "+CGMR:", "+CGMR: \"81600.0000.00.29.22.40\"",
     "81600.0000.00.29.22.40"},
    {"sim", at_get_sim_status, 50, "AT+CPIN?\r", "+CPIN:", "+CPIN: SIM PIN", "SIM PIN"},
    {"contexts", at_get_pdp_contexts, 512, "AT+CGACT?\r", "+CGACT:", "+CGACT: 1,1\r\n+CTZV: +8,1\r\n+CGACT: 2, 0",
     "10"},
    {"caller", at_get_caller_id, 17, "AT+CLCC\r", "+CLCC:", "+CLCC: 1,1,4,0,0,\"+370000000\",145,\"\"", "+370000000"},
};

struct AtQueryRow : ModemTest<>, testing::WithParamInterface<QueryRow> {
    // Exactly as large as the callers' buffer, so that a sanitizer sees one byte too far.
    std::vector<char> out = std::vector<char>(GetParam().size);

    // What the query makes of the answer; the value is in `out`.
    result_t get(const Answer &answer)
    {
        std::fill(out.begin(), out.end(), '\0');
        fake_link.answer_always(answer);
        return GetParam().get(out);
    }
    std::string value()
    {
        return out.data();
    }
};

TEST_P(AtQueryRow, CutsTheValueOutOfAGoodAnswer)
{
    EXPECT_EQ(get(ok_answer({GetParam().line})), RESULT_OK);
    EXPECT_EQ(value(), GetParam().value);
    EXPECT_EQ(fake_link.sent, Strings{GetParam().command});
    EXPECT_EQ(fake_link.expected, Strings{GetParam().expected});
    EXPECT_EQ(fake_link.timeouts, std::vector<uint32_t>{3000});
    EXPECT_EQ(get(std::string("\r\n") + GetParam().line + "\r\n"), RESULT_INCOMPLETE) << "without a final result";
    EXPECT_EQ(value(), GetParam().value);
}

// Whatever stands in the other lines, with commas, colons and quotes, and wherever it stands.
TEST_P(AtQueryRow, CutsOnlyFromItsOwnLines)
{
    for (const char *foreign : {"+CEREG: 2,1", "+GTDUALSIM: 0,\"SUB1\",\"No Service\"", "+CTZV: +8,1", "+SIM READY",
                                "AT+X=\"a\",\"b\"", "^MODE: 5,\"x"}) {
        EXPECT_EQ(get(ok_answer({foreign, GetParam().line, foreign})), RESULT_OK);
        EXPECT_EQ(value(), GetParam().value) << foreign;
    }
    // The line breaks off before the value ends, and another one holds what would end it.
    std::string line = GetParam().line;
    line.resize(line.find(':') + 2);
    (void)get(ok_answer({line, "+CEREG: 2,1", "7,\"x\",\"y\""}));
    EXPECT_EQ(value(), "");
}

TEST_P(AtQueryRow, KeepsTheOutputEmptyOnFailure)
{
    const struct {
        Answer text;
        result_t code;
    } rows[] = {
        {"\r\n+CME ERROR: 10\r\n", RESULT_ERROR},
        {std::string("\r\n") + GetParam().line + "\r\n\r\nERROR\r\n", RESULT_ERROR},
        {std::nullopt, RESULT_REQUEST_FAILED},
        {"", RESULT_ERROR},
        {"\r\nOK\r\n", RESULT_OK},
        {"\x01\xff\"\",,:::\"", RESULT_ERROR},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(get(row.text), row.code) << row.text.value_or("silence");
        EXPECT_EQ(value(), "");
    }
    fake_link.mutex_error = ETIMEDOUT;
    EXPECT_EQ(get("\r\nOK\r\n"), RESULT_ERROR);
}

TEST_P(AtQueryRow, RefusesAValueThatDoesNotFit)
{
    std::string line = GetParam().line;
    size_t at = line.find(GetParam().value);
    if (at == std::string::npos) { // gathered from several places
        line = "+CGACT: " + std::string(2 * GetParam().size, ',');
    } else {
        char filler = line[at];
        line.insert(at, std::string(GetParam().size, filler));
    }
    EXPECT_EQ(get(ok_answer({line})), RESULT_ERROR);
    EXPECT_EQ(value(), "");
    EXPECT_EQ(log_count("longer than", 3), 1);
}

INSTANTIATE_TEST_SUITE_P(All, AtQueryRow, testing::ValuesIn(query_rows), [](const auto &row) {
    std::string name = row.param.name;
    std::erase_if(name, [](char c) { return !isalnum(c); });
    return name;
});

} // namespace
