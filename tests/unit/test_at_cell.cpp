#include "at_cell.h"

#include <array>

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

using Cells = std::array<ServingCellRecord, SERVING_CELLS>;

class Cell : public ModemTest<> {
protected:
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
};

TEST_F(Cell, SignalLevelOfAnOddAnswer)
{
    uint8_t rssi = 0;
    fake_link.answer_always("\r\n+CSQ: 31,99\r\n");
    EXPECT_EQ(at_get_rssi(&rssi), RESULT_INCOMPLETE);
    EXPECT_EQ(rssi, 31);
    fake_link.answer_always(ok_answer({"\x01\xff +CSQ: 5"}));
    EXPECT_EQ(at_get_rssi(&rssi), RESULT_OK);
    EXPECT_EQ(rssi, 5);
}

TEST_F(Cell, AnOperatorsNameIsWholeOrAFailure)
{
    OperatorInfo info = {};
    fake_link.answer_always(ok_answer({"+COPS: 0,0,\"" + std::string(255, 'x') + "\",7"}));
    EXPECT_EQ(at_get_operator_info(&info), RESULT_OK);
    EXPECT_EQ(info.oper_len, 255);
    EXPECT_EQ(info.oper, std::string(255, 'x'));
    free(info.oper);
    fake_link.answer_always(ok_answer({"+COPS: 0,0,\"" + std::string(256, 'x') + "\",7"}));
    info = {};
    EXPECT_EQ(at_get_operator_info(&info), RESULT_ERROR);
    EXPECT_EQ(info.oper, nullptr);
    EXPECT_EQ(log_count("operator name too long"), 1);
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

TEST_F(Cell, MissingCellFiguresAreNamed)
{
    for (const auto &[answer, reason] : {std::pair(ok_answer({"+GTCELLINFO: 0"}), "GTCCINFO not enabled"),
                                         {ok_answer({"+GTCELLINFO: 1"}), "maybe no simcard"},
                                         {"\r\n+GTCELLINFO:", "maybe no simcard"}}) {
        clear_log();
        fake_link.answer_always(answer);
        CellInfo info = {};
        EXPECT_EQ(at_get_cell_info(&info), RESULT_INCOMPLETE) << answer;
        EXPECT_EQ(log_count(reason, LOG_ERR), 1) << answer;
    }
}

} // namespace
