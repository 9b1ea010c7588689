// The card's codes, the cells, network scans, and starts and restarts of modem and router.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "router.h"

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

static const std::string ok = R"({"result":0})";
static const std::string refused = R"({"result":65535})";
static const std::string busy = R"({"result":65537})";

TEST(Sim, ACodeFromTheFirstEntryToThePuk)
{
    Router router(R"({"modem": {"sim": {"state": "pin", "lock": true, "pin": "48151623", "puk": "62951413"}}})");
    EXPECT_EQ(router.call("get_sim_status"), R"({"result":0,"status":"SIM PIN"})");
    EXPECT_EQ(router.call("get_sim_lock_status"), R"({"result":0,"enabled":true})");

    EXPECT_EQ(router.call("unlock_sim", {{"pin", "48151600"}}), refused);
    EXPECT_EQ(router.call("get_sim_remaining_attempts"), R"({"result":0,"pin":2,"puk":10})");
    EXPECT_EQ(router.call("unlock_sim", {{"pin", "48151623"}, {"puk", ""}}), ok);
    EXPECT_EQ(router.call("get_sim_status"), R"({"result":0,"status":"READY"})");
    EXPECT_EQ(router.call("get_remaining_pin_retries", {{"sel_code", "SIM PIN"}}),
              R"({"result":0,"pin1_retries":3,"pin1_default_retries":3})");
    EXPECT_THAT(router.datagrams(2), Contains("sim_ready"));

    EXPECT_EQ(router.call("change_sim_pin", {{"pin", "48151623"}, {"new_pin", "73519264"}}), ok);
    EXPECT_EQ(router.call("set_sim_lock_status", {{"pin", "48151623"}, {"enabled", 0}}), refused);
    EXPECT_EQ(router.call("set_sim_lock_status", {{"pin", "73519264"}, {"enabled", 0}}), ok);
    EXPECT_EQ(router.call("get_sim_lock_status"), R"({"result":0,"enabled":false})");
    EXPECT_EQ(router.call("set_sim_lock_status", {{"pin", "73519264"}, {"enabled", 1}}), ok);

    // A code that would end the command and begin another one is not sent.
    (void)router.commands();
    for (const char *code : {"1234\"", "1234\rAT+CFUN=0", "1234\n", "12\b34"})
        EXPECT_EQ(router.call("unlock_sim", {{"pin", code}}), refused) << code;
    EXPECT_EQ(router.call("unlock_sim"), "status 2");
    for (const std::string &command : router.commands()) // the daemon's own settings behind "+SIM READY" may still come
        EXPECT_TRUE(command.find("CPIN") == std::string::npos && command.find("CFUN") == std::string::npos) << command;

    router.modem({{"do", "sim"}, {"args", {"pull"}}});
    EXPECT_NE(router.call("get_sim_status"), R"({"result":0,"status":"READY"})");
    EXPECT_THAT(router.datagrams(1), Contains("sim_absent"));
    router.modem({{"do", "sim"}, {"args", {"return"}}});
    ASSERT_TRUE(wait_for([&] { return router.ask("get_sim_status").value("status", "") == "SIM PIN"; }));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(router.call("unlock_sim", {{"pin", "48151600"}}), refused);
    EXPECT_EQ(router.call("get_sim_status"), R"({"result":0,"status":"SIM PUK"})");
    EXPECT_EQ(router.call("unlock_sim", {{"pin", "55667788"}, {"puk", "62951400"}}), refused);
    EXPECT_EQ(router.call("get_sim_remaining_attempts"), R"({"result":0,"pin":0,"puk":9})");
    EXPECT_EQ(router.call("unlock_sim", {{"pin", "55667788"}, {"puk", "62951413"}}), ok);
    EXPECT_EQ(router.call("get_sim_status"), R"({"result":0,"status":"READY"})");
    EXPECT_EQ(router.modem_state("/modem/sim/pin"), "55667788");

    EXPECT_THAT(router.commands(), Contains("AT+CPIN=\"62951413\",\"55667788\""));
    std::string logs = router.all_logs();
    EXPECT_THAT(logs, HasSubstr(R"(Send: AT+CPIN="********","********")"));
    for (const char *code : {"48151623", "48151600", "73519264", "62951413", "62951400", "55667788"})
        EXPECT_THAT(logs, Not(HasSubstr(code)));
}

