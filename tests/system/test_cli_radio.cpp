// The tool's commands that show and choose the radio, against the whole system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "celmux_tool.h"
#include "terminal.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

static void cell(Router &router, const char *kind)
{
    ASSERT_TRUE(router.modem({{"do", "cell"}, {"args", {kind}}}).value("ok", false));
}

TEST(Cli, ShowsWhatTheModemTells)
{
    Router router;
    expect_kept(router, "status", "status_lte.txt");
    EXPECT_EQ(celmux(router, "").output, celmux(router, "status").output);
    cell(router, "endc");
    ASSERT_EQ(router.call("set_pdp_context_activation", {{"state", 1}, {"cid", 1}}), R"({"result":0})");
    for (const char *text : {"Hello", "World"})
        router.modem({{"do", "sms"}, {"args", {"+491701234567", text}}});
    ASSERT_TRUE(wait_for([&] { return router.ask("get_all_messages")["messages"].size() == 2; }));
    ASSERT_EQ(router.call("read_message", {{"index", 1}}), R"({"result":0})");
    expect_kept(router, "status", "status_endc.txt");
    expect_kept(router, "status --json", "status_endc.json");
    for (const char *kind : {"lte", "nr", "endc", "umts", "none"}) {
        cell(router, kind);
        for (const char *command : {"signal", "cells"}) {
            std::string name = command + std::string("_") + kind;
            expect_kept(router, command, name + ".txt");
            expect_kept(router, std::string("--json ") + command, name + ".json");
        }
    }
    expect_kept(router, "status", "status_none.txt");
    expect_kept(router, "status --json", "status_none.json");
}

TEST(Cli, ChoosesBandsModeAndOperator)
{
    Router router;
    expect_kept(router, "bands", "bands.txt");
    expect_kept(router, "bands show --json", "bands.json");
    expect_kept(router, "mode", "mode.txt");
    expect_kept(router, "operator", "operator.txt");
    expect_kept(router, "operator --json", "operator.json");
    (void)router.commands();
    const struct {
        const char *arguments;
        const char *command; // the last one that the modem got
    } rows[] = {
        {"bands set b3,N78 viii", "AT+GTACT=20,6,3,103,5078,8"},
        {"bands set all", "AT+GTACT=20,6,3"},
        {"mode set lte-nr-nsa", "AT+GTACT=17,6"},
        {"bands set B41,n41", "AT+GTACT=17,6,3,141,5041"},
        {"mode set 3g", "AT+GTACT=1"},
        {"mode set AUTO", "AT+GTACT=20,6,3"},
        {"operator 46001", "AT+COPS=1,2,\"46001\""},
        {"operator auto", "AT+COPS=0"},
    };
    for (const auto &row : rows) {
        ShellResult result = celmux(router, row.arguments);
        EXPECT_EQ(result.status, 0) << row.arguments << ": " << result.errors;
        EXPECT_EQ(result.output, "") << row.arguments;
        EXPECT_THAT(router.commands(), testing::Contains(row.command)) << row.arguments;
    }
    ASSERT_EQ(celmux(router, "mode set lte").status, 0);
    expect_kept(router, "mode --json", "mode_lte.json");
    expect_failure(router, "bands set B99", 1, "bands: the modem refused it");
    (void)router.commands();
    expect_failure(router, "bands set B3,xyz", 2,
                   "bands: XYZ is no band; such as B3, n78, VIII (see 'celmux help bands')");
    expect_failure(router, "bands set", 2, "bands: which bands? (see 'celmux help bands')");
    expect_failure(router, "mode set 6g", 2, "mode: there is no mode 6g (see 'celmux help mode')");
    expect_failure(
        router, "operator 4600", 2,
        "operator: auto, or a code of 5 or 6 digits (MCC and MNC) such as 26201 (see 'celmux help operator')");
    EXPECT_THAT(router.commands(), testing::IsEmpty());
}

