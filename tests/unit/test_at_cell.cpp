#include "at_cell.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "cell_answers.h"
#include "modem_test.h"

namespace {

std::string join(std::initializer_list<std::string> fields)
{
    std::string text;
    for (const std::string &field : fields)
        text += (text.empty() ? "" : " ") + (field.empty() ? "-" : field);
    return text;
}

// Runs one query with a zeroed output of exactly its size; whether that is still zeroed.
template<typename Record, typename Function> result_t run(Function function, bool *untouched)
{
    auto record = std::make_unique<Record>();
    memset(static_cast<void *>(record.get()), 0, sizeof *record);
    result_t code = function(record.get());
    const auto *bytes = reinterpret_cast<const unsigned char *>(record.get());
    *untouched = std::all_of(bytes, bytes + sizeof *record, [](unsigned char byte) { return byte == 0; });
    if constexpr (std::is_same_v<Record, OperatorInfo>)
        free(record->oper);
    return code;
}

using Gtccinfo = std::array<char, 512>;
using Cells = std::array<ServingCellRecord, SERVING_CELLS>;

struct Query {
    const char *command, *prefix;
    std::function<result_t(bool *untouched)> ask;
};

const std::vector<Query> queries = {
    {"AT+CSQ\r", "+CSQ:", [](bool *u) { return run<uint8_t>(at_get_rssi, u); }},
    {"AT+CESQ\r", "+CESQ:", [](bool *u) { return run<ExtendedSignalQuality>(at_get_extended_signal_quality, u); }},
    {"AT+COPS?\r", "+COPS:", [](bool *u) { return run<OperatorInfo>(at_get_operator_info, u); }},
    {"AT+GTCCINFO?\r",
     "+GTCCINFO:", [](bool *u) { return run<Cells>([](Cells *cells) { return at_get_serving_cells(*cells); }, u); }},
    {"AT+GTCCINFO?\r",
     "+GTCCINFO:", [](bool *u) { return run<Gtccinfo>([](Gtccinfo *text) { return at_get_gtccinfo(*text); }, u); }},
    {"AT+GTCELLINFO?\r", "+GTCELLINFO:", [](bool *u) { return run<CellInfo>(at_get_cell_info, u); }},
};

class Cell : public ModemTest<> {
protected:
    std::string operator_of(const std::string &line)
    {
        fake_link.answer_always(ok_answer({line}));
        OperatorInfo info = {};
        result_t code = at_get_operator_info(&info);
        if (code != RESULT_OK)
            return "code " + std::to_string(code);
        std::string text = std::to_string(info.mode);
        text += info.has_format ? " format " + std::to_string(info.format) : "";
        text += info.has_oper ? " oper " + std::to_string(info.oper_len) + ":" + info.oper : "";
        text += info.has_act ? " act " + std::to_string(info.act) : "";
        free(info.oper);
        return text;
    }

    std::string cells_of(const std::string &answer)
    {
        fake_link.answer_always(answer);
        Cells cells = {};
        EXPECT_EQ(at_get_serving_cells(cells), RESULT_OK);
        std::string text;
        for (const ServingCellRecord &cell : cells) {
            if (cell.rat)
                text += join({std::to_string(cell.rat), cell.mcc, cell.mnc, cell.cellid, cell.band, cell.lac,
                              std::to_string(cell.rsrp), std::to_string(cell.rsrq), std::to_string(cell.ecio),
                              std::to_string(cell.noise), std::to_string(cell.pcellid)}) +
                        "\n";
        }
        return text;
    }

    std::string gtccinfo_of(const std::string &answer, size_t room = 512)
    {
        fake_link.answer_always(answer);
        std::vector<char> text(room, '\0');
        result_t code = at_get_gtccinfo(text);
        return code == RESULT_OK ? text.data() : "code " + std::to_string(static_cast<int32_t>(code));
    }

