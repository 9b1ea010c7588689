#include "profile_store.h"

#include "exchanges.h"
#include "fake_clock.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "file_size_limit.h"
#include "modem_test.h"
#include "profile_methods.h"
#include "temporary_folder.h"
#include "uci_access.h"
#include "uci_user.h"

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
class Profiles : public ModemTest<fake_shell, fake_clock, fake_wanmd> {
protected:
    void SetUp() override
    {
        fs::create_directory(config);
        fs::create_directory(pending);
        uci_access_set_folders(config.c_str(), pending.c_str());
        write("profiles", TWO_PROFILES);
    }
    void TearDown() override
    {
        uci_access_set_folders(nullptr, nullptr);
    }
    void write(const std::string &package, const std::string &text)
    {
        root.write("config/" + package, text);
    }
    std::string content(const std::string &package)
    {
        return root.content("config/" + package);
    }

    TemporaryFolder root;
    const std::string config = root / "config", pending = root / "pending";
};

static const std::string DONE = R"({"result":0})";

static ApnProfile profile_with(const char *apn) // which must outlive it
{
    ApnProfile record = {};
    record.apn = apn;
    return record;
}

static std::string first_profile()
{
    return reply_of(handle_get_profile, R"({"id":0})");
}

TEST_F(Profiles, CallsOneAfterTheOther)
{
    play_exchanges(TEST_DATA_DIR "/profile-exchanges.txt", 35);
    EXPECT_NE(content("profiles").find("option extra 'kept'"), std::string::npos);
    EXPECT_EQ(fake_wanmd.notices,
              (Strings{"apn_ipv6", "apn_ipv4", "apn_ipv4v6", "apn_ipv4", "apn_ipv4", "apn_ipv4v6"}));
    EXPECT_EQ(fake_clock.sleeps, std::vector<uint32_t>(6, 1000));
    fake_shell.reset();
    EXPECT_EQ(reply_of(handle_delete_profile), DONE);
    EXPECT_EQ(reply_of(handle_delete_profile, R"({"id":-1})"), DONE);
    EXPECT_EQ(fake_shell.commands, Strings(2, "echo \"\" > /etc/config/profiles"));
}

TEST_F(Profiles, PasswordsAreMaskedInTheLog)
{
    reply_of(handle_get_profile_list);
    reply_of(handle_add_profile, R"({"ip":1,"apn":"x","name":"Zürich ☎","username":"u","password":"pä","auth":2})");
    for (const char *line : {"section name: second\n", "password: ******\n", ".name=Zürich ☎\n", ".password=**\n"})
        EXPECT_EQ(log_count(line), 1) << line;
    reply_of(handle_select_profile, R"({"id":0})");
    EXPECT_EQ(log_count("secret"), 0);
}

TEST_F(Profiles, FailuresOfThePackageAreTheLibrarysCodes)
{
    for (const char *empty : {"", "\n"}) {
        write("profiles", empty);
        EXPECT_EQ(reply_of(handle_get_profile_list), R"({"result":0,"profiles":[]})");
    }
    fs::remove(config + "/profiles");
    EXPECT_EQ(reply_of(handle_get_profile_list), R"({"result":3})");
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":0,"apn":"x"})"), R"({"result":3})");
    EXPECT_EQ(first_profile(), R"({"result":3})");
    write("profiles", "config\nrubbish \x01 here\n");
    EXPECT_EQ(reply_of(handle_get_profile_list), R"({"result":5})");
    EXPECT_EQ(reply_of(handle_delete_profile, R"({"id":0})"), R"({"result":5})");
    EXPECT_EQ(content("profiles"), "config\nrubbish \x01 here\n");
}

TEST_F(Profiles, AValueIsStoredWholeOrTheProfileNotAtAll)
{
    const std::string longest(UCI_VALUE_MAX, 'a'), too_long = longest + "a";
    ApnProfile record = profile_with(longest.c_str());
    EXPECT_EQ(add_profile_section(&record), 0);
    EXPECT_NE(content("profiles").find("'" + longest + "'"), std::string::npos);
    const std::string before = content("profiles");
    record.apn = "fits";
    record.password = too_long.c_str();
    EXPECT_EQ(add_profile_section(&record), -1);
    EXPECT_EQ(modify_profile_section(0, &record), -1);
    EXPECT_EQ(log_count("longer than 512", LOG_ERR), 2);
    EXPECT_EQ(content("profiles"), before);
    EXPECT_EQ(reply_of(handle_get_profile_list).find("fits"), std::string::npos);
}

TEST_F(Profiles, AFailedCommitLeavesNothingPending)
{
    std::string large = TWO_PROFILES;
    for (int i = 0; i < 200; i++)
        large += "\nconfig other\n\toption filler '" + std::string(40, 'x') + "'\n";
    write("profiles", large);
    const std::string before = reply_of(handle_get_profile_list);
    {
        FileSizeLimit limit(8192); // pending changes are small enough to be written
        EXPECT_NE(reply_of(handle_add_profile, R"({"ip":1,"apn":"lost"})"), DONE);
        EXPECT_NE(reply_of(handle_modify_profile, R"({"id":0,"apn":"lost","auth":7})"), DONE);
        EXPECT_NE(reply_of(handle_delete_profile, R"({"id":0})"), DONE);
    }
    EXPECT_EQ(content("profiles"), large);
    EXPECT_EQ(reply_of(handle_get_profile_list), before);
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":1,"apn":"next"})"), DONE);
    EXPECT_EQ(content("profiles").find("lost"), std::string::npos);
}

