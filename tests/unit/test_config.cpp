#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>

#include "captured_log.h"
#include "config.h"

namespace {

struct ConfigTest : testing::Test {
    std::string path = testing::TempDir() + "ril_" + std::to_string(getpid()) + ".json";

    void SetUp() override
    {
        clear_log();
        settings_g = {nullptr, PORT_SERIAL, 115200, 8, 0, 0, 0, 5, 1};
    }
    void TearDown() override
    {
        free_configuration();
        remove(path.c_str());
    }
    int read(const std::string &text)
    {
        std::ofstream(path, std::ios::binary) << text;
        return read_json(path.c_str());
    }
};

std::string settings(const std::string &members)
{
    return R"({"settings": {"port": "/dev/x", "type": "serial", )" + members + "}}";
}

TEST_F(ConfigTest, MissingAndUnparsableFilesAreRefused)
{
    EXPECT_EQ(read_json("/nonexistent/ril.json"), -1);
    EXPECT_EQ(log_count("configuration file not exist.", 3), 1);
    EXPECT_EQ(parse_settings(), -1);
    EXPECT_EQ(load_pre_execute(), -1);
    EXPECT_EQ(log_count("configurations not loaded", 3), 2);

    for (const char *text : {"", "{\"settings\": ", "\x01\x02", "{\"a\":1}}}{"}) {
        free_configuration();
        int result = read(text);
        EXPECT_EQ(result == 0, json_g != nullptr) << text;
    }
    EXPECT_GE(log_count("error before: ", 3), 2);
    EXPECT_EQ(read_json("/"), -1);
    EXPECT_EQ(read(std::string(2 << 20, ' ')), -1);
    EXPECT_EQ(log_count("load configuration file failed.", 3), 2);
}

TEST_F(ConfigTest, WithoutSettingsTheDefaultsStay)
{
    ASSERT_EQ(read(R"({"RESULTS": ["OK"]})"), 0);
    EXPECT_EQ(parse_settings(), 0);
    EXPECT_EQ(settings_g.port, nullptr);
    EXPECT_EQ(settings_g.requester_interval_s, 5u);
}

TEST_F(ConfigTest, ReadsEverySerialKey)
{
    ASSERT_EQ(read(R"({"Settings": {"Port": "/dev/x", "TYPE": "SERIAL", "serial_speed": 9600.9, "serial_databits": 7,
        "serial_stopbits": "1.5", "serial_parity": "Odd", "serial_flowcontrol": "HARDWARE", "requester_interval_s": 60, "burst_gap_ms": 2000}})"),
              0);
    ASSERT_EQ(parse_settings(), 0);
    EXPECT_STREQ(settings_g.port, "/dev/x");
    EXPECT_EQ(settings_g.serial_speed, 9600u);
    EXPECT_EQ(settings_g.serial_databits, 7u);
    EXPECT_EQ(settings_g.serial_stopbits, 1u);
    EXPECT_EQ(settings_g.serial_parity, 2u);
    EXPECT_EQ(settings_g.serial_flowcontrol, 2u);
    EXPECT_EQ(settings_g.requester_interval_s, 60u);
    EXPECT_EQ(settings_g.burst_gap_ms, 1000u);
    EXPECT_EQ(log_count("burst_gap_ms above 1000", 3), 1);
}

