#include "profile_store.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <uci.h>
}

#include "captured_log.h"
#include "captured_reply.h"
#include "fake_clock.h"
#include "fake_modem_link.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "profile_methods.h"
#include "uci_access.h"

using Strings = std::vector<std::string>;

constexpr const char *TWO_PROFILES = R"(
config profile
	option ip_family '2'
	option apn 'internet'
	option name 'First'
	option username 'me'
	option password 'secret'
	option auth '1'

config profile 'second'
	option apn 'other'
	option extra 'kept'
	list name 'not a text'
)";

// Configuration folders of its own.
class Profiles : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/test_profiles.XXXXXX";
        root = mkdtemp(pattern);
        config = root + "/config";
        saved = root + "/saved";
        std::filesystem::create_directory(config);
        std::filesystem::create_directory(saved);
        uci_access_set_folders(config.c_str(), saved.c_str());
        fake_link.reset();
        fake_shell.reset();
        fake_clock.reset();
        fake_wanmd.reset();
        clear_log();
        running.store(1);
    }
    void TearDown() override
    {
        uci_access_set_folders(nullptr, nullptr);
        std::filesystem::remove_all(root);
    }
    void write(const std::string &package, const std::string &text)
    {
        std::ofstream(config + "/" + package) << text;
    }
    std::string content(const std::string &package)
    {
        std::ostringstream text;
        text << std::ifstream(config + "/" + package).rdbuf();
        return text.str();
    }

    std::string root, config, saved;
};

// The text of one profile's table in a reply.
static std::string table(int family, const std::string &apn, const std::string &name, const std::string &user,
                         const std::string &password, int auth)
{
    return "\"ip_family\":" + std::to_string(family) + ",\"apn\":\"" + apn + "\",\"name\":\"" + name +
           "\",\"username\":\"" + user + "\",\"password\":\"" + password + "\",\"auth\":" + std::to_string(auth);
}

TEST_F(Profiles, ListHoldsEverySectionInOrder)
{
    write("profiles", TWO_PROFILES);
    EXPECT_EQ(reply_of(handle_get_profile_list), "{\"result\":0,\"profiles\":[{" +
                                                     table(2, "internet", "First", "me", "secret", 1) + "},{" +
                                                     table(0, "other", "", "", "", 0) + "}]}");
    EXPECT_EQ(log_count("section name: second\n"), 1);
    EXPECT_EQ(log_count("password: ******\n"), 1);
    EXPECT_EQ(log_count("secret"), 0);
    for (const char *empty : {"", "\n"}) {
        write("profiles", empty);
        EXPECT_EQ(reply_of(handle_get_profile_list), "{\"result\":0,\"profiles\":[]}");
    }
}

TEST_F(Profiles, FailuresOfThePackageAreTheLibrarysCodes)
{
    EXPECT_EQ(reply_of(handle_get_profile_list), "{\"result\":3}");
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":0,"apn":"x"})"), "{\"result\":3}");
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":0})"), "{\"result\":3}");
    write("profiles", "config\nrubbish \x01 here\n");
    EXPECT_EQ(reply_of(handle_get_profile_list), "{\"result\":5}");
    EXPECT_EQ(reply_of(handle_delete_profile, R"({"id":0})"), "{\"result\":5}");
    EXPECT_EQ(content("profiles"), "config\nrubbish \x01 here\n");
}

TEST_F(Profiles, AnIdThatIsNotThereIsRefused)
{
    write("profiles", TWO_PROFILES);
    const std::string before = content("profiles");
    for (int id : {-3, -2, 2, 99}) {
        const std::string argument = "{\"id\":" + std::to_string(id) + ",\"name\":\"x\"}";
        EXPECT_EQ(reply_of(handle_get_profile, argument.c_str()), "{\"result\":-1}") << id;
        EXPECT_EQ(reply_of(handle_modify_profile, argument.c_str()), "{\"result\":-1}") << id;
        EXPECT_EQ(reply_of(handle_delete_profile, argument.c_str()), "{\"result\":-1}") << id;
    }
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":-1})"), "{\"result\":-1}");
    EXPECT_EQ(content("profiles"), before);
    EXPECT_TRUE(fake_shell.commands.empty());
}