TEST(Cli, ScansAndWaits)
{
    Router router;
    router.modem({{"do", "set"}, {"args", {R"({"behaviour": {"scan_ms": 1500}, "network": {"operators": [
        {"stat": 2, "name": "One", "brief": "1", "numeric": "46001", "act": 12},
        {"stat": 1, "name": "Two", "brief": "2", "numeric": "46000", "act": 7},
        {"stat": 1, "name": "Three", "brief": "3", "numeric": "46011", "act": 2}]}})"}}});
    Terminal terminal(router.root, {"celmux", "scan"});
    EXPECT_TRUE(terminal.wait_for("scanning"));
    expect_failure(router, "signal", 1,
                   "signal: the modem is busy (a network scan, or it is starting) or has nothing to tell");
    EXPECT_EQ(terminal.wait_exit(), 0);
    EXPECT_TRUE(terminal.output().ends_with("NETWORKS FOUND\x1b[0m\r\nNR\r\nLTE\r\nGSM or UMTS\r\n"))
        << terminal.output();
    expect_kept(router, "scan --json", "scan.json");
    router.modem({{"do", "set"}, {"args", {R"({"behaviour": {"scan_ms": 600000}})"}}});
    expect_failure(router, "scan --timeout 1", 4, "scan: no end of the scan within 1 s");
    router.modem({{"do", "reset"}, {"ms", "100"}});
}

TEST(Cli, WatchesTheSignalOnATerminal)
{
    Router router;
    Terminal terminal(router.root, {"celmux", "signal", "--watch", "1"}, 60);
    ASSERT_TRUE(terminal.wait_for("RSRP -78 dBm")) << terminal.output();
    router.modem({{"do", "signal"}, {"rsrp", "-119"}});
    ASSERT_TRUE(terminal.wait_for("▇▁")) << terminal.output();
    cell(router, "none");
    ASSERT_TRUE(terminal.wait_for("no signal")) << terminal.output();
    cell(router, "lte");
    ASSERT_TRUE(terminal.wait_for("·▁")) << terminal.output();
    EXPECT_TRUE(terminal.output().starts_with("\r\x1b[KLTE   RSRP -78 dBm")) << terminal.output();
    EXPECT_THAT(terminal.output(), Not(HasSubstr("\n"))) << "each sample is in the same line";
    terminal.type("\x03");
    EXPECT_EQ(terminal.wait_exit(), 0);

    Process plain = router.root.start({"celmux", "signal", "--watch", "1", "--json"});
    ASSERT_TRUE(wait_for([&] { return plain.output_lines().size() >= 2; }));
    EXPECT_EQ(json::parse(plain.output_lines()[1])["lte"]["rsrp_dbm"], -119);
    router.daemon.stop_broker();
    std::optional<ExitStatus> end = plain.wait_exit();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->code, 3) << plain.errors();
}

TEST(Cli, SaysWhyWithOneLineAndAnExitStatus)
{
    Router router;
    expect_failure(router, "nonsense", 2, "there is no command nonsense (see 'celmux help')");
    expect_failure(router, "--nonsense", 2, "there is no option --nonsense (see 'celmux help')");
    expect_failure(router, "status now", 2, "status: too many arguments (see 'celmux help status')");
    expect_failure(router, "signal --watch 0", 2,
                   "signal: --watch takes seconds from 1 to 3600 (see 'celmux help signal')");
    expect_failure(router, "call get_imei '{\"a\":'", 2,
                   "call: the arguments are not one JSON object (see 'celmux help call')");
    expect_failure(router, "call unlock_sim", 2, "unlock_sim: the daemon does not accept these arguments");
    expect_failure(router, "call nonsense", 2, "nonsense: the daemon has no such method");
    expect_failure(router, "--socket /nowhere status", 3, "status: no connection to the bus");
    expect_failure(router, "$(printf 'x\\033[2J')", 2, "there is no command x\\x1b[2J (see 'celmux help')");
    EXPECT_EQ(celmux(router, "call get_imei").output, "{\"result\":0,\"imei\":\"860000000000009\"}\n");
    EXPECT_EQ(celmux(router, "status >/dev/full").status, 1);
    ASSERT_EQ(router.root.shell("ln -s \"$(which celmux)\" /tmp/celmux-mode && /tmp/celmux-mode").output,
              celmux(router, "mode").output);

    // A modem that says nothing: the screen is there all the same, what the modem knows is unknown.
    router.modem({{"do", "set"}, {"args", {R"({"behaviour": {"delays": {"AT": 3600000}}})"}}});
    expect_failure(router, "mode", 4, "mode: the modem did not answer within 3 s");
    expect_failure(router, "cells", 4, "cells: the modem did not answer within 3 s");
    auto began = std::chrono::steady_clock::now();
    ShellResult result = celmux(router, "status");
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(2900));
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.errors, "celmux: status: the daemon did not answer within 1 s\n");
    EXPECT_EQ(result.output, read_whole_file(TEST_DATA_DIR "/cli/status_silent.txt"));
    auto calls = [&] { return router.daemon.celmuxd().output().rfind(" enter\n"); };
    const size_t last = calls();
    Terminal terminal(router.root, {"celmux", "mode"});
    ASSERT_TRUE(wait_for([&] { return calls() > last; }));
    terminal.type("\x03"); // ends a call that waits
    EXPECT_EQ(terminal.wait_exit(), 128 + SIGINT);
    router.daemon.stop();
    expect_failure(router, "signal", 3, "signal: celmuxd is not on the bus; is it running?");
}

