#include "signal_methods.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "captured_log.h"
#include "captured_reply.h"
#include "cell_answers.h"
#include "fake_modem_link.h"
#include "network_methods.h"
#include "sim_methods.h"

namespace {

constexpr char UNEXPLAINED[] =
    R"("ec_io":"--","lte_signal":"--","rsrq":"--","lte_noise":"--","nr_signal":"--","ss_rsrq":"--","nr_noise":"--",)";

constexpr char FAILED_PASSTHROUGH[] = R"({"result":-1,"resp":"failure to send at command"})";

class Methods : public testing::Test {
protected:
    void SetUp() override
    {
        fake_link.reset();
        clear_log();
    }

    std::string reply_to(Handler handler, FakeLink::Answer answer, const char *arguments = "{}")
    {
        fake_link.reset();
        fake_link.answer_always(std::move(answer));
        return reply_of(handler, arguments);
    }

    // The reply where AT+CSQ answers `rssi` and everything else `cells`.
    std::string signal_of(const std::string &cells, FakeLink::Answer rssi)
    {
        fake_link.answer = [&](const std::string &command) {
            return command == "AT+CSQ\r" ? rssi : FakeLink::Answer(cells);
        };
        return reply_of(handle_get_signal_quality);
    }

    std::string sent()
    {
        std::string text;
        for (const std::string &command : fake_link.sent)
            text += command.substr(0, command.find('\r')) + " ";
        return text;
    }
};

TEST_F(Methods, RawSignalFigures)
{
    EXPECT_EQ(reply_to(handle_get_rssi, ok_answer({"+CSQ: 24,99"})), R"({"result":0,"rssi":24})");
    EXPECT_EQ(reply_to(handle_get_rssi, "\r\nERROR\r\n"), R"({"result":65535})");
    EXPECT_EQ(reply_to(handle_get_rssi, std::nullopt), R"({"result":65537})");
    EXPECT_EQ(
        reply_to(handle_get_extended_signal_quality, ok_answer({"+CESQ: 17,99,255,255,4,29,75,52,57"})),
        R"({"result":0,"rxlev":17,"ber":99,"rscp":255,"ecno":255,"rsrq":4,"rsrp":29,"ss_rsrq":75,"ss_rsrp":52,"ss_sinr":57})");
    EXPECT_EQ(reply_to(handle_get_extended_signal_quality, "\r\nERROR\r\n"), R"({"result":65535})");
}

TEST_F(Methods, SignalQualityOfEachServingCell)
{
    const std::string csq31 = ok_answer({"+CSQ: 31,99"});
    const std::string two_umts = ok_answer({"+GTCCINFO:", "1,2,1,1", "1,2,1,1", "1,4,1,1,,,,,,,,,50"});
    EXPECT_EQ(signal_of(lte_fm160, csq31), R"({"signal":"-78 dBm","signal":"Unknown","result":0})");
    EXPECT_EQ(signal_of(en_dc_fm350, csq31),
              R"({"signal":"-97 dBm","signal":"-107 dBm","signal":"Unknown","result":0})");
    EXPECT_EQ(signal_of(umts_qualcomm, csq31), R"({"signal":"-51 dBm","signal":"Unknown","result":0})");
    for (const char *level : {"+CSQ: 99,99", "+CSQ: 255,99", "+CSQ: 32,99", "+CSQ: ,99"})
        EXPECT_EQ(signal_of(umts_qualcomm, ok_answer({level})),
                  R"({"signal":"Unknown","signal":"Unknown","result":0})");
    EXPECT_EQ(signal_of(umts_qualcomm, std::nullopt), R"({"signal":"Unknown","result":65537})");
    EXPECT_EQ(signal_of(two_umts, csq31), R"({"signal":"-51 dBm","signal":"-51 dBm","signal":"-91 dBm","result":0})");
    EXPECT_EQ(signal_of(two_umts, "\r\nERROR\r\n"), R"({"signal":"-91 dBm","result":65535})");
    EXPECT_EQ(signal_of(ok_answer({"+GTCCINFO:", "1,9,,,,,,,,,,,396", "1,4,,,,,,,,,,,", "1,7"}), csq31),
              R"({"signal":"Unknown","signal":"Unknown","signal":"Unknown","result":0})");
    EXPECT_EQ(signal_of(no_cell, csq31), R"({"signal":"Unknown","result":0})");
    EXPECT_EQ(signal_of("\r\n+CME ERROR: 10\r\n", csq31), R"({"result":65535})");
}

TEST_F(Methods, CurrentCell)
{
    const struct {
        std::string answer;
        const char *reply;
    } rows[] = {
        {lte_fm160,
         R"({"pcellid":484,"rsrp":"-78 dBm","rat":4,"cellid":"86684471","band":"b3","ecio":0,"mcc":"460","mnc":"01","lac":"20304","result":0})"},
        {nr_qualcomm,
         R"({"pcellid":656,"ss_rsrp":"-69 dBm","rat":9,"cellid":"4327088431","band":"n41","ecio":0,"mcc":"310","mnc":"260","lac":"10675968","result":0})"},
        {en_dc_qualcomm,
         R"({"pcellid":484,"rsrp":"-78 dBm","pcellid":656,"ss_rsrp":"-69 dBm","rat":9,"cellid":"","band":"b3,n78","ecio":0,"mcc":"460","mnc":"01","lac":"","result":0})"},
        {umts_qualcomm,
         R"({"ec_io":"-5.0 dB","rat":2,"cellid":"29127953","band":"b8","ecio":39,"mcc":"262","mnc":"02","lac":"1492","result":0})"},
        {lte_fm350,
         R"({"pcellid":640,"rsrp":"-108 dBm","rat":4,"cellid":"82448393","band":"b3","ecio":0,"mcc":"250","mnc":"2","lac":"33203","result":0})"},
        {ok_answer({"+GTCCINFO:", "1,9,1,1,,,,5,50257,,,,255", "1,4,2,2,,,,6,141,,,,255", "1,9,3,3,,,,7,255,,,,0"}),
         R"({"pcellid":5,"ss_rsrp":"--","pcellid":5,"rsrp":"--","pcellid":5,"ss_rsrp":"-156 dBm","rat":9,"cellid":"","band":"n257,b41","ecio":0,"mcc":"1","mnc":"1","lac":"","result":0})"},
        {ok_answer({"+GTCCINFO:", "1,2,1,1,,,,,255"}),
         R"({"ec_io":"--","rat":2,"cellid":"","band":"","ecio":255,"mcc":"1","mnc":"1","lac":"","result":0})"},
        {no_cell, R"({"result":-1})"},
        {"\r\nERROR\r\n", R"({"result":-1})"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(reply_to(handle_get_current_cell_info, row.answer), row.reply) << row.answer;
}

TEST_F(Methods, CurrentCellExplained)
{
    const struct {
        std::string answer;
        std::string reply;
    } rows[] = {
        {en_dc_qualcomm,
         R"({"ec_io":"--","lte_signal":"-78 dBm","rsrq":"-8.0 dB","lte_noise":"22.0 dB","nr_signal":"-69 dBm","ss_rsrq":"-11.5 dB","nr_noise":"33.0 dBm","rat":9,"cellid":"","band":"b3,n78","mcc":"460","mnc":"01","lac":"","result":0})"},
        {umts_qualcomm,
         R"({"ec_io":"-5.0 dB","lte_signal":"--","rsrq":"--","lte_noise":"--","nr_signal":"--","ss_rsrq":"--","nr_noise":"--","rat":2,"cellid":"29127953","band":"b8","mcc":"262","mnc":"02","lac":"1492","result":0})"},
        {lte_fm350,
         R"({"ec_io":"--","lte_signal":"-108 dBm","rsrq":"-11.5 dB","lte_noise":"-0.5 dB","nr_signal":"--","ss_rsrq":"--","nr_noise":"--","rat":4,"cellid":"82448393","band":"b3","mcc":"250","mnc":"2","lac":"33203","result":0})"},
        {ok_answer({"+GTCCINFO:", "1,9,1,1,,,,,5,,255,,255,255", "1,4,1,1,,,,,1,,255,,98,-1", "1,2,1,1,,,,,x"}),
         std::string("{") + UNEXPLAINED + R"("rat":9,"cellid":"","band":"","mcc":"1","mnc":"1","lac":"","result":0})"},
        {no_cell, std::string("{") + UNEXPLAINED + R"("result":-1})"},
        {"\r\nERROR\r\n", R"({"result":-1})"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(reply_to(handle_get_current_cell_info_explained, row.answer), row.reply) << row.answer;
    // Zero crossings: LTE RSRQ 34 and noise 41, NR RSRQ 87, Ec/Io 49.
    std::string edges =
        reply_to(handle_get_current_cell_info_explained,
                 ok_answer({"+GTCCINFO:", "1,4,,,,,,,,,41,,0,34", "1,9,,,,,,,,,,,0,87", "1,2,,,,,,,,,,,,,49"}));
    EXPECT_TRUE(edges.starts_with(
        R"({"ec_io":"0.0 dB","lte_signal":"-141 dBm","rsrq":"-3.0 dB","lte_noise":"20.5 dB","nr_signal":"-156 dBm","ss_rsrq":"0.0 dB",)"))
        << edges;
}

TEST_F(Methods, CellFiguresAndBandsAreAlwaysThere)
{
    EXPECT_EQ(
        reply_to(handle_get_cell_info,
                 "+GTCELLINFO: 1\r\nLTE:\r\nCQI: 15\r\nPower: 2\r\nRANK: RANK1\r\nDLMCS: 5\r\nULMCS: 22\r\n\r\nOK"),
        R"({"result":0,"Mode":"LTE","BeamID":"--","CQI":"15","Power":"2","RANK":"1","DLMCS":"5","ULMCS":"22"})");
    EXPECT_EQ(
        reply_to(handle_get_cell_info, ok_answer({"+GTCELLINFO: 0"})),
        R"({"result":65538,"Mode":"--","BeamID":"--","CQI":"--","Power":"--","RANK":"--","DLMCS":"--","ULMCS":"--"})");
    EXPECT_EQ(reply_to(handle_get_current_rat_and_band, ok_answer({"+GTACT: 20,6,3,1,8,101,5078"})),
              R"({"result":0,"rat":20,"pref_act1":6,"pref_act2":3,"bands":"I,VIII,b1,n78"})");
    EXPECT_EQ(reply_to(handle_get_current_rat_and_band, std::nullopt), R"({"result":65537,"rat":0,"bands":""})");
    EXPECT_EQ(reply_to(handle_get_gtccinfo, nr_qualcomm),
              R"({"result":0,"gtccinfo":"1,9,310,260,A2E700,101EA212F,7EFAE,290,5041,100,113,87,87,64"})");
    EXPECT_EQ(log_count("get_gtccinfo ==1,9,310", -1), 1);
    EXPECT_EQ(reply_to(handle_get_gtccinfo, ok_answer({"+GTCCINFO:", "LTE service cell:"})),
              R"({"result":0,"gtccinfo":""})");
    EXPECT_EQ(reply_to(handle_get_gtccinfo, lte_fm350), R"({"result":-1,"gtccinfo":""})");
}

struct Call {
    Handler handler;
    const char *arguments;
    FakeLink::Answer answer;
    const char *reply;
    const char *sent;
};

TEST_F(Methods, ArgumentsAndReplies)
{
    const std::string ok = "\r\nOK\r\n";
    const Call calls[] = {
        {handle_get_operator_info, "{}", ok_answer({"+COPS: 0,0,\"vodafone.de\",7"}),
         R"({"result":0,"mode":0,"format":0,"oper":"vodafone.de","act":7})", "AT+COPS? "},
        {handle_get_operator_info, "{}", ok_answer({"+COPS: 0"}), R"({"result":0,"mode":0})", "AT+COPS? "},
        {handle_get_operator_info, "{}", ok_answer({"+COPS: 0,0,\"\""}), R"({"result":0,"mode":0,"format":0})",
         "AT+COPS? "},
        {handle_select_operator, R"({"mode":1,"format":2,"oper":"\"46000\"","act":7})", ok, R"({"result":0})",
         "AT+COPS=1,2,\"46000\",7 "},
        {handle_select_operator, R"({"mode":0})", "\r\nERROR\r\n", R"({"result":65535})", "AT+COPS=0 "},
        {handle_select_operator, R"({"mode":1,"act":256})", ok, R"({"result":-1})", ""},
        {handle_select_operator, R"({"mode":"1","format":2})", ok, "status 2", ""},
        {handle_select_rat, R"({"act":20,"pref2":0})", ok, R"({"result":0})", "AT+GTACT=20,0 "},
        {handle_select_rat, R"({"act":-1})", ok, R"({"result":-1})", ""},
        {handle_select_rat, "{}", ok, "status 2", ""},
        {handle_set_network_mode, R"({"mode":3,"bands":"b3"})", ok, R"({"result":0})", "AT+GTACT=2,,,103 "},
        {handle_set_network_mode, R"({"mode":4})", ok, R"({"result":0})", "AT+GTACT=1 "},
        {handle_set_network_mode, R"({"mode":7})", ok, "status 2", ""},
        {handle_set_network_mode, "{}", ok, "status 2", ""},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act1":6,"pref_act2":3,"bands":"b3,n78"})", ok,
         R"({"result":0})", "AT+GTACT=20,6,3,103,5078 "},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act1":4})", ok, R"({"result":-1})", ""},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act2":3})", ok, "status 2", ""},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act1":0,"bands":"b3"})", ok, "status 2", ""},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act1":6,"pref_act2":0,"bands":"b3"})", ok, "status 2", ""},
        {handle_select_rat_and_band, R"({"rat":20,"pref_act1":6,"pref_act2":3,"bands":""})", ok, "status 2", ""},
        {handle_select_rat_and_band, R"({"pref_act1":6})", ok, "status 2", ""},
        {handle_at_passthrough, R"({"at":"ATI"})", "\r\nFM160\r\n\r\nOK\r\n",
         R"({"result":0,"resp":"\r\nFM160\r\n\r\nOK\r\n"})", "ATI "},
        {handle_at_passthrough, R"({"at":"ATI"})", std::nullopt, FAILED_PASSTHROUGH, "ATI "},
        {handle_at_passthrough, R"({"timeout_ms":1})", ok, "status 2", ""},
        {handle_at_passthrough, R"({"at":"AT+CREG=2;+CREG?"})", ok, R"({"result":0,"resp":"\r\nOK\r\n"})",
         "AT+CREG=2;+CREG? "},
        {handle_at_passthrough, R"({"at":"ATI\r"})", ok, R"({"result":0,"resp":"\r\nOK\r\n"})", "ATI "},
        {handle_at_passthrough, R"({"at":"ATI\rAT+CFUN=0"})", ok, FAILED_PASSTHROUGH, ""},
        {handle_at_passthrough, R"({"at":"ATI\r\r"})", ok, FAILED_PASSTHROUGH, ""},
        {handle_at_passthrough, R"({"at":"ATI\n"})", ok, FAILED_PASSTHROUGH, ""},
        {handle_at_passthrough, R"({"at":"00\u001a"})", ok, FAILED_PASSTHROUGH, ""},
        {handle_at_passthrough, R"({"at":"\u001bAT"})", ok, FAILED_PASSTHROUGH, ""},
        {handle_select_operator, R"({"mode":1,"format":2,"oper":"26201;+CFUN=0"})", ok, R"({"result":65535})", ""},
        {handle_get_operator_info, "{}", ok_answer({"+COPS: 0,0,\"A, B\",7"}),
         R"({"result":0,"mode":0,"format":0,"oper":"A, B","act":7})", "AT+COPS? "},
        {handle_get_remaining_pin_retries, "{}", ok_answer({"+CPINR: \"SIM PIN\",3,"}),
         R"({"result":0,"pin1_retries":3})", "AT+CPINR "},
        {handle_get_sim_lock_status, "{}", ok_answer({"+CLCK: 1"}), R"({"result":0,"enabled":true})",
         "AT+CLCK=\"SC\",2 "},
        {handle_set_sim_lock_status, R"({"pin":"1234","enabled":5})", ok, R"({"result":0})",
         "AT+CLCK=\"SC\",1,\"1234\" "},
        {handle_set_sim_lock_status, R"({"pin":"1234"})", ok, "status 2", ""},
        {handle_get_sim_remaining_attempts, "{}", ok_answer({"+TPIN: 3,10"}), R"({"result":0,"pin":3,"puk":10})",
         "AT+TPIN? "},
        {handle_get_sim_remaining_attempts, "{}", ok_answer({"+TPIN: 3"}), R"({"result":0})", "AT+TPIN? "},
        {handle_get_remaining_pin_retries, "{}", ok_answer({"+CPINR: SIM PIN,3,3", "+CPINR: SIM PUK2,9,10"}),
         R"({"result":0,"pin1_retries":3,"pin1_default_retries":3,"puk2_retries":9,"puk2_default_retries":10})",
         "AT+CPINR "},
        {handle_get_remaining_pin_retries, R"({"sel_code":"SIM PIN"})", "\r\nERROR\r\n", R"({"result":65535})",
         "AT+CPINR=\"SIM PIN\" "},
        {handle_unlock_sim, R"({"pin":"123456789012","puk":""})", ok, R"({"result":0})", "AT+CPIN=\"123456789012\" "},
        {handle_unlock_sim, R"({"pin":"1234","puk":"87654321"})", "\r\n+CME ERROR: 16\r\n", R"({"result":65535})",
         "AT+CPIN=\"87654321\",\"1234\" "},
        {handle_unlock_sim, R"({"puk":"87654321"})", ok, "status 2", ""},
        {handle_change_sim_pin, R"({"pin":"1234","new_pin":"5678"})", ok, R"({"result":0})",
         "AT+CPWD=\"SC\",\"1234\",\"5678\" "},
        {handle_change_sim_pin, R"({"pin":"1234"})", ok, "status 2", ""},
    };
    for (const Call &call : calls) {
        EXPECT_EQ(reply_to(call.handler, call.answer, call.arguments), call.reply) << call.arguments;
        EXPECT_EQ(sent(), call.sent) << call.arguments;
    }
    EXPECT_EQ(log_count("command holds a line end", 3), 5);
    EXPECT_EQ(log_count("preferred act 1 not specified", 3), 2);
    EXPECT_EQ(log_count("preferred act 2 not specified", 3), 1);
    EXPECT_EQ(log_count("selected bands must not be empty", 3), 1);
}