TEST_F(Profiles, WhatIsAddedIsRead)
{
    write("profiles", "\n");
    EXPECT_EQ(reply_of(handle_add_profile,
                       R"({"ip":1,"apn":"a=b.c 'd' #","name":"Zürich ☎","username":"u","password":"pä","auth":2})"),
              "{\"result\":0}");
    EXPECT_EQ(log_count(".name=Zürich ☎\n"), 1);
    EXPECT_EQ(log_count(".password=**\n"), 1);
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":0})"),
              "{\"result\":0," + table(1, "a=b.c 'd' #", "Zürich ☎", "u", "pä", 2) + "}");
    // User name and password are taken only together with a type of authentication.
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":4,"apn":"x","username":"u","password":"p"})"), "{\"result\":0}");
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":1})"), "{\"result\":0," + table(4, "x", "", "", "", 0) + "}");
}

TEST_F(Profiles, ModifyChangesWhatIsGiven)
{
    write("profiles", TWO_PROFILES);
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":0,"name":"Renamed"})"), "{\"result\":0}");
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":0})"),
              "{\"result\":0," + table(2, "internet", "Renamed", "me", "secret", 1) + "}");
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":0,"ip":0,"username":"","auth":0})"), "{\"result\":0}");
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":0})"),
              "{\"result\":0," + table(0, "internet", "Renamed", "", "secret", 0) + "}");
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":1,"apn":"third"})"), "{\"result\":0}");
    EXPECT_NE(content("profiles").find("option extra 'kept'"), std::string::npos);
}

TEST_F(Profiles, DeleteTakesOneOrAll)
{
    write("profiles", TWO_PROFILES);
    EXPECT_EQ(reply_of(handle_delete_profile, R"({"id":0})"), "{\"result\":0}");
    EXPECT_EQ(reply_of(handle_get_profile_list),
              "{\"result\":0,\"profiles\":[{" + table(0, "other", "", "", "", 0) + "}]}");
    EXPECT_TRUE(fake_shell.commands.empty());
    EXPECT_EQ(reply_of(handle_delete_profile), "{\"result\":0}");
    EXPECT_EQ(reply_of(handle_delete_profile, R"({"id":-1})"), "{\"result\":0}");
    EXPECT_EQ(fake_shell.commands, Strings(2, "echo \"\" > /etc/config/profiles"));
}

TEST_F(Profiles, AValueIsStoredWholeOrTheProfileNotAtAll)
{
    write("profiles", TWO_PROFILES);
    const std::string before = content("profiles");
    const std::string longest(UCI_VALUE_MAX, 'a');
    ApnProfile record = {};
    record.apn = longest.c_str();
    EXPECT_EQ(add_profile_section(&record), 0);
    EXPECT_NE(content("profiles").find("'" + longest + "'"), std::string::npos);
    write("profiles", before);
    const std::string too_long = longest + "a";
    record.apn = "fits";
    record.password = too_long.c_str();
    EXPECT_EQ(add_profile_section(&record), -1);
    EXPECT_EQ(modify_profile_section(0, &record), -1);
    EXPECT_EQ(log_count("longer than 512", LOG_ERR), 2);
    EXPECT_EQ(content("profiles"), before);
    EXPECT_EQ(reply_of(handle_get_profile_list).find("fits"), std::string::npos);
}

// Files that grow past the limit cannot be written, as on a full disk; pending changes are small enough to be.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        rlimit limit = {bytes, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before);
    }

private:
    rlimit before;
};

TEST_F(Profiles, AFailedCommitLeavesNothingPending)
{
    std::string large = TWO_PROFILES;
    for (int i = 0; i < 200; i++)
        large += "\nconfig other\n\toption filler '" + std::string(40, 'x') + "'\n";
    write("profiles", large);
    const std::string list_before = reply_of(handle_get_profile, R"({"id":0})");
    {
        FileSizeLimit limit(8192);
        EXPECT_NE(reply_of(handle_add_profile, R"({"ip":1,"apn":"lost"})"), "{\"result\":0}");
        EXPECT_NE(reply_of(handle_modify_profile, R"({"id":0,"apn":"lost","auth":7})"), "{\"result\":0}");
        EXPECT_NE(reply_of(handle_modify_profile, R"({"id":1,"username":"lost","auth":7})"), "{\"result\":0}");
        EXPECT_NE(reply_of(handle_delete_profile, R"({"id":0})"), "{\"result\":0}");
    }
    EXPECT_EQ(content("profiles"), large);
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":0})"), list_before);
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":1})"), "{\"result\":0," + table(0, "other", "", "", "", 0) + "}");
    EXPECT_EQ(reply_of(handle_get_profile, R"({"id":2})"), "{\"result\":-1}");
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":1,"apn":"next"})"), "{\"result\":0}");
    EXPECT_EQ(content("profiles").find("lost"), std::string::npos);
}

