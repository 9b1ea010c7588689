// The tool's commands for the SIM card, APN profiles, connection and AT commands, against the whole system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "celmux_tool.h"
#include "terminal.h"

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// The command ends well and prints this.
static void expect_output(Router &router, const std::string &arguments, const std::string &output)
{
    ShellResult result = celmux(router, arguments);
    EXPECT_EQ(result.status, 0) << arguments << ": " << result.errors;
    EXPECT_EQ(result.output, output) << arguments;
}

TEST(CliPin, CodesComeFromStandardInput)
{
    Router router(R"({"modem": {"sim": {"state": "pin", "lock": true, "pin": "48151623", "puk": "62951413"}}})");
    router.root.write_file("/tmp/pin", "48151623\r\n");
    router.root.write_file("/tmp/wrong", "48151600\n");
    router.root.write_file("/tmp/puk", "62951413\n73519264\n");
    router.root.write_file("/tmp/change", "73519264\n2718\n");
    router.root.write_file("/tmp/new", "2718");
    expect_kept(router, "pin", "pin_waiting.txt");
    expect_failure(router, "pin unlock </tmp/wrong", 1, "pin: the SIM card refused it; attempts left: 2");
    expect_kept(router, "pin status --json", "pin_waiting.json");
    expect_output(router, "pin unlock </tmp/pin", "The SIM card is unlocked.\n");
    expect_output(router, "pin unlock </tmp/wrong", "The SIM card waits for no PIN.\n");
    router.modem({{"do", "sim"}, {"args", {"puk"}}});
    expect_kept(router, "pin", "pin_puk.txt");
    expect_output(router, "pin unlock </tmp/puk", "The SIM card is unlocked.\n");
    expect_output(router, "pin change </tmp/change", "The PIN is changed.\n");
    EXPECT_EQ(router.modem_state("/modem/sim/pin"), "2718");
    expect_output(router, "pin lock", "The SIM card asks for its PIN at start.\n");
    expect_failure(router, "pin unlock-lock </tmp/wrong", 1, "pin: the SIM card refused it; attempts left: 2");
    expect_output(router, "pin unlock-lock </tmp/new", "The SIM card no longer asks for its PIN.\n");
    expect_kept(router, "pin", "pin_ready.txt");
    expect_kept(router, "pin --json", "pin_ready.json");
    expect_failure(router, "pin change </tmp/change", 1,
                   "pin: a SIM card that asks for no PIN changes none; see 'celmux pin lock'");

    // What cannot be a code costs no attempt.
    const std::string see = " (see 'celmux help pin')";
    (void)router.commands();
    for (const char *code : {"123", "123456789", "12a4", "1234\\\"", "12 34", "12\\03334"}) {
        router.root.shell(std::string("printf '") + code + "' >/tmp/code");
        expect_failure(router, "pin lock </tmp/code", 2, "pin: a PIN has 4 to 8 digits" + see);
    }
    router.root.write_file("/tmp/endless", std::string(10000, '1'));
    for (const char *file : {"/dev/null", "/tmp/endless"})
        expect_failure(router, std::string("pin lock <") + file, 2, "pin: nothing usable was entered" + see);
    expect_failure(router, "pin unlock 1234", 2,
                   "pin: codes are typed at the prompt or come from standard input, not from the arguments" + see);
    EXPECT_THAT(router.commands(), Not(Contains(HasSubstr("SC\",1"))));
    router.modem({{"do", "sim"}, {"args", {"pull"}}});
    expect_failure(router, "pin", 1, "pin: there is no SIM card, or the modem cannot read it");
}

TEST(CliPin, ThePromptShowsNothing)
{
    Router router(R"({"modem": {"sim": {"state": "pin", "lock": true, "pin": "48151623"}}})");
    {
        Terminal terminal(router.root, {"celmux", "pin", "unlock"});
        ASSERT_TRUE(terminal.wait_for("PIN (attempts left: 3): ")) << terminal.output();
        EXPECT_FALSE(terminal.echoes());
        terminal.type("48151623\n");
        EXPECT_EQ(terminal.wait_exit(), 0);
        EXPECT_EQ(terminal.output(), "PIN (attempts left: 3): \r\nThe SIM card is unlocked.\r\n");
    }
    {
        Terminal terminal(router.root, {"celmux", "pin", "change"});
        ASSERT_TRUE(terminal.wait_for("PIN (attempts left: 3): ")) << terminal.output();
        terminal.type("48151623\n");
        ASSERT_TRUE(terminal.wait_for("New PIN: "));
        terminal.type("2718\n");
        ASSERT_TRUE(terminal.wait_for("New PIN again: "));
        terminal.type("2719\n");
        EXPECT_EQ(terminal.wait_exit(), 2);
        EXPECT_TRUE(terminal.echoes());
        EXPECT_THAT(terminal.output(), HasSubstr("these two are not the same"));
        for (const char *code : {"48151623", "2718", "2719"})
            EXPECT_THAT(terminal.output(), Not(HasSubstr(code)));
    }
    Terminal terminal(router.root, {"celmux", "pin", "unlock-lock"});
    ASSERT_TRUE(terminal.wait_for("PIN (attempts left: 3): ")) << terminal.output();
    terminal.type("4815\x03");
    EXPECT_EQ(terminal.wait_exit(), 128 + SIGINT);
    EXPECT_TRUE(terminal.echoes());
    EXPECT_EQ(router.modem_state("/modem/sim/pin"), "48151623");
    EXPECT_EQ(router.modem_state("/modem/sim/lock"), true);
}

