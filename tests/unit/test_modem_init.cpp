#include "modem_init.h"

#include <cstring>
#include <map>

#include "config.h"
#include "fake_clock.h"
#include "fake_port.h"
#include "fake_shell.h"
#include "fake_wanmd.h"
#include "modem_test.h"
#include "sku_profile.h"
#include "temporary_folder.h"
#include "uci_access.h"

// A modem in its working state, a router of the model "abc" whose link is right, autoconnect on, network mode 0.
class ModemInit : public ModemTest<fake_shell, fake_port, fake_clock, fake_wanmd> {
protected:
    void SetUp() override
    {
        uci_access_set_folders(folder.path.c_str(), folder.path.c_str());
        folder.write("modem", "config s 'settings'\n\toption autoconnect '1'\n");
        folder.write("apn", "config s 'networkmode'\n\toption mode '0'\n");
        fake_link.answer = [this](const std::string &command) {
            std::string line = command.substr(0, command.find('\r'));
            events.push_back(line);
            auto answer = answers.find(line);
            return answer == answers.end() ? Answer(ok_answer({})) : answer->second;
        };
        fake_shell.status = [this](const std::string &command) {
            events.push_back(command);
            return 0;
        };
        fake_wanmd.on_notice = [this](const std::string &notice) { events.push_back(notice); };
    }
    void TearDown() override
    {
        uci_access_set_folders(nullptr, nullptr);
    }
    // All that the initialisation did.
    Strings run(bool good = true)
    {
        events.clear();
        EXPECT_EQ(set_modem() == 0, good);
        return events;
    }
    // What it did between two markers, which do not belong to it.
    Strings between(const std::string &first, const std::string &last)
    {
        run();
        auto from = std::find(events.begin(), events.end(), first);
        auto to = std::find(from, events.end(), last);
        return from == events.end() ? Strings{"missing " + first} : Strings(from + 1, to);
    }

    TemporaryFolder folder;
    std::map<std::string, Answer> answers = {
        {"AT+GTPCMOUT?", ok_answer({"+GTPCMOUT: 1"})},     {"AT+MSMPD?", ok_answer({"+MSMPD: 1"})},
        {"AT+SIMSWAPCFG?", ok_answer({"+SIMSWAPCFG: 0"})}, {"AT+CMGF?", ok_answer({"+CMGF: 0"})},
        {"AT+CNMI?", ok_answer({"+CNMI: 2,1,0,0,0"})},     {"AT+CAVIMS?", ok_answer({"+CAVIMS: 1"})}};
    Strings events; // commands without their line end, shell commands, notices
};