// libuci takes them, and cannot read its own pending line again.
TEST_F(Profiles, ControlCharactersAreRefused)
{
    for (const char *text : {"a\x01", "\x1f", "a\x0b"}) {
        for (const char *ApnProfile::*field :
             {&ApnProfile::apn, &ApnProfile::name, &ApnProfile::username, &ApnProfile::password}) {
            ApnProfile bad = profile_with("x");
            bad.*field = text;
            EXPECT_EQ(add_profile_section(&bad), -1);
            EXPECT_EQ(modify_profile_section(0, &bad), -1);
        }
    }
    EXPECT_EQ(log_count("holds a control character", LOG_ERR), 24);
    EXPECT_EQ(content("profiles"), TWO_PROFILES);
    EXPECT_TRUE(fs::is_empty(pending));
}

TEST_F(Profiles, WithoutDescriptorsNothingIsReportedAsStored)
{
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
        EXPECT_EQ(added == DONE, stored) << spare;
        EXPECT_EQ(stored, content("profiles") != TWO_PROFILES) << spare;
        EXPECT_NE(listed.find("internet") != std::string::npos, !listed.starts_with(R"({"result":0)")) << listed;
        write("profiles", TWO_PROFILES);
    }
    EXPECT_TRUE(fs::is_empty(pending));
}

// The router's tool as others use it, one call after the other; how often it said that all of a profile is stored.
static int add_by_tool(const std::string &root, int count)
{
    int good = 0;
    for (int i = 0; i < count; i++) {
        uci_package *package = nullptr;
        uci_section *section = nullptr;
        user add(root), set(root), commit(root);
        if (uci_load(add.ctx, "profiles", &package) || uci_add_section(add.ctx, package, "profile", &section) ||
            uci_save(add.ctx, package))
            continue;
        if (set.change(uci_set, "profiles." + std::string(section->e.name) + ".apn=tool" + std::to_string(i)) ||
            set.save())
            continue;
        good += commit.lookup("profiles") == UCI_OK && commit.commit() == UCI_OK;
    }
    return good;
}

TEST_F(Profiles, NothingOfTwoWritersIsLost)
{
    constexpr int EACH = 60;
    write("profiles", "\n");
    const pid_t tool = fork();
    if (tool == 0)
        _exit(add_by_tool(root.path, EACH));
    for (int i = 0; i < EACH; i++) {
        const std::string apn = "ours" + std::to_string(i);
        ApnProfile record = profile_with(apn.c_str());
        EXPECT_EQ(add_profile_section(&record), 0);
    }
    int status = 0, of_tool = 0;
    ASSERT_EQ(waitpid(tool, &status, 0), tool);
    const std::string text = content("profiles");
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
    root.write("pending/profiles", "profiles.second.apn='pending'\n");
    EXPECT_EQ(reply_of(handle_add_profile, R"({"ip":1,"apn":"third"})"), DONE);
    EXPECT_NE(content("profiles").find("'pending'"), std::string::npos);
    EXPECT_EQ(root.content("pending/profiles"), "");
    EXPECT_NE(reply_of(handle_get_profile, R"({"id":2})").find("third"), std::string::npos);
}

TEST_F(Profiles, AFileIsWrittenOnlyWhenItChanges)
{
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":1,"apn":"written"})"), DONE);
    const auto written = fs::last_write_time(config + "/profiles");
    EXPECT_EQ(reply_of(handle_modify_profile, R"({"id":1,"apn":"written"})"), DONE);
    EXPECT_EQ(fs::last_write_time(config + "/profiles"), written);
    EXPECT_NE(content("profiles").find("option apn 'written'"), std::string::npos);
}

TEST_F(Profiles, DefaultApnIsTheOperators)
{
    write("default_profile", "config profile 'profile'\n\toption apn 'operator'\n\toption ip_family '2'\n");
    EXPECT_EQ(reply_of(handle_set_default_apn, R"({"ip":9})"), DONE);
    EXPECT_EQ(fake_link.sent, (Strings{"AT+CGAUTH=1,0\r", "AT+CGDCONT=1,\"IPV6\",\"operator\"\r"}));
    EXPECT_EQ(log_count("set default profile to default state", -1), 1);
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
        {"\toption autoconnect '0'\n", 0, 0},   {"\toption autoconnect '2'\n", 0, 1},
        {"\toption autoconnect 'yes'\n", 0, 0}, {"", -1, 9},
        {"\tlist autoconnect '1'\n", -1, 9},    {"rubbish\n", 5, 9},
    };
    uint8_t enabled = 9;
    EXPECT_EQ(uci_get_autoconnect(&enabled), 3);
    for (const auto &row : rows) {
        enabled = 9;
        write("modem", "config s 'settings'\n" + std::string(row.content));
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