TEST(Cells, EachKindOfServingCell)
{
    const struct {
        const char *cell;
        const char *signal;
        const char *current;
        const char *explained;
        const char *raw;
    } rows[] = {
        {"lte", R"({"signal":"-78 dBm","signal":"Unknown","result":0})",
         R"({"pcellid":484,"rsrp":"-78 dBm","rat":4,"cellid":"86684471","band":"b3","ecio":0,)"
         R"("mcc":"460","mnc":"01","lac":"20304","result":0})",
         R"({"ec_io":"--","lte_signal":"-78 dBm","rsrq":"-8.0 dB","lte_noise":"22.0 dB","nr_signal":"--",)"
         R"("ss_rsrq":"--","nr_noise":"--","rat":4,"cellid":"86684471","band":"b3","mcc":"460","mnc":"01",)"
         R"("lac":"20304","result":0})",
         R"({"result":0,"gtccinfo":"1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24"})"},
        {"nr", R"({"signal":"-69 dBm","signal":"Unknown","result":0})",
         R"({"pcellid":656,"ss_rsrp":"-69 dBm","rat":9,"cellid":"4327088431","band":"n41","ecio":0,)"
         R"("mcc":"460","mnc":"01","lac":"20304","result":0})",
         R"({"ec_io":"--","lte_signal":"--","rsrq":"--","lte_noise":"--","nr_signal":"-69 dBm",)"
         R"("ss_rsrq":"-11.0 dB","nr_noise":"33.0 dBm","rat":9,"cellid":"4327088431","band":"n41",)"
         R"("mcc":"460","mnc":"01","lac":"20304","result":0})",
         R"({"result":0,"gtccinfo":"1,9,460,01,4F50,101EA212F,7EFAE,290,5041,100,113,87,87,65"})"},
        {"endc", R"({"signal":"-78 dBm","signal":"-69 dBm","signal":"Unknown","result":0})",
         R"({"pcellid":484,"rsrp":"-78 dBm","pcellid":656,"ss_rsrp":"-69 dBm","rat":9,"cellid":"4327088431",)"
         R"("band":"b3,n41","ecio":0,"mcc":"460","mnc":"01","lac":"20304","result":0})",
         R"({"ec_io":"--","lte_signal":"-78 dBm","rsrq":"-8.0 dB","lte_noise":"22.0 dB","nr_signal":"-69 dBm",)"
         R"("ss_rsrq":"-11.0 dB","nr_noise":"33.0 dBm","rat":9,"cellid":"4327088431","band":"b3,n41",)"
         R"("mcc":"460","mnc":"01","lac":"20304","result":0})",
         R"({"result":0,"gtccinfo":"1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24"})"},
        {"umts", R"({"signal":"-59 dBm","signal":"Unknown","result":0})",
         R"({"ec_io":"-6.0 dB","rat":2,"cellid":"29127953","band":"b8","ecio":37,"mcc":"460","mnc":"01",)"
         R"("lac":"1492","result":0})",
         R"({"ec_io":"-6.0 dB","lte_signal":"--","rsrq":"--","lte_noise":"--","nr_signal":"--","ss_rsrq":"--",)"
         R"("nr_noise":"--","rat":2,"cellid":"29127953","band":"b8","mcc":"460","mnc":"01","lac":"1492",)"
         R"("result":0})",
         R"({"result":0,"gtccinfo":"1,2,460,01,5D4,1BC7511,2A05,DB,8,37,41,1,41,0,37"})"},
        {"none", R"({"signal":"Unknown","result":0})", R"({"result":-1})",
         R"({"ec_io":"--","lte_signal":"--","rsrq":"--","lte_noise":"--","nr_signal":"--","ss_rsrq":"--",)"
         R"("nr_noise":"--","result":-1})",
         R"({"result":-1,"gtccinfo":""})"},
    };
    Router router;
    for (const auto &row : rows) {
        router.modem({{"do", "cell"}, {"args", {row.cell}}});
        EXPECT_EQ(router.call("get_signal_quality"), row.signal) << row.cell;
        EXPECT_EQ(router.call("get_current_cell_info"), row.current) << row.cell;
        EXPECT_EQ(router.call("get_current_cell_info_explained"), row.explained) << row.cell;
        EXPECT_EQ(router.call("get_gtccinfo"), row.raw) << row.cell;
    }
    // A tracking area of 24 bits, and a signal that changes.
    router.modem({{"do", "set"}, {"args", {R"({"network": {"cell": "nr", "nr": {"tac": 16777214}}})"}}});
    router.modem({{"do", "signal"}, {"rsrp", "-100"}});
    EXPECT_EQ(router.ask("get_current_cell_info")["lac"], "16777214");
    EXPECT_EQ(router.ask("get_current_cell_info")["ss_rsrp"], "-99 dBm");
}

