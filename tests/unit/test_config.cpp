#include "config.h"

#include <gtest/gtest.h>

#include "captured_log.h"
#include "temporary_folder.h"

namespace {

struct ConfigTest : testing::Test {
    TemporaryFolder folder;

    void SetUp() override
    {
        clear_log();
        settings_g = {nullptr, PORT_SERIAL, 115200, 8, 0, 0, 0, 5, 1};
    }
    void TearDown() override
    {
        free_configuration();
    }
    int read(const std::string &text)
    {
        TearDown();
        folder.write("ril.json", text);
        return read_json((folder / "ril.json").c_str());
    }
};

TEST_F(ConfigTest, MissingAndUnparsableFilesAreRefused)
{
    EXPECT_EQ(read_json("/nonexistent/ril.json"), -1);
    EXPECT_EQ(log_count("configuration file not exist.", LOG_ERR), 1);
    EXPECT_EQ(parse_settings(), -1);
    EXPECT_EQ(load_pre_execute(), -1);
    EXPECT_EQ(log_count("configurations not loaded", LOG_ERR), 2);
    for (const char *text : {"", "{\"settings\": ", "\x01\x02", "{\"a\":1}}}{"}) {
        const bool good = read(text) == 0;
        EXPECT_EQ(good, json_g != nullptr) << text;
    }
    EXPECT_GE(log_count("error before: ", LOG_ERR), 2);
    EXPECT_EQ(read_json("/"), -1);
    EXPECT_EQ(read(std::string(2 << 20, ' ')), -1);
    EXPECT_EQ(log_count("load configuration file failed.", LOG_ERR), 2);
}

// All settings in the order of their members.
std::string shown()
{
    std::string text = settings_g.port ? settings_g.port : "none";
    for (uint32_t number : {settings_g.port_type, settings_g.serial_speed, settings_g.serial_databits,
                            settings_g.serial_stopbits, settings_g.serial_parity, settings_g.serial_flowcontrol,
                            settings_g.requester_interval_s, settings_g.burst_gap_ms})
        text += " " + std::to_string(number);
    return text;
}

TEST_F(ConfigTest, GoodSettings)
{
    const struct {
        const char *text, *settings;
    } rows[] = {
        {R"({"RESULTS": ["OK"]})", "none 1 115200 8 0 0 0 5 1"},
        {R"({"Settings": {"Port": "/dev/x", "TYPE": "SERIAL", "serial_speed": 9600.9, "serial_databits": 7,
          "serial_stopbits": "1.5", "serial_parity": "Odd", "serial_flowcontrol": "HARDWARE",
          "requester_interval_s": 60, "burst_gap_ms": 2000}})",
         "/dev/x 1 9600 7 1 2 2 60 1000"},
        // A number out of range becomes the nearest one, a value of another type is ignored.
        {R"({"settings": {"port": "/dev/x", "type": "serial", "serial_speed": -5, "serial_databits": 1e20,
          "serial_stopbits": 1, "serial_parity": 3, "requester_interval_s": "7"}})",
         "/dev/x 1 0 4294967295 0 0 0 5 1"},
        {R"({"settings": {"port": "/dev/mhi_at", "type": "File", "serial_parity": "nonsense"}})",
         "/dev/mhi_at 0 115200 8 0 0 0 5 1"},
    };
    for (const auto &row : rows) {
        SetUp();
        ASSERT_EQ(read(row.text), 0) << row.text;
        EXPECT_EQ(parse_settings(), 0) << row.text;
        EXPECT_EQ(shown(), row.settings) << row.text;
        EXPECT_EQ(log_count("burst_gap_ms above 1000", LOG_ERR),
                  std::string(row.text).find("gap") != std::string::npos);
    }
}

TEST_F(ConfigTest, BadSettingsAreNamed)
{
    const struct {
        const char *members, *message;
    } rows[] = {
        {"", "port not defined or not valid"},
        {R"("port": 1, "type": "file")", "port not defined or not valid"},
        {R"("port": "/dev/x")", R"(port type not specified. (support "file","serial"))"},
        {R"("port": "x", "type": "usb")", R"(invalid port type: usb(only support "file","serial"))"},
        {R"("port": "x", "type": "serial", "serial_stopbits": "1.0")",
         R"(invalid stop bit setting: 1.0(only support "1","1.5","2"))"},
        {R"("port": "x", "type": "serial", "serial_parity": "x")",
         R"(invalid parity setting: x(only support "none","even","odd","mark","space"))"},
        {R"("port": "x", "type": "serial", "serial_flowcontrol": "x")",
         R"(invalid flowcontrol setting: x(only support "software","hardware"))"},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(read(R"({"settings": {)" + std::string(row.members) + "}}"), 0) << row.members;
        clear_log();
        EXPECT_EQ(parse_settings(), -1) << row.members;
        EXPECT_EQ(log_count(row.message, LOG_ERR), 1) << row.members;
    }
    ASSERT_EQ(read(R"({"settings": 5})"), 0);
    EXPECT_EQ(parse_settings(), -1);
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
    EXPECT_EQ(log_count("json value type invalid", LOG_ERR), 2);
    EXPECT_EQ(log_count("String: ", LOG_INFO), 2);
    free_expected_results(list);
}

TEST_F(ConfigTest, AbsentListsAreNamed)
{
    ExpectedResults *list = nullptr;
    for (const char *text : {"{}", R"({"pre_execute_cmds": [], "results": "OK"})"}) {
        ASSERT_EQ(read(text), 0);
        EXPECT_EQ(load_pre_execute(), 0);
        EXPECT_EQ(load_expected_results(&list), -1);
        EXPECT_EQ(list, nullptr);
    }
    for (const char *message :
         {"no 'pre_execute_cmds' defined", "no 'results' defined", "no pre execute command", "'results' empty"})
        EXPECT_EQ(log_count(message, LOG_ERR), 1) << message;
}

} // namespace