TEST_F(Methods, NetworkModeSwitchesStandAloneFirst)
{
    const struct {
        const char *arguments;
        const char *stand_alone;
        const char *selection;
    } rows[] = {{R"({"mode":0})", "1\r", "AT+GTACT=20,6,3\r"},
                {R"({"mode":1})", "0\r", "AT+GTACT=20,6,3\r"},
                {R"({"mode":2})", "1\r", "AT+GTACT=14\r"},
                {R"({"mode":5})", "1\r", "AT+GTACT=17,6\r"},
                {R"({"mode":6})", "0\r", "AT+GTACT=17,6\r"}};
    for (const auto &row : rows) {
        EXPECT_EQ(reply_to(handle_set_network_mode, "\r\nOK\r\n", row.arguments), R"({"result":0})");
        EXPECT_EQ(fake_link.sent.size(), 2u);
        EXPECT_TRUE(fake_link.sent.front().ends_with(row.stand_alone)) << row.arguments;
        EXPECT_EQ(fake_link.sent.back(), row.selection);
        fake_link.reset();
        fake_link.answer = [&](const std::string &command) {
            return FakeLink::Answer(command == row.selection ? "\r\nOK\r\n" : "\r\nERROR\r\n");
        };
        EXPECT_EQ(reply_of(handle_set_network_mode, row.arguments), R"({"result":65535})");
        EXPECT_EQ(fake_link.sent.back(), row.selection);
    }
}