TEST(Cli, AnOperatorsNameDrivesNoTerminal)
{
    Router router(R"({"troubles": [{"kind": "error", "command": "AT+COPS?",
        "text": "+COPS: 0,0,\"\u001b]0;x\u0007\u009b2J\u202eevil\",7\r\n\r\nOK"}]})");
    for (const char *command : {"operator", "status", "operator --json", "status --json"}) {
        std::string output = celmux(router, command).output;
        EXPECT_THAT(output, HasSubstr("evil")) << command;
        for (const char *driving : {"\x1b", "\a", "\xc2\x9b", "\xe2\x80\xae"})
            EXPECT_THAT(output, Not(HasSubstr(driving))) << command;
    }
}

// One line per word, as the shell would offer them.
static std::vector<std::string> completions(const std::string &words, const std::string &current)
{
    FILE *bash = popen(("cd " SOURCE_DIR
                        "/router && bash -c '. usr/share/bash-completion/completions/celmux; COMP_WORDS=(celmux " +
                        words + " \"" + current +
                        "\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _celmux; printf \"%s\\n\" \"${COMPREPLY[@]}\"'")
                           .c_str(),
                       "r");
    std::string text;
    char bytes[4096];
    while (size_t count = fread(bytes, 1, sizeof(bytes), bash))
        text.append(bytes, count);
    EXPECT_EQ(pclose(bash), 0);
    return split_lines(text);
}

TEST(Cli, HelpManualAndCompletionKnowEachCommand)
{
    PrivateRoot root;
    std::string manual = read_whole_file(SOURCE_DIR "/docs/celmux.1");
    std::vector<std::string> offered = completions("", "");
    std::vector<std::string> commands;
    for (const std::string &line : split_lines(root.shell("celmux help").output))
        if (!line.empty() && line.find(' ') < 14 && !line.starts_with("usage") && !line.starts_with("Without"))
            commands.push_back(line.substr(0, line.find(' ')));
    ASSERT_GE(commands.size(), 9U);
    for (const std::string &command : commands) {
        EXPECT_THAT(offered, testing::Contains(command));
        EXPECT_TRUE(std::filesystem::is_symlink(SOURCE_DIR "/router/usr/lib/celmux/celmux-" + command)) << command;
        EXPECT_NE(manual.find(command), std::string::npos) << command;
        ShellResult help = root.shell("celmux help " + command + " && celmux " + command + " --help");
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_TRUE(help.output.starts_with("usage: celmux " + command)) << help.output;
        for (const std::string &line : split_lines(help.output))
            EXPECT_LE(line.size(), 100U) << line;
    }
    EXPECT_THAT(completions("--socket /x mode set", "lt"), testing::ElementsAre("lte", "lte-nr", "lte-nr-nsa"));
    EXPECT_THAT(completions("--json", "sta"), testing::ElementsAre("status"));
    EXPECT_THAT(completions("at", ""), testing::ElementsAre(""));
    EXPECT_EQ(system("groff -man -ww -Tutf8 -z " SOURCE_DIR "/docs/celmux.1 2>&1 | grep . && exit 1 || exit 0"), 0);
}