// The parts of a text between its blanks.
static Strings words(const std::string &text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

static const Strings WORKING_STATE =
    words("ATE0 AT+GTPCMOUT? AT+MSMPD? AT+SIMSWAPCFG? AT+CMGF? AT+CPMS=\"SM\",\"SM\",\"SM\" AT+CNMI? AT+CAVIMS? "
          "AT+CGDCONT=2,\"IPV4V6\",\"ims\" AT+GTSET=\"5GSACTR\",1 AT+GTACT=20,6,3 AT+CFUN=1 AT+GTCELLINFO=1");

TEST_F(ModemInit, AModemInItsWorkingStateIsOnlyAsked)
{
    EXPECT_EQ(run(), WORKING_STATE);
    EXPECT_EQ(fake_link.sent.front(), "ATE0\r");
    EXPECT_EQ(fake_link.sent.back(), "AT+COPS=?\r"); // queued, not requested
    EXPECT_EQ(log_count("failed"), 0);
}

TEST_F(ModemInit, AFreshModemIsSetUp)
{
    answers["AT+GTPCMOUT?"] = ok_answer({"+GTPCMOUT: 0"});
    answers["AT+MSMPD?"] = ok_answer({"+MSMPD: 0"});
    answers["AT+SIMSWAPCFG?"] = ok_answer({"+SIMSWAPCFG: 1"});
    answers["AT+CMGF?"] = ok_answer({"+CMGF: 1"});
    answers["AT+CNMI?"] = ok_answer({"+CNMI: 0, 0, 0, 0, 0"});
    answers["AT+CAVIMS?"] = ok_answer({"+CAVIMS: 0"});
    folder.write("apn", "config s 'apnapply'\n\toption apnid '999'\n");
    Strings expected = words("ATE0 AT+GTPCMOUT? AT+GTPCMOUT=1 AT+MSMPD? AT+MSMPD=1 AT+SIMSWAPCFG? AT+SIMSWAPCFG=0 "
                             "AT+CMGF? AT+CMGF=0 AT+CPMS=\"SM\",\"SM\",\"SM\" AT+CNMI? AT+CNMI=2,1 AT+CAVIMS? "
                             "AT+CAVIMS=1 AT+CGDCONT=2,\"IPV4V6\",\"ims\" AT+CGAUTH=1,0 apn_ipv4v6");
    for (const char *event : {"uci set wanmd.@profile[0].ip_family=IPV4V6", "uci commit wanmd",
                              "AT+CGDCONT=1,\"IPV4V6\"", "AT+GTACT=0", "AT+CFUN=1", "AT+GTCELLINFO=1"})
        expected.push_back(event);
    EXPECT_EQ(run(), expected);

    answers["AT+CMGF=0"] = "\r\nERROR\r\n";
    expected.insert(std::find(expected.begin(), expected.end(), "AT+CMGF=0"), 2, "AT+CMGF=0");
    EXPECT_EQ(run(false), expected) << "a setting that fails is tried three times";
    EXPECT_EQ(log_count("AT+CMGF=0 failed", LOG_INFO), 1);
}

TEST_F(ModemInit, AFailedStepIsTriedThreeTimesAndLoggedAndTheRestGoesOn)
{
    const auto working = answers;
    for (const std::string &command :
         words("ATE0 AT+GTPCMOUT? AT+MSMPD? AT+SIMSWAPCFG? AT+CMGF? AT+CPMS=\"SM\",\"SM\",\"SM\" AT+CNMI? AT+CFUN=1 "
               "AT+GTCELLINFO=1")) {
        for (const Answer &failure : {Answer("\r\n+CME ERROR: 10\r\n"), Answer(std::nullopt)}) {
            answers = working;
            answers[command] = failure;
            clear_log();
            Strings expected;
            for (const std::string &line : WORKING_STATE)
                expected.insert(expected.end(), line == command ? 3 : 1, line);
            EXPECT_EQ(run(false), expected);
            const bool storage = command.starts_with("AT+CPMS");
            EXPECT_EQ(log_count((storage ? "set preferred message storage" : command) + " failed", LOG_INFO), 1);
        }
    }
}

TEST_F(ModemInit, NetworkModeChoosesTechnologiesAndStandAlone)
{
    struct {
        const char *mode; // null: unset
        Strings sent;
    } rows[] = {
        {"0", {"AT+GTSET=\"5GSACTR\",1", "AT+GTACT=20,6,3"}},
        {"1", {"AT+GTSET=\"5GSACTR\",0", "AT+GTACT=20,6,3"}},
        {"2", {"AT+GTSET=\"5GSACTR\",1", "AT+GTACT=14"}},
        {"3", {"AT+GTACT=2"}},
        {"4", {"AT+GTACT=1"}},
        {"5", {"AT+GTSET=\"5GSACTR\",1", "AT+GTACT=17,6"}},
        {"6", {"AT+GTACT=0"}},
        {"-1", {"AT+GTACT=0"}},
        {"99999999999", {"AT+GTACT=0"}},
        {nullptr, {"AT+GTACT=0"}},
    };
    for (const auto &row : rows) {
        folder.write("apn",
                     row.mode ? "config s 'networkmode'\n\toption mode '" + std::string(row.mode) + "'\n" : "\n");
        EXPECT_EQ(between("AT+CGDCONT=2,\"IPV4V6\",\"ims\"", "AT+CFUN=1"), row.sent) << (row.mode ? row.mode : "unset");
    }
    folder.write("apn", "config s 'networkmode'\n\toption mode '3'\n");
    answers["AT+GTACT=2"] = "\r\nERROR\r\n";
    run(false);
    EXPECT_EQ(log_count("Set network mode failed", LOG_ERR), 1);
}

TEST_F(ModemInit, RadioFollowsAutoconnect)
{
    for (const char *settings : {"config s 'settings'\n\toption autoconnect '0'\n", "\n"}) {
        folder.write("modem", settings);
        const Strings done = run();
        EXPECT_EQ(std::count(done.begin(), done.end(), "AT+CFUN=1"), 0);
    }
    EXPECT_EQ(log_count("Get uci modem.settings.autoconnect failed", LOG_ERR), 1);
}

TEST_F(ModemInit, DefaultProfilesAreAppliedThroughTheLink)
{
    folder.write("default_profile",
                 "config profile 'profile'\n\toption apn 'operator'\n\toption ip_family '0'\n\toption auth '1'\n"
                 "\toption username 'u'\n\nconfig profile 'ims'\n\toption apn 'IMS'\n\toption ip_family '2'\n");
    folder.write("apn", "config s 'apnapply'\n\toption apnid '999'\n");
    fake_port.links["/etc/config/default_profile"] = "/etc/config/abc_apn_profile";
    fake_port.contents["/etc/config/abc_apn_profile"] = "";
    EXPECT_EQ(
        between("AT+CAVIMS?", "AT+GTACT=0"),
        (Strings{"AT+CGAUTH=2,0", "AT+CGDCONT=2,\"IPV6\",\"IMS\"", "AT+CGAUTH=1,1,\"u\",\"\"", "apn_ipv4",
                 "uci set wanmd.@profile[0].ip_family=IPV4", "uci commit wanmd", "AT+CGDCONT=1,\"IP\",\"operator\""}));
    EXPECT_EQ(log_count("Apply default ims profile to modem", LOG_INFO), 1);
    EXPECT_EQ(log_count("Apply default apn profile to modem", LOG_INFO), 1);

    // A dangling link loads nothing; IMS switched off applies no IMS profile.
    fake_port.contents.clear();
    folder.write("apn", "\n");
    EXPECT_EQ(between("AT+CAVIMS?", "AT+GTACT=0"), Strings{"AT+CGDCONT=2,\"IPV4V6\",\"ims\""});
    fake_port.contents["/etc/config/abc_apn_profile"] = "";
    folder.write("default_profile", "config profile 'profile'\n\toption ims '0'\n");
    EXPECT_EQ(between("AT+CAVIMS?", "AT+GTACT=0"), Strings{"AT+CAVIMS=0"});
}

constexpr const char *LINK = "/etc/config/default_profile";
constexpr const char *ABC = "/etc/config/abc_apn_profile";
constexpr const char *ABC_ROM = "/rom/etc/config/abc_apn_profile";

TEST_F(ModemInit, SkuDecidesTheLink)
{
    const char *const wrong = "/etc/config/xyz_apn_profile";
    const std::string sum_abc = std::string("md5sum ") + ABC;
    const std::string sum_rom = std::string("md5sum ") + ABC_ROM;
    const std::string make_link = std::string("ln -s ") + ABC + " " + LINK;
    const std::string remove_link = std::string("rm ") + LINK;
    const std::string restore = std::string("cat ") + ABC_ROM + " > " + ABC;
    struct {
        const char *what;
        const char *sku;               // null: no file
        const char *target;            // of the link, null: no link
        const char *profile, *factory; // contents, null: no file
        Strings commands;
    } rows[] = {
        {"no SKU", nullptr, "/x", "a", "b", {}},
        {"default", "default\n", ABC, "a", "a", {remove_link}},
        {"right link, altered file", "abc\nmore", ABC, "a", "b", {}},
        {"right link, dangling", "abc\n", ABC, nullptr, "b", {}},
        {"no link, same content", "abc", nullptr, "a", "a", {sum_abc, sum_rom, make_link}},
        {"no link, altered file", "abc", nullptr, "a", "b", {sum_abc, sum_rom, restore, make_link}},
        {"no link, no factory copy", "abc", nullptr, "a", nullptr, {make_link}},
        {"no link, no profile", "abc", nullptr, nullptr, "b", {}},
        {"wrong link", "abc", wrong, "a", "b", {remove_link, sum_abc, sum_rom, restore, make_link}},
        {"no digest", "abc", nullptr, "a", "b", {sum_abc, sum_rom, make_link}},
        {"wrong link, no profile", "abc", wrong, nullptr, "b", {remove_link}},
    };
    for (const auto &row : rows) {
        fake_port.reset();
        fake_shell.commands.clear();
        if (row.sku)
            fake_port.contents["/tmp/sku"] = row.sku;
        if (row.target)
            fake_port.links[LINK] = row.target;
        if (row.profile)
            fake_port.contents[ABC] = row.profile;
        if (row.factory)
            fake_port.contents[ABC_ROM] = row.factory;
        fake_shell.output = [&](const std::string &command) {
            const std::string path = command.substr(strlen("md5sum "));
            if (row.what == std::string("no digest"))
                return std::string();
            return std::string(31, '0') + fake_port.contents.at(path) + "  " + path + "\n";
        };
        fake_shell.status = [&](const std::string &command) {
            if (command == remove_link)
                fake_port.links.erase(LINK);
            return 1; // is not looked at
        };
        link_default_profile();
        EXPECT_EQ(fake_shell.commands, row.commands) << row.what;
    }
}

TEST_F(ModemInit, SkuNamesThatAreNotPlainAreRefused)
{
    for (const char *sku :
         {"", "\nabc", "a b", "a;reboot", "$(reboot)", "../x", "a/b", "..", ".", "abc\r", "\xc3\xa4", "a'b"}) {
        fake_port.contents = {{"/tmp/sku", sku}};
        clear_log();
        link_default_profile();
        EXPECT_EQ(log_count("SKU refused", LOG_ERR), 1) << sku;
    }
    EXPECT_TRUE(fake_shell.commands.empty());
    EXPECT_FALSE(sku_name_ok(std::string(65, 'a')));
    for (const char *sku : {"abc", "RTL-0100", "a.b_c", "..."})
        EXPECT_TRUE(sku_name_ok(sku)) << sku;
    fake_port.unreadable = true;
    fake_port.contents = {{"/tmp/sku", "abc"}, {ABC, "a"}};
    link_default_profile();
    EXPECT_TRUE(fake_shell.commands.empty());
}

class PreExecute : public ModemInit {
protected:
    void SetUp() override
    {
        ModemInit::SetUp();
        const std::string path = folder / "config.json";
        fake_port.contents[path] = "";
        folder.write("config.json", R"({"pre_execute_cmds": ["AT+ONE", "AT+TWO", 5, "AT+CPIN = 4321"]})");
        ASSERT_EQ(read_json(path.c_str()), 0);
        ASSERT_EQ(load_pre_execute(), 0);
        clear_log();
    }
    void TearDown() override
    {
        free_configuration();
        ModemInit::TearDown();
    }
};

TEST_F(PreExecute, OnlyWhatFailedIsRepeated)
{
    answers["AT+TWO"] = "\r\nOK\r\n+CME ERROR: 3\r\n";
    EXPECT_EQ(handle_pre_execute_cmds(), -1);
    EXPECT_EQ(events, (Strings{"AT+ONE", "AT+TWO", "AT+TWO", "AT+TWO", "AT+CPIN = 4321"}));
    EXPECT_EQ(log_count("4321"), 0);
    EXPECT_EQ(log_count("pre execute \"AT+ONE\"", LOG_INFO), 1);
    EXPECT_EQ(log_count("execute AT+TWO failed", LOG_INFO), 3);
    events.clear();
    answers["AT+TWO"] = std::nullopt;
    EXPECT_EQ(handle_pre_execute_cmds(), -1);
    EXPECT_EQ(events, Strings(3, "AT+TWO"));
    events.clear();
    answers["AT+TWO"] = ok_answer({});
    EXPECT_EQ(handle_pre_execute_cmds(), 0);
    EXPECT_EQ(events, Strings{"AT+TWO"});
    EXPECT_EQ(pre_execute_cmd_list, nullptr);
    EXPECT_EQ(pre_execute_cmd_list_len, 0u);
    EXPECT_EQ(handle_pre_execute_cmds(), -1);
    EXPECT_EQ(events.size(), 1u);
}