// libuci takes them, and cannot read its own pending line again.
TEST_F(Profiles, ControlCharactersAreRefused)
{
    write("profiles", TWO_PROFILES);
    for (const char *text : {"a\x01", "\x1f", "a\x0b"}) {
        ApnProfile record = {};
        record.apn = "x";
        record.ip_family = record.auth = NOT_GIVEN;
        for (const char *ApnProfile::*field :
             {&ApnProfile::apn, &ApnProfile::name, &ApnProfile::username, &ApnProfile::password}) {
            ApnProfile bad = record;
            bad.*field = text;
            EXPECT_EQ(add_profile_section(&bad), -1);
            EXPECT_EQ(modify_profile_section(0, &bad), -1);
        }
    }
    EXPECT_EQ(log_count("holds a control character", LOG_ERR), 24);
    EXPECT_EQ(content("profiles"), TWO_PROFILES);
    EXPECT_TRUE(std::filesystem::is_empty(saved));
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":0,"name":"tab\tand\nline"})"), "{\"result\":0}");
    EXPECT_NE(reply_of(handle_get_profile, R"({"id":0})").find("tab\\tand\\nline"), std::string::npos);
}

TEST_F(Profiles, WithoutDescriptorsNothingIsReportedAsStored)
{
    write("profiles", TWO_PROFILES);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowest_free = dup(0);
    close(lowest_free);
    for (int spare = 0; spare < 6; spare++) {
        rlimit limit = {static_cast<rlim_t>(lowest_free + spare), before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        const std::string added = reply_of(handle_add_profile, R"({"ip":1,"apn":"new"})");
        const std::string listed = reply_of(handle_get_profile_list);
        setrlimit(RLIMIT_NOFILE, &before);
        const bool stored = content("profiles").find("new") != std::string::npos;
        EXPECT_EQ(added == "{\"result\":0}", stored) << spare;
        EXPECT_EQ(stored, content("profiles") != TWO_PROFILES) << spare;
        EXPECT_TRUE(listed.find("internet") != std::string::npos || listed.find("\"result\":0") == std::string::npos)
            << spare << listed;
        write("profiles", TWO_PROFILES);
    }
    EXPECT_TRUE(std::filesystem::is_empty(saved));
}

// The router's tool as others use it, one call after the other; how often it said that all of a profile is stored.
static int add_by_tool(const std::string &config, const std::string &saved, int count)
{
    auto step = [&](const std::string &text, std::string *added) {
        uci_context *context = uci_alloc_context();
        uci_set_confdir(context, config.c_str());
        uci_set_savedir(context, saved.c_str());
        std::string key = text;
        uci_ptr found = {};
        int code = uci_lookup_ptr(context, &found, key.data(), true);
        uci_section *section = nullptr;
        if (code == 0 && added)
            code = uci_add_section(context, found.p, "profile", &section);
        else if (code == 0 && found.value)
            code = uci_set(context, &found);
        else if (code == 0)
            code = uci_commit(context, &found.p, false);
        if (code == 0 && (added || found.value))
            code = uci_save(context, found.p);
        if (code == 0 && added)
            *added = section->e.name;
        uci_free_context(context);
        return code;
    };
    int good = 0;
    for (int i = 0; i < count; i++) {
        std::string name;
        int code = step("profiles", &name);
        for (const char *option : {"apn", "name"})
            code |= code ? code : step("profiles." + name + "." + option + "=tool" + std::to_string(i), nullptr);
        good += (code | step("profiles", nullptr)) == 0;
    }
    return good;
}

TEST_F(Profiles, NothingOfTwoWritersIsLost)
{
    constexpr int EACH = 60;
    write("profiles", "\n");
    const pid_t tool = fork();
    if (tool == 0)
        _exit(add_by_tool(config, saved, EACH));
    for (int i = 0; i < EACH; i++) {
        const std::string apn = "ours" + std::to_string(i);
        ApnProfile record = {};
        record.apn = apn.c_str();
        EXPECT_EQ(add_profile_section(&record), 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(tool, &status, 0), tool);
    const std::string text = content("profiles");
    int of_tool = 0;
    for (int i = 0; i < EACH; i++) {
        EXPECT_NE(text.find("apn 'ours" + std::to_string(i) + "'"), std::string::npos) << i;
        of_tool += text.find("apn 'tool" + std::to_string(i) + "'") != std::string::npos;
    }
    EXPECT_GE(of_tool, WEXITSTATUS(status)) << "of " << EACH;
}

// As any commit does it; above all a section that somebody has begun keeps its name, and so gets its own options and
// not ours.
TEST_F(Profiles, PendingChangesOfOthersGoIn)
{
    write("profiles", TWO_PROFILES);
    std::ofstream(saved + "/profiles") << "profiles.second.apn='pending'\n";
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":1,"apn":"third"})"), "{\"result\":0}");
    EXPECT_NE(content("profiles").find("'pending'"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(saved + "/profiles"), 0U);
    EXPECT_NE(reply_of(handle_get_profile, R"({"id":2})").find("third"), std::string::npos);
}

TEST_F(Profiles, AFileIsWrittenOnlyWhenItChanges)
{
    write("profiles", TWO_PROFILES);
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":1,"apn":"written"})"), "{\"result\":0}");
    const auto written = std::filesystem::last_write_time(config + "/profiles");
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":1,"apn":"written"})"), "{\"result\":0}");
    EXPECT_EQ(std::filesystem::last_write_time(config + "/profiles"), written);
    EXPECT_NE(content("profiles").find("option apn 'written'"), std::string::npos);
}

