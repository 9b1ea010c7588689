// What the tool `celmux` does on a terminal, and what it says of itself; what it prints is in tests/data/transcripts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "router.h"
#include "terminal.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

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

static void cell(Router &router, const char *kind)
{
    ASSERT_TRUE(router.modem({{"do", "cell"}, {"args", {kind}}}).value("ok", false));
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
    EXPECT_THAT(completions("--socket /x mode set", "lt"), ElementsAre("lte", "lte-nr", "lte-nr-nsa"));
    EXPECT_THAT(completions("--json", "sta"), ElementsAre("status"));
    EXPECT_THAT(completions("at", ""), ElementsAre(""));
    EXPECT_EQ(system("groff -man -ww -Tutf8 -z " SOURCE_DIR "/docs/celmux.1 2>&1 | grep . && exit 1 || exit 0"), 0);
}

static const std::string number = "+491701234567";

static json sms(const std::string &from, const std::string &text, const json &options = json::object())
{
    json command = {{"do", "sms"}, {"args", {from, text}}, {"time", "24-03-15 09:26:53"}};
    command.update(options);
    return command;
}

static bool wait_for_messages(Router &router, size_t count)
{
    return wait_for([&] { return router.ask("get_all_messages")["messages"].size() == count; });
}

static size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}

TEST(CliSms, WatchPrintsWhatArrives)
{
    Router router;
    router.modem(sms(number, "before"));
    ASSERT_TRUE(wait_for_messages(router, 1));
    Terminal terminal(router.root, {"celmux", "sms", "watch"});
    ASSERT_TRUE(terminal.wait_for("Ctrl-C ends.\r\n")) << terminal.output();
    router.modem(sms("Info", "\x1b[2Jfirst"));
    ASSERT_TRUE(terminal.wait_for("2024-03-15 09:26:53  Info\x1b[0m\r\n\\x1b[2Jfirst\r\n\r\n")) << terminal.output();

    // The parts of a long message are waited for.
    const std::string text = std::string(153, 'a') + std::string(153, 'b');
    router.modem(sms(number, text, {{"ref", "7"}, {"order", "2"}}));
    ASSERT_TRUE(wait_for_messages(router, 3));
    router.modem(sms(number, "between"));
    ASSERT_TRUE(terminal.wait_for("between")) << terminal.output();
    router.modem(sms(number, text, {{"ref", "7"}, {"order", "1"}}));
    ASSERT_TRUE(terminal.wait_for(text)) << terminal.output();

    router.daemon.start_again();
    ASSERT_TRUE(router.wait_until_free());
    router.modem(sms(number, "daemon started again"));
    ASSERT_TRUE(terminal.wait_for("daemon started again")) << terminal.output();
    router.daemon.stop_broker();
    ASSERT_TRUE(terminal.wait_for("celmux: sms: waiting: no connection to the bus\r\n")) << terminal.output();
    router.daemon.start_broker();
    ASSERT_TRUE(router.daemon.bus.wait_for_object("celmux"));
    router.modem(sms(number, "bus started again"));
    ASSERT_TRUE(terminal.wait_for("bus started again")) << terminal.output();
    EXPECT_EQ(router.root.shell("celmux sms delete 1 2").status, 0);
    router.modem(sms(number, "last"));
    ASSERT_TRUE(terminal.wait_for("last")) << terminal.output();
    terminal.type("\x03");
    EXPECT_EQ(terminal.wait_exit(), 0);
    EXPECT_THAT(terminal.output(), Not(HasSubstr("before")));
    EXPECT_THAT(terminal.output(), Not(HasSubstr("missing")));
    for (const char *once : {"first", "between", "daemon started again", "bus started again", "last", "aabb"})
        EXPECT_EQ(occurrences(terminal.output(), once), 1u) << once << " in " << terminal.output();

    Process plain = router.root.start({"celmux", "sms", "watch", "--json"});
    int count = 0; // what comes before its first look is not news
    ASSERT_TRUE(wait_for([&] {
        router.modem(sms("Info", "message " + std::to_string(count++)));
        return !plain.output_lines().empty() || !plain.running();
    })) << plain.errors();
    EXPECT_EQ(json::parse(plain.output_lines().at(0))["from"], "Info");
    plain.signal(SIGTERM);
    std::optional<ExitStatus> end = plain.wait_exit();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->code, 0) << plain.errors();
    (void)router.daemon.stop();
    EXPECT_EQ(router.root.shell("celmux sms watch").errors, "celmux: sms: celmuxd is not on the bus; is it running?\n");
}