TEST(Scan, ClientsCallWhileItRuns)
{
    Router router;
    EXPECT_EQ(router.root.shell("uci get modem.scan.network").output, "E-UTRAN NR E-UTRAN\n") << "of the first scan";
    Process listener = router.root.start({"ubus", "listen", "modem"});
    ASSERT_TRUE(wait_for([&] { return router.modem({{"do", "ping"}}).value("ok", false); }));
    router.modem({{"do", "set"}, {"args", {R"({"behaviour": {"scan_ms": 3000}, "network": {"operators": [
        {"stat": 2, "name": "One (and) only", "brief": "1", "numeric": "46001", "act": 12},
        {"stat": 1, "name": "Two", "brief": "2", "numeric": "46000", "act": 2}]}})"}}});
    router.modem({{"do", "sms"}, {"args", {"+491701234567", "before"}}});
    ASSERT_TRUE(wait_for([&] { return router.ask("get_all_messages")["messages"].size() == 1; }));
    ASSERT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
    (void)router.commands();

    EXPECT_EQ(router.call("scan_network"), ok);
    router.modem({{"do", "sms"}, {"args", {"+491701234567", "during the scan"}}});
    EXPECT_EQ(router.call("scan_network"), R"({"result":-1})");
    EXPECT_EQ(router.call("get_imei"), busy);
    EXPECT_EQ(router.call("at_passthrough", {{"at", "AT+CSQ"}}),
              R"({"result":-1,"resp":"failure to send at command"})");
    EXPECT_EQ(router.ask("get_all_messages")["messages"].size(), 1U);
    EXPECT_EQ(router.call("get_autoconnect"), R"({"result":0,"autoconnect":1})");
    ASSERT_EQ(router.modem_state("/scanning"), true) << "the machine is too slow for this test";
    EXPECT_THAT(router.commands(), ElementsAre("AT+COPS=?"));

    ASSERT_TRUE(listener.wait_for_output("scan_complete"));
    EXPECT_EQ(json::parse(listener.output(), nullptr, false), json({{"modem", {{"event", "scan_complete"}}}}));
    EXPECT_EQ(router.root.shell("uci get modem.scan.network").output, "NR UTRAN\n");
    EXPECT_THAT(router.root.shell("uci changes modem").output, HasSubstr("modem.scan.network"));
    EXPECT_THAT(router.root.read_file("/etc/config/modem"), Not(HasSubstr("list network")));
    EXPECT_TRUE(wait_for([&] { return router.ask("get_all_messages")["messages"].size() == 2; }));
    EXPECT_EQ(router.call("get_imei"), R"({"result":0,"imei":"860000000000009"})");
}

static void set(Router &router, const char *change)
{
    router.modem({{"do", "set"}, {"args", {change}}});
}

// A message that the modem announces reaches the store.
static void expect_message(Router &router, const char *text)
{
    router.modem({{"do", "sms"}, {"args", {"+491701234567", text}}});
    EXPECT_TRUE(wait_for([&] {
        json list = router.ask("get_all_messages")["messages"];
        return !list.empty() && message_text(list.back()) == text;
    })) << text;
}

static bool announces_messages(Router &router)
{
    return wait_for([&] {
        return router.modem_state("/modem/settings/cnmi") == json({2, 1, 0, 0, 0}) &&
               router.modem_state("/modem/settings/cpms") == json({"SM", "SM", "SM"});
    });
}