TEST_F(Profiles, ArgumentsAreChecked)
{
    write("profiles", TWO_PROFILES);
    struct {
        Handler handler;
        const char *arguments;
    } rows[] = {
        {handle_add_profile, R"({"ip":0})"},
        {handle_add_profile, R"({"apn":"x"})"},
        {handle_add_profile, R"({"ip":"0","apn":"x"})"},
        {handle_select_profile, "{}"},
        {handle_get_profile, R"({"id":"0"})"},
        {handle_modify_profile, R"({"id":0})"},
        {handle_modify_profile, R"({"name":"x"})"},
        {handle_set_default_apn, R"({"apn":"x","ip":4})"},
        {handle_set_default_apn, R"({"apn":"x","ip":-1})"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(reply_of(row.handler, row.arguments), "status 2") << row.arguments;
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_TRUE(fake_clock.sleeps.empty());
}

TEST_F(Profiles, SelectAppliesTheProfileOrEmptiesTheContext)
{
    write("profiles", TWO_PROFILES);
    EXPECT_EQ(reply_of(handle_select_profile, R"({"id":0})"), "{\"result\":0}");
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,1,\"me\",\"secret\"\r", "AT+CGDCONT=1,\"IPV6\",\"internet\"\r"}));
    fake_link.reset();
    EXPECT_EQ(reply_of(handle_select_profile, R"({"id":9})"), "{\"result\":-1}");
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,0\r", "AT+CGDCONT=1,\"IP\"\r"}));
    EXPECT_EQ(fake_wanmd.notices, (Strings{"apn_ipv6", "apn_ipv4"}));
}

TEST_F(Profiles, DefaultApnComesFromArgumentsOrFromTheOperatorsProfile)
{
    EXPECT_EQ(reply_of(handle_set_default_apn, R"({"apn":"net","ip":3,"auth":2,"username":"u","password":"p"})"),
              "{\"result\":0}");
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,2,\"u\",\"p\"\r", "AT+CGDCONT=1,\"IPV4V6\",\"net\"\r"}));
    EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>{1000});

    fake_link.reset();
    EXPECT_EQ(reply_of(handle_set_default_apn), "{\"result\":0}");
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,0,\"\",\"\"\r", "AT+CGDCONT=1,\"IPV4V6\",\"\"\r"}));

    fake_link.reset();
    write("default_profile", "config profile 'profile'\n\toption apn 'operator'\n\toption ip_family '2'\n");
    EXPECT_EQ(reply_of(handle_set_default_apn, R"({"ip":9})"), "{\"result\":0}");
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,0\r", "AT+CGDCONT=1,\"IPV6\",\"operator\"\r"}));
    EXPECT_EQ(log_count("set default profile to default state", -1), 2);
}