TEST_F(ConfigTest, NumbersOutsideTheirRangeSaturateAndWrongTypesAreIgnored)
{
    ASSERT_EQ(read(settings(R"("serial_speed": -5, "serial_databits": 1e20, "serial_stopbits": 1, "serial_parity": 3,
        "requester_interval_s": "7")")),
              0);
    ASSERT_EQ(parse_settings(), 0);
    EXPECT_EQ(settings_g.serial_speed, 0u);
    EXPECT_EQ(settings_g.serial_databits, UINT32_MAX);
    EXPECT_EQ(settings_g.serial_stopbits, 0u);
    EXPECT_EQ(settings_g.serial_parity, 0u);
    EXPECT_EQ(settings_g.requester_interval_s, 5u);
}

TEST_F(ConfigTest, BadSettingsAreNamed)
{
    const struct {
        std::string text;
        std::string message;
    } rows[] = {
        {R"({"settings": {}})", "port not defined or not valid"},
        {R"({"settings": 5})", "port not defined or not valid"},
        {R"({"settings": {"port": 1, "type": "file"}})", "port not defined or not valid"},
        {R"({"settings": {"port": "/dev/x"}})", R"(port type not specified. (support "file","serial"))"},
        {R"({"settings": {"port": "/dev/x", "type": "usb"}})", R"(invalid port type: usb(only support "file","serial"))"},
        {settings(R"("serial_stopbits": "1.0")"), R"(invalid stop bit setting: 1.0(only support "1","1.5","2"))"},
        {settings(R"("serial_parity": "x")"),
         R"(invalid parity setting: x(only support "none","even","odd","mark","space"))"},
        {settings(R"("serial_flowcontrol": "x")"), R"(invalid flowcontrol setting: x(only support "software","hardware"))"},
    };
    for (const auto &row : rows) {
        free_configuration();
        clear_log();
        ASSERT_EQ(read(row.text), 0) << row.text;
        EXPECT_EQ(parse_settings(), -1) << row.text;
        EXPECT_EQ(log_count(row.message, 3), 1) << row.text;
    }
}

TEST_F(ConfigTest, AFilePortIgnoresTheSerialKeys)
{
    ASSERT_EQ(read(R"({"settings": {"port": "/dev/mhi_at", "type": "File", "serial_parity": "nonsense"}})"), 0);
    EXPECT_EQ(parse_settings(), 0);
    EXPECT_EQ(settings_g.port_type, PORT_FILE);
}

TEST_F(ConfigTest, ListsKeepTheirGoodEntries)
{
    ASSERT_EQ(read(R"({"pre_execute_cmds": ["AT", 5, "AT+CSQ"], "results": ["OK", null, "ERROR"]})"), 0);
    ASSERT_EQ(load_pre_execute(), 0);
    ASSERT_EQ(pre_execute_cmd_list_len, 3u);
    EXPECT_STREQ(pre_execute_cmd_list[0].command, "AT");
    EXPECT_EQ(pre_execute_cmd_list[1].command, nullptr);
    EXPECT_STREQ(pre_execute_cmd_list[2].command, "AT+CSQ");

    ExpectedResults *list = nullptr;
    ASSERT_EQ(load_expected_results(&list), 0);
    ASSERT_EQ(list->count, 3u);
    EXPECT_STREQ(list->entries[0], "OK");
    EXPECT_EQ(list->entries[1], nullptr);
    EXPECT_STREQ(list->entries[2], "ERROR");
    EXPECT_EQ(log_count("json value type invalid", 3), 2);
    EXPECT_EQ(log_count("String: ", 6), 2);
    free_expected_results(list);
}

TEST_F(ConfigTest, AbsentListsAreNamed)
{
    ExpectedResults *list = nullptr;
    ASSERT_EQ(read("{}"), 0);
    EXPECT_EQ(load_pre_execute(), 0);
    EXPECT_EQ(load_expected_results(&list), -1);
    EXPECT_EQ(log_count("no 'pre_execute_cmds' defined", 3), 1);
    EXPECT_EQ(log_count("no 'results' defined", 3), 1);
    free_configuration();
    ASSERT_EQ(read(R"({"pre_execute_cmds": [], "results": "OK"})"), 0);
    EXPECT_EQ(load_pre_execute(), 0);
    EXPECT_EQ(load_expected_results(&list), -1);
    EXPECT_EQ(log_count("no pre execute command", 3), 1);
    EXPECT_EQ(log_count("'results' empty", 3), 1);
    EXPECT_EQ(list, nullptr);
}

} // namespace