TEST(Restart, TheModemGoesAwayInTheMiddleOfACall)
{
    Router router;
    expect_message(router, "before");
    set(router, R"({"behaviour": {"delays": {"AT+CGSN": 500}}})");
    (void)router.commands();
    std::string imei;
    std::thread client([&] { imei = router.call("get_imei"); });
    ASSERT_TRUE(wait_for([&] { return !router.commands().empty(); }));
    router.modem({{"do", "reset"}, {"ms", "200"}});
    client.join();
    EXPECT_EQ(imei, busy);

    ASSERT_TRUE(announces_messages(router));
    ASSERT_TRUE(router.wait_until_free());
    EXPECT_EQ(router.modem_state("/port/losses"), 1);
    expect_message(router, "after");
    EXPECT_EQ(router.call("get_imei"), R"({"result":0,"imei":"860000000000009"})");
}

TEST(Restart, TheModemGoesAwayInTheMiddleOfAScan)
{
    Router router;
    set(router, R"({"behaviour": {"scan_ms": 600000}})");
    EXPECT_EQ(router.call("scan_network"), ok);
    EXPECT_EQ(router.call("get_imei"), busy);
    router.modem({{"do", "reset"}, {"ms", "200"}});
    EXPECT_TRUE(router.wait_until_free()) << "still waiting for a scan that nobody carries out any more";
    ASSERT_TRUE(announces_messages(router));
    expect_message(router, "after");
}

TEST(Restart, FirstBootAndReboot)
{
    Router router(read_whole_file(SOURCE_DIR "/modemsim/profiles/first_boot.json"), {{"/tmp/sku", "eu\nmore\n"}});
    EXPECT_THAT(router.commands(),
                testing::IsSupersetOf({"ATE0", "AT+GTPCMOUT=1", "AT+MSMPD=1", "AT+SIMSWAPCFG=0", "AT+CMGF=0",
                                       R"(AT+CPMS="SM","SM","SM")", "AT+CNMI=2,1", "AT+CAVIMS=1",
                                       R"(AT+CGDCONT=2,"IPV4V6","ims")", R"(AT+CGDCONT=1,"IPV4V6","internet")",
                                       R"(AT+GTSET="5GSACTR",1)", "AT+GTACT=20,6,3", "AT+CFUN=1", "AT+GTCELLINFO=1",
                                       "AT+COPS=?"}));
    EXPECT_THAT(router.datagrams(1), ElementsAre("apn_ipv4v6"));
    EXPECT_EQ(router.root.shell("readlink /etc/config/default_profile").output, "/etc/config/eu_apn_profile\n");
    EXPECT_TRUE(router.root.exists("/tmp/celmuxd_init"));
    expect_message(router, "kept");
    EXPECT_EQ(router.call("add_profile", {{"ip", 0}, {"apn", "kept"}}), ok);

    EXPECT_EQ(router.daemon.stop().code, 0);
    router.root.remove("/tmp/celmuxd_init");
    router.modem({{"do", "reset"}, {"ms", "50"}});
    ASSERT_TRUE(wait_for([&] { // the restart begins a moment after it was asked for, and the SIM needs longest
        return router.modem_state("/port/losses") == 1 && router.modem_state("/service") == true;
    }));
    (void)router.commands();
    router.daemon.start_again();
    ASSERT_TRUE(router.wait_until_free());
    std::vector<std::string> commands = router.commands();
    EXPECT_THAT(commands, testing::IsSupersetOf({"ATE0", "AT+CNMI=2,1", "AT+CFUN=1", "AT+COPS=?"}));
    for (const char *done : {"AT+GTPCMOUT=1", "AT+MSMPD=1", "AT+SIMSWAPCFG=0", "AT+CAVIMS=1"})
        EXPECT_THAT(commands, Not(Contains(done)));
    EXPECT_EQ(router.ask("get_profile_list")["profiles"].size(), 1U);
    EXPECT_EQ(message_text(router.ask("get_message", {{"index", 1}})), "kept");
    ASSERT_TRUE(announces_messages(router));
    expect_message(router, "after the reboot");
}