TEST_F(Profiles, TextsThatWouldEndACommandChangeNothing)
{
    for (const char *arguments :
         {R"({"apn":"a\rATZ"})", R"({"apn":"a\"b"})", R"({"apn":"a","auth":1,"username":"u\u001a","password":"p"})"}) {
        EXPECT_EQ(reply_of(handle_set_default_apn, arguments), "{\"result\":65535}") << arguments;
    }
    EXPECT_TRUE(fake_link.sent.empty());
    EXPECT_TRUE(fake_wanmd.notices.empty());
    EXPECT_TRUE(fake_shell.commands.empty());
}

TEST_F(Profiles, DefaultProfileFillsWhatItHas)
{
    write("default_profile", "config profile 'profile'\n\toption apn 'operator'\n\toption auth '2x'\n\toption ims '0'\n"
                             "\tlist name 'a'\n\nconfig profile 'ims'\n");
    ApnProfile record = {};
    record.ip_family = 3;
    record.ims = 1;
    EXPECT_EQ(load_default_profile(&record, "profile"), 0);
    EXPECT_EQ(record.ip_family, 3);
    EXPECT_STREQ(record.apn, "operator");
    EXPECT_EQ(record.name, nullptr);
    EXPECT_EQ(record.auth, 2);
    EXPECT_EQ(record.ims, 0);
    EXPECT_EQ(load_default_profile(&record, "ims"), 0);
    EXPECT_STREQ(record.apn, "operator");
    EXPECT_EQ(load_default_profile(&record, "missing"), -1);
    EXPECT_EQ(load_default_profile(&record, std::string(80, 'x').c_str()), -1);
    free_profile(&record);
}

TEST_F(Profiles, AutoconnectIsOnForEveryNumberButZero)
{
    struct {
        const char *content;
        int code;
        uint8_t enabled;
    } rows[] = {
        {"config s 'settings'\n\toption autoconnect '0'\n", 0, 0},
        {"config s 'settings'\n\toption autoconnect '1'\n", 0, 1},
        {"config s 'settings'\n\toption autoconnect '2'\n", 0, 1},
        {"config s 'settings'\n\toption autoconnect 'yes'\n", 0, 0},
        {"config s 'settings'\n", -1, 9},
        {"\n", -1, 9},
        {"config s 'settings'\n\tlist autoconnect '1'\n", -1, 9},
        {"rubbish\n", 5, 9},
    };
    uint8_t enabled = 9;
    EXPECT_EQ(uci_get_autoconnect(&enabled), 3);
    for (const auto &row : rows) {
        enabled = 9;
        write("modem", row.content);
        EXPECT_EQ(uci_get_autoconnect(&enabled), row.code) << row.content;
        EXPECT_EQ(enabled, row.enabled) << row.content;
    }
    write("modem", "config s 'settings'\n\toption autoconnect 'text'\n");
    char *text = uci_read_string("modem.settings.autoconnect");
    EXPECT_STREQ(text, "text");
    free(text);
    EXPECT_EQ(uci_read_string("modem.settings"), nullptr);
    EXPECT_EQ(uci_read_string(std::string(300, 'x').c_str()), nullptr);
}

TEST_F(Profiles, AutoconnectIsSetThroughTheRoutersTool)
{
    fake_shell.status = [](const std::string &command) { return command == "uci commit modem" ? 4 : 1; };
    EXPECT_EQ(uci_set_autoconnect(1), 5);
    EXPECT_EQ(uci_set_autoconnect(0), 5);
    EXPECT_EQ(fake_shell.commands, (Strings{"uci set modem.settings.autoconnect=1", "uci commit modem",
                                            "uci set modem.settings.autoconnect=0", "uci commit modem"}));
}