TEST(CliApn, KeepsProfiles)
{
    Router router;
    expect_kept(router, "apn", "apn_none.txt");
    expect_output(router, "apn add internet name='Zu Hause'", "");
    router.root.write_file("/tmp/password", "secret\n");
    expect_output(router, "apn add corp.example name=Work ip=IPv4 user=jane password=- auth=chap </tmp/password", "");
    expect_kept(router, "apn", "apn_list.txt");
    expect_kept(router, "apn list --json", "apn_list.json");
    EXPECT_EQ(router.ask("get_profile", {{"id", 1}})["password"], "secret");
    expect_output(router, "apn use 1", "The modem's APN is corp.example; 'celmux connect' connects with it.\n");
    expect_output(router, "apn use default", "The modem's APN is internet; 'celmux connect' connects with it.\n");
    expect_output(router, "apn edit 1 apn=other.example ip=ipv6 auth=none name=", "");
    expect_output(router, "apn remove 0", "");
    expect_kept(router, "apn", "apn_edited.txt");
    EXPECT_EQ(router.ask("get_profile", {{"id", 0}})["username"], "jane");

    // Neither the modem nor another profile is touched by what goes wrong.
    const std::string see = " (see 'celmux help apn')";
    (void)router.commands();
    const struct {
        const char *arguments;
        int status;
        std::string line;
    } rows[] = {
        {"apn use 1", 1, "apn: there is no profile 1"},
        {"apn remove 1", 1, "apn: there is no profile 1"},
        {"apn edit 1 name=x", 1, "apn: there is no profile 1"},
        {"apn remove -1", 2, "apn: -1 is no number of a profile" + see},
        {"apn remove", 2, "apn: remove needs more arguments" + see},
        {"apn use 0 1", 2, "apn: too many arguments for use" + see},
        {"apn edit 0", 2, "apn: edit needs more arguments" + see},
        {"apn edit 0 ip=7", 2, "apn: 7 is not one of ipv4, ipv6, ipv4v6" + see},
        {"apn add x auth=", 2, "apn:  is not one of none, pap, chap" + see},
        {"apn add x apn=y", 2, "apn: apn=y is not one of apn=, name=, ip=, user=, password=, auth=, each once" + see},
        {"apn add x names=y", 2,
         "apn: names=y is not one of apn=, name=, ip=, user=, password=, auth=, each once" + see},
        {"apn add x user=y", 2, "apn: user=, password= and auth= go together" + see},
        {"apn rename", 2, "apn: there is no apn rename" + see},
    };
    for (const auto &row : rows)
        expect_failure(router, row.arguments, row.status, row.line);
    EXPECT_THAT(router.commands(), Not(Contains(HasSubstr("CGDCONT="))));
    expect_kept(router, "apn", "apn_edited.txt");

    expect_failure(router, "apn add plain 'name=\x1b[2J'", 1, "apn: refused, or there is no such thing");
    const std::string kept = router.root.read_file("/etc/config/profiles");
    router.root.write_file("/etc/config/profiles",
                           kept + "config profile\n\toption apn 'plain'\n\toption name '\x1b[2J'\n");
    EXPECT_THAT(celmux(router, "apn").output, HasSubstr("  1  \\x1b[2J"));
    router.modem({{"do", "trouble"}, {"args", {R"({"kind": "error", "command": "AT+CGDCONT=", "text": "ERROR"})"}}});
    expect_failure(router, "apn use 1", 1, "apn: the modem did not take it, its APN is internet");
}

TEST(CliConnection, ConnectsAndDisconnects)
{
    Router router;
    expect_kept(router, "connect", "connect.txt");
    expect_kept(router, "disconnect", "disconnect.txt");
    EXPECT_THAT(router.script_calls(3), Contains(HasSubstr("wanmd stop")));
    expect_kept(router, "autoconnect", "autoconnect.txt");
    expect_output(router, "autoconnect off", "");
    expect_kept(router, "autoconnect --json", "autoconnect_off.json");
    expect_failure(router, "autoconnect maybe", 2, "autoconnect: on or off (see 'celmux help autoconnect')");
    EXPECT_EQ(router.ask("get_autoconnect")["autoconnect"], 0);
}

TEST(CliAt, PrintsTheModemsAnswer)
{
    Router router(R"({"modem": {"identity": {"model": "\u001b[2J\u009b1m"}}})");
    expect_kept(router, "at AT+CSQ", "at.txt");
    expect_kept(router, "at AT+CSQ --json", "at.json");
    expect_kept(router, "at AT+CGMM", "at_hostile.txt");
    expect_kept(router, "at AT+CGMM --json", "at_hostile.json");
    ShellResult refused = celmux(router, "at AT+NONSENSE");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "ERROR\n");
    EXPECT_EQ(refused.errors, "celmux: at: the modem refused it\n");
    const std::string see = " (see 'celmux help at')";
    expect_failure(router, "at CSQ", 2, "at: a command that begins with AT" + see);
    expect_failure(router, "at \"$(printf 'AT\\rAT+CFUN=0')\"", 2, "at: a command has no control characters" + see);
    router.modem({{"do", "silent"}, {"args", {"0"}}});
    expect_failure(router, "at AT --timeout 1", 4, "at: the modem did not answer within 1 s");
    router.modem({{"do", "silent"}, {"args", {"end"}}});
}