TEST_F(Methods, WaitsOfThePassThroughAreBounded)
{
    reply_of(handle_at_passthrough, R"({"at":"ATI"})");
    reply_of(handle_at_passthrough, R"({"at":"AT+COPS=?","timeout_ms":180000})");
    reply_of(handle_at_passthrough, R"({"at":"ATI","timeout_ms":-1})");
    EXPECT_EQ(fake_link.timeouts, (std::vector<uint32_t>{3000, 180000, 600000}));
    fake_link.mutex_error = 110;
    EXPECT_EQ(reply_of(handle_at_passthrough, R"({"at":"ATI"})"),
              R"({"result":110,"resp":"failure to send at command"})");
    fake_link.mutex_error = 0;
    fake_link.stopping = true;
    EXPECT_EQ(reply_of(handle_at_passthrough, R"({"at":"ATI"})"),
              R"({"result":-1,"resp":"failure to send at command"})");
}

TEST_F(Methods, ScanIsQueuedOrRefused)
{
    EXPECT_EQ(reply_of(handle_scan_network), R"({"result":0})");
    EXPECT_EQ(fake_link.sent, std::vector<std::string>{"AT+COPS=?\r"});
    fake_link.enqueue_result = -1;
    EXPECT_EQ(reply_of(handle_scan_network), R"({"result":-1})");
}

} // namespace