    std::string cell_info_of(const std::string &answer)
    {
        fake_link.answer_always(answer);
        CellInfo info = {};
        result_t code = at_get_cell_info(&info);
        return (code == RESULT_OK ? "" : "code " + std::to_string(code) + " ") +
               join({info.Mode, info.BeamID, info.CQI, info.Power, info.RANK, info.DLMCS, info.ULMCS});
    }
};

TEST_F(Cell, AFailedQueryLeavesItsOutputAlone)
{
    for (const Query &query : queries) {
        const std::string prefix = query.prefix;
        const struct {
            Answer answer;
            result_t code;
        } rows[] = {
            {std::nullopt, RESULT_REQUEST_FAILED},
            {"\r\n+CME ERROR: 10\r\n", RESULT_ERROR},
            {"\r\n" + prefix + " 7,7,7\r\n\r\nERROR\r\n", RESULT_ERROR},
            {"", RESULT_ERROR},
            {"\r\nNO CARRIER\r\n", RESULT_NO_CARRIER},
            {"\r\nrubbish,1,4,2\r\n", RESULT_ERROR},
            {"\r\nOK\r\n", RESULT_OK},
        };
        for (const auto &row : rows) {
            fake_link.answer_always(row.answer);
            bool untouched = false;
            EXPECT_EQ(query.ask(&untouched), row.code) << prefix << row.answer.value_or("silence");
            EXPECT_TRUE(untouched) << prefix << row.answer.value_or("silence");
        }
        EXPECT_EQ(fake_link.sent.back(), query.command);
        EXPECT_EQ(fake_link.expected.back(), prefix);
    }
}

// Every answer cut off at every length, and every byte of it replaced: nothing may be read or written outside.
TEST_F(Cell, QueriesSurviveMaimedAnswers)
{
    const std::string cell_figures =
        "+GTCELLINFO: 1\r\nLTE:\r\nCQI: 15\r\nPower: 2\r\nRANK: RANK1\r\nDLMCS: 5\r\nULMCS: 22\r\n\r\nOK";
    for (const std::string &answer :
         {en_dc_qualcomm, umts_qualcomm, en_dc_fm350, cell_figures, ok_answer({"+COPS: 0,0,\"Telekom.de\",13"}),
          ok_answer({"+CESQ: 17,99,255,255,4,29,75,52,57"})}) {
        Strings maimed;
        for (size_t length = 0; length < answer.size(); length++) {
            maimed.push_back(answer.substr(0, length));
            for (char replacement : {'\n', ',', '1', '-'})
                maimed.push_back(std::string(answer).replace(length, 1, 1, replacement));
        }
        for (const std::string &text : maimed) {
            fake_link.answer_always(text);
            for (const Query &query : queries) {
                bool untouched;
                query.ask(&untouched);
            }
        }
    }
}

TEST_F(Cell, SignalFiguresComeInTheAnswersOrder)
{
    const struct {
        const char *line;
        std::vector<int> figures;
    } rows[] = {
        {"+CESQ: 17,99,255,255,4,29,75,52,57", {17, 99, 255, 255, 4, 29, 75, 52, 57}},
        {"+CTZV: +CESQ: 1,1\r\n+CESQ: 99, 99, 255, 255, 22, 64", {99, 99, 255, 255, 22, 64, 255, 255, 255}},
        {"+CESQ: 1,,3,x,-1,6,7,8,9,10,11", {1, 255, 3, 255, 255, 6, 7, 8, 9}},
        {"+CESQ: 64,8,97,50,47,98,128,127,396", std::vector<int>(9, 255)},
        {"+CESQ:", std::vector<int>(9, 255)},
    };
    for (const auto &row : rows) {
        fake_link.answer_always(ok_answer({row.line}));
        ExtendedSignalQuality q = {};
        EXPECT_EQ(at_get_extended_signal_quality(&q), RESULT_OK);
        EXPECT_EQ((std::vector<int>{q.rxlev, q.ber, q.rscp, q.ecno, q.rsrq, q.rsrp, q.ss_rsrq, q.ss_rsrp, q.ss_sinr}),
                  row.figures)
            << row.line;
    }
    uint8_t rssi = 0;
    const struct {
        const char *line;
        int rssi;
    } levels[] = {{"+CSQ: 24,99", 24},     {"+CTZV: +CSQ: 8,1\r\n+CSQ: 7,99", 7},
                  {"+CSQ: ,99", 99},       {"+CSQ: 300,99", 99},
                  {"+CSQ: -1,99", 99},     {"+CSQ: 255,99", 99},
                  {"\x01\xff +CSQ: 5", 5}, {"+CSQ:", 99}};
    for (const auto &row : levels) {
        fake_link.answer_always(ok_answer({row.line}));
        EXPECT_EQ(at_get_rssi(&rssi), RESULT_OK);
        EXPECT_EQ(rssi, row.rssi) << row.line;
    }
    fake_link.answer_always("\r\n+CSQ: 31,99\r\n");
    EXPECT_EQ(at_get_rssi(&rssi), RESULT_INCOMPLETE);
    EXPECT_EQ(rssi, 31);
}

TEST_F(Cell, OperatorHasWhatTheModemGives)
{
    const struct {
        const char *line;
        const char *expected;
    } rows[] = {
        {"+COPS: 0", "0"},
        {"+COPS: 0,0,\"Op\",7", "0 format 0 oper 2:Op act 7"},
        {"+COPS: 0, 0, \"CHINA MOBILE\", 11", "0 format 0 oper 12:CHINA MOBILE act 11"},
        {"+COPS: 1,0,\"vodafone.de\"", "1 format 0 oper 11:vodafone.de"},
        {"+COPS: 1,2,26201,7,9,9", "1 format 2 oper 5:26201 act 7"},
        {"+COPS: 1,0,\"\",7", "1 format 0 oper 0: act 7"},
        {"+COPS: 1,0,\",7", "1 format 0 oper 1:\" act 7"},
        {"+COPS: 0,0,\"Telecom, Inc.,\",7", "0 format 0 oper 14:Telecom, Inc., act 7"},
        {"+CTZV: +COPS: 8,1\r\n+COPS: 1,,\"Op\",255", "1 oper 2:Op"},
        {"+COPS: 300,-1,\"Op\",999", "255 oper 2:Op"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(operator_of(row.line), row.expected) << row.line;
    EXPECT_EQ(operator_of("+COPS: 0,0,\"" + std::string(255, 'x') + "\",7"),
              "0 format 0 oper 255:" + std::string(255, 'x') + " act 7");
    EXPECT_EQ(operator_of("+COPS: 0,0,\"" + std::string(256, 'x') + "\",7"), "code 65535");
    EXPECT_EQ(log_count("operator name too long"), 1);
}

TEST_F(Cell, OperatorSelectionSendsWhatIsGiven)
{
    char quoted[] = "\"46000\"", empty[] = "", second[] = "26201;+CFUN=0";
    const struct {
        OperatorInfo info;
        Strings sent; // none: refused
    } rows[] = {
        {{1, 1, 2, 1, 7, quoted, 1, 7}, {"AT+COPS=1,2,\"46000\",7\r"}},
        {{4, 0, 0, 0, 0, nullptr, 1, 12}, {"AT+COPS=4,12\r"}},
        {{1, 1, 0, 1, 0, empty, 1, 7}, {"AT+COPS=1,0,7\r"}},
        {{1, 1, 2, 1, 13, second, 0, 0}, {}},
    };
    for (const auto &row : rows) {
        fake_link.reset();
        EXPECT_EQ(at_select_operator(&row.info), row.sent.empty() ? RESULT_ERROR : RESULT_OK);
        EXPECT_EQ(fake_link.sent, row.sent);
    }
    EXPECT_EQ(log_count("at_select_operator", 3), 1);
}

TEST_F(Cell, OddServingCellLines)
{
    std::string forty = "1,4,460";
    for (int i = 3; i < 40; i++)
        forty += "," + std::to_string(i);
    const struct {
        std::string line;
        const char *expected;
    } rows[] = {
        {"1,4", "4 - - - - - 255 255 0 255 0\n"},
        {"1,9,,,,,,,,,,,,", "9 - - - - - 255 255 0 255 0\n"},
        {"1,2,,,,,,,,,,,,,", "2 - - - - - 255 0 255 255 0\n"},
        {"1", ""},
        {"1,", ""},
        {"1,255,460", ""},
        {"10,4,460", ""},
        {forty, "4 460 3 5 8 4 12 13 0 10 7\n"},
        {" 1,4,460", ""},
        {"1, 4, 460, 01, 4F50 , 52AB337, 672, 1E4, 103, 100, -7, 63, 63, 24",
         "4 460 01 86684471 103 20304 63 24 0 -7 484\n"},
        {"1,4,46000,010101,XYZ,-1,0,GHI,1234567890123,0,x,0,-3,256", "4 4600 0101 - 123456789 - 255 255 0 255 0\n"},
        {"1,4,460,01,FFFF,0FFFFFFF,0,FFFFFFFF,3,0,99999999999,0,98,47", "4 460 01 - 3 - 255 255 0 255 0\n"},
        {"1,4,460,01,FFFE,0FFFFFFE,0,7FFFFFFF,3,0,-101,0,97,46", "4 460 01 268435454 3 65534 97 46 0 255 2147483647\n"},
        {"1,9,460,01,FFFFFF,FFFFFFFFF,0,1,5,0,254,0,127,128", "9 460 01 - 5 - 255 255 0 254 1\n"},
        {"1,9,460,01,FFFF,FFFFFFFF,0,1,5,0,-1,0,396,255", "9 460 01 - 5 - 255 255 0 -1 1\n"},
        {"1,9,460,01,00FFFF,FFFFFFFFE,0,1,5,0,0,0,126,127", "9 460 01 68719476734 5 65535 126 127 0 0 1\n"},
        {"1,9,460,01,FFFFFFF,00FFFFFFF,0,1,5,0,0,0,0,0", "9 460 01 - 5 - 0 0 0 0 1\n"},
        {"1,4,460,01," + std::string(5000, 'F') + "," + std::string(5000, '1') + ",0,1",
         "4 460 01 - - - 255 255 0 255 1\n"},
        {"1,2,1,2,3,4,5,6,7,8,9,10,11,12,49", "2 1 2 4 7 3 49 0 49 9 0\n"},
        {"1,2,1,2,3,4,5,6,7,8,9,10,11,12,50", "2 1 2 4 7 3 255 0 255 9 0\n"},
        {"+CEREG: 2,1\r\n1,9,460\r\n+CTZV: 1,4\r\n1,2", "9 460 - - - - 255 255 0 255 0\n2 - - - - - 255 0 255 255 0\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(cells_of(ok_answer({"+GTCCINFO:", row.line})), row.expected) << row.line;
    EXPECT_EQ(cells_of(ok_answer({"+GTCCINFO:", "1,4,1", "1,9,2", "1,2,3", "1,4,4"})),
              "4 1 - - - - 255 255 0 255 0\n9 2 - - - - 255 255 0 255 0\n2 3 - - - - 255 0 255 255 0\n");
}

TEST_F(Cell, GtccinfoIsTheTextBehindTheLabel)
{
    EXPECT_EQ(gtccinfo_of(nr_qualcomm), "1,9,310,260,A2E700,101EA212F,7EFAE,290,5041,100,113,87,87,64\r\n\r\nOK");
    EXPECT_EQ(gtccinfo_of(lte_fm160),
              "1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24\r\nLTE neighbor cell:\r\n\r\nOK\r\n");
    EXPECT_EQ(gtccinfo_of(ok_answer({"+GTCCINFO:", "", "UMTS service cell:", "", "1,2"})), "1,2\r\n\r\nOK\r\n");
    EXPECT_EQ(gtccinfo_of("\n+GTCCINFO:\nLTE service cell:\n1,4\nOK\n"), "1,4\nOK\n");
    EXPECT_EQ(
        gtccinfo_of(ok_answer({"x+GTCCINFO:", "+GTCCINFO:", "+CEREG: 2,1", "LTE service cell:", "+CTZV: +8,1", "1,4"})),
        "1,4\r\n\r\nOK\r\n");
    EXPECT_EQ(gtccinfo_of(lte_fm350), "code -1");
    EXPECT_EQ(gtccinfo_of("\r\n+GTCCINFO: service cell"), "code -1");
    EXPECT_EQ(gtccinfo_of("\r\n+GTCCINFO:\r\nservice cell"), "code -1");
    EXPECT_EQ(gtccinfo_of("\r\n+GTCCINFO:\r\nLTE service cell:\r\n"), "");
    // Whole lines only: "1,2,3,4\r\n" has 9 characters.
    const std::string rows = "\r\n+GTCCINFO:\r\nLTE service cell:\r\n1,2,3,4\r\n2,3\r\n";
    EXPECT_EQ(gtccinfo_of(rows, 15), "1,2,3,4\r\n2,3\r\n");
    EXPECT_EQ(gtccinfo_of(rows, 13), "1,2,3,4\r\n");
    EXPECT_EQ(gtccinfo_of(rows, 8), "code -1");
}

TEST_F(Cell, OddCellFigures)
{
    const struct {
        std::string answer;
        const char *expected;
        const char *log;
    } rows[] = {
        {ok_answer({"+GTCELLINFO: 1", "NR:", "BeamID:3", "Power: -12", "RANK: 0", "DLMCS: 5", "ULMCS:"}),
         "NR 3 -- -12 0 5 --", ""},
        {ok_answer({"+CTZV: +GTCELLINFO: 0", "+GTCELLINFO: 1", "+CEREG: 2,1", "LTE:", "+X: CQI: 7", "CQI: 255",
                    "Power: 255", "RANK: RANK255", "CQI: 3"}),
         "LTE -- -- -- -- -- --", ""},
        {ok_answer({"+GTCELLINFO:1", "", "LTE-NR EN-DC:", "CQI: 01234567890123", "RANK: none", "Power"}),
         "LTE-NR EN- -- 0123456789 -- -- -- --", ""},
        {ok_answer({"+GTCELLINFO: 1", "no mode line", "CQI: 1"}), "no mode li -- 1 -- -- -- --", ""},
        {ok_answer({"+GTCELLINFO: 0"}), "code 65538 - - - - - - -", "GTCCINFO not enabled"},
        {ok_answer({"+GTCELLINFO: 1"}), "code 65538 - - - - - - -", "maybe no simcard"},
        {"\r\n+GTCELLINFO:", "code 65538 - - - - - - -", "maybe no simcard"},
    };
    for (const auto &row : rows) {
        clear_log();
        EXPECT_EQ(cell_info_of(row.answer), row.expected) << row.answer;
        EXPECT_EQ(log_count(row.log, 3), *row.log ? 1 : 0) << row.answer;
    }
}

} // namespace
