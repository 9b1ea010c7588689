// The command `uci` as scripts and the daemon use it: output, messages, exit status.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

struct result {
    int status;
    std::string out;
    std::string err;
};

static std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

static void put(const fs::path &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

static const char *const sample =
    "\nconfig settings 'main'\n\toption one 'it'\\''s'\n\tlist many 'a'\n\tlist many 'b c'\n"
    "\nconfig profile\n\toption apn 'first'\n\nconfig profile\n\toption apn 'second'\n\n";

struct UciTool : testing::Test {
    fs::path root;

    UciTool()
    {
        std::string name = BIN_DIR "/../uci-tool-XXXXXX";
        root = fs::canonical(mkdtemp(name.data()));
        fs::create_directory(root / "config");
        put(root / "config/p", sample);
    }
    ~UciTool() override
    {
        fs::remove_all(root);
    }
    pid_t start(const std::vector<std::string> &args, const char *out, const char *err)
    {
        pid_t child = fork();
        if (child != 0)
            return child;
        std::vector<std::string> all = {"uci", "-c", root / "config", "-t", root / "pending"};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &arg : all)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        dup2(open((root / out).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
        dup2(open((root / err).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        execv(BIN_DIR "/uci", argv.data());
        _exit(127);
    }
    static int exit_status(pid_t child)
    {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    result run(const std::vector<std::string> &args)
    {
        int status = exit_status(start(args, "out", "err"));
        return {status, content_of(root / "out"), content_of(root / "err")};
    }
    void expect(const std::vector<std::string> &args, int status, const std::string &out, const std::string &err)
    {
        result r = run(args);
        std::string what = testing::PrintToString(args);
        EXPECT_EQ(r.status, status) << what;
        EXPECT_EQ(r.out, out) << what;
        EXPECT_EQ(r.err, err.empty() ? "" : "uci: " + err + "\n") << what;
    }
    std::string file(const char *name = "p")
    {
        return content_of(root / "config" / name);
    }
    std::string pending(const char *name = "p")
    {
        return content_of(root / "pending" / name);
    }
};

TEST_F(UciTool, GetsValuesListsAndTypes)
{
    expect({"get", "p.main.one"}, 0, "it's\n", "");
    expect({"get", "p.main.many"}, 0, "a 'b c'\n", "");
    expect({"get", "p.main"}, 0, "settings\n", "");
    expect({"get", "p.@profile[-1].apn"}, 0, "second\n", "");
    for (const char *absent : {"p.main.two", "p.nobody.one", "p.nobody", "absent.a.b", "p.@profile[2].apn"})
        expect({"get", absent}, 1, "", "Entry not found");
    expect({"-q", "get", "p.nobody"}, 1, "", "");
}

TEST_F(UciTool, ChangesOnlyThePendingFile)
{
    expect({"set", "p.main.one=1"}, 0, "", "");
    expect({"set", "p.new=kind"}, 0, "", "");
    expect({"add_list", "p.main.many=it's"}, 0, "", "");
    expect({"delete", "p.@profile[1].apn"}, 0, "", "");
    expect({"delete", "p.@profile[0]"}, 0, "", "");
    EXPECT_EQ(file(), sample);
    expect({"get", "p.main.one"}, 0, "1\n", "");
    expect({"get", "p.main.many"}, 0, "a 'b c' it's\n", "");
    result changes = run({"changes"});
    EXPECT_EQ(changes.status, 0);
    EXPECT_EQ(changes.out.substr(0, changes.out.find("-p.")),
              "p.main.one='1'\np.new='kind'\np.main.many+='it'\\''s'\n");
    EXPECT_EQ(run({"changes", "p"}).out, changes.out);
    expect({"show", "p"}, 0,
           "p.main=settings\np.main.one='1'\np.main.many='a' 'b c' 'it'\\''s'\np.@profile[0]=profile\np.new=kind\n",
           "");

    expect({"commit", "p"}, 0, "", "");
    EXPECT_EQ(file(), "\nconfig settings 'main'\n\toption one '1'\n\tlist many 'a'\n\tlist many 'b c'\n"
                      "\tlist many 'it'\\''s'\n\nconfig profile\n\nconfig kind 'new'\n\n");
    EXPECT_TRUE(fs::exists(root / "pending/p"));
    EXPECT_EQ(pending(), "");
    expect({"changes"}, 0, "", "");
}

TEST_F(UciTool, ExportsAndReverts)
{
    expect({"set", "p.main.one=1"}, 0, "", "");
    expect({"add_list", "p.main.many=d e"}, 0, "", "");
    expect({"set", "p.new=kind"}, 0, "", "");
    expect({"get", "p.main.many"}, 0, "a 'b c' 'd e'\n", "");
    EXPECT_NE(run({"export", "p"}).out.find("package p\n\nconfig settings 'main'\n\toption one '1'\n"),
              std::string::npos);
    expect({"revert", "p.main.one"}, 0, "", "");
    expect({"changes"}, 0, "p.main.many+='d e'\np.new='kind'\n", "");
    expect({"revert", "p.main"}, 0, "", "");
    expect({"changes"}, 0, "p.new='kind'\n", "");
    expect({"revert", "p"}, 0, "", "");
    expect({"changes"}, 0, "", "");
    expect({"set", "p.main.one="}, 0, "", "");
    expect({"get", "p.main.one"}, 1, "", "Entry not found");
    expect({"rename", "p.main=x"}, 1, "", "this tool does not offer that command; the router's own does");
}

TEST_F(UciTool, RefusesWithAMessageAndChangesNothing)
{
    put(root / "config/bad", "foo bar\n");
    fs::create_directory(root / "config/folder");
    struct row {
        std::vector<std::string> args;
        const char *message;
    };
    for (const row &r : std::vector<row>{
             {{"set", "absent.a.b=1"}, "Entry not found"},
             {{"set", "absent.a=t"}, "Entry not found"},
             {{"set", "p.nobody.b=1"}, "Invalid argument"},
             {{"set", "p.main.one"}, "Invalid argument"},
             {{"set", "p.@profile[2].apn=1"}, "Invalid argument"},
             {{"add_list", "p.nobody.b=1"}, "Invalid argument"},
             {{"delete", "p.nobody"}, "Entry not found"},
             {{"delete", "p.main.two"}, "Entry not found"},
             {{"delete", "p.@profile[2]"}, "Entry not found"},
             {{"add", "absent", "profile"}, "Entry not found"},
             {{"commit", "absent"}, "Entry not found"},
             {{"show", "absent"}, "Entry not found"},
             {{"set", "../config/p.main.one=1"}, "Invalid argument"},
             {{"set", "a/b.c.d=1"}, "Invalid argument"},
             {{"commit", ".."}, "Invalid argument"},
             {{"get", "folder.a.b"}, "I/O error"},
             {{"get", "bad.a.b"}, "Parse error (invalid command) at line 1, byte 0"},
             {{"set", "bad.a=b"}, "Parse error (invalid command) at line 1, byte 0"},
             {{"show", "bad"}, "Parse error (invalid command) at line 1, byte 0"},
         })
        expect(r.args, 1, "", r.message);
    put(root / "config/bad", "config t s\n\n  option a b\n  option c 'open\n");
    expect({"get", "bad.a.b"}, 1, "", "Parse error (unterminated quote) at line 4, byte 11");
    EXPECT_EQ(run({"unheard-of"}).status, 1);
    EXPECT_EQ(run({"get"}).status, 1);
    EXPECT_EQ(file(), sample);
    EXPECT_FALSE(fs::exists(root / "pending"));
}

TEST_F(UciTool, AddsASectionAndPrintsItsName)
{
    result added = run({"add", "p", "profile"});
    ASSERT_EQ(added.status, 0);
    ASSERT_EQ(added.out.size(), 10U);
    EXPECT_EQ(added.out.substr(0, 3), "cfg");
    std::string name = added.out.substr(0, 9);
    expect({"set", "p." + name + ".apn=third"}, 0, "", "");
    expect({"get", "p.@profile[2].apn"}, 0, "third\n", "");
    expect({"changes", "p"}, 0, "p." + name + "='profile'\np." + name + ".apn='third'\n", "");
    expect({"commit"}, 0, "", "");
    EXPECT_EQ(file(), sample + std::string("config profile\n\toption apn 'third'\n\n"));
    // Whoever committed it: the name still means this section.
    expect({"set", "p." + name + ".apn=fourth"}, 0, "", "");
    expect({"get", "p.@profile[2].apn"}, 0, "fourth\n", "");
}

TEST_F(UciTool, WorksOnAllPackagesWithoutAName)
{
    put(root / "config/q", "config t 'x'\n");
    expect({"set", "p.main.one=1"}, 0, "", "");
    expect({"set", "q.x.one=2"}, 0, "", "");
    expect({"changes"}, 0, "p.main.one='1'\nq.x.one='2'\n", "");
    expect({"commit"}, 0, "", "");
    EXPECT_EQ(file("q"), "\nconfig t 'x'\n\toption one '2'\n\n");
    expect({"changes"}, 0, "", "");
    result all = run({"show"});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.out, run({"show", "p"}).out + "q.x=t\nq.x.one='2'\n");
}

TEST_F(UciTool, TwoShellsLoseNoChange)
{
    constexpr int changes = 30;
    pid_t writers[2];
    for (int writer = 0; writer < 2; writer++) {
        writers[writer] = fork();
        if (writers[writer] != 0)
            continue;
        for (int i = 0; i < changes; i++) {
            std::string option = (writer ? "b" : "a") + std::to_string(i);
            const char *out = writer ? "out1" : "out0";
            if (exit_status(start({"set", "p.main." + option + "=" + option}, out, out)) != 0 ||
                exit_status(start({"commit", "p"}, out, out)) != 0)
                _exit(1);
        }
        _exit(0);
    }
    for (pid_t writer : writers)
        EXPECT_EQ(exit_status(writer), 0);
    std::string text = file();
    for (int i = 0; i < changes; i++)
        for (std::string writer : {"a", "b"}) {
            std::string option = writer + std::to_string(i);
            EXPECT_NE(text.find("\toption " + option + " '" + option + "'\n"), std::string::npos) << option;
        }
}

TEST_F(UciTool, ASettingMadeAgainAndAgainTakesNoMoreRoom)
{
    put(root / "config/modem", content_of(SOURCE_DIR "/router/etc/config/modem"));
    std::string many;
    for (int i = 0; i < 2000; i++)
        many += "modem.state.message_unread='1'\n-modem.scan.network\n|modem.scan.network='old'\n";
    fs::create_directory(root / "pending");
    put(root / "pending/modem",
        many + "modem.settings.autoconnect='0'\n-modem.scan.network\n|modem.scan.network='a'\n");
    // However it is cut, a few hundred bytes more reach the next compaction.
    for (int i = 0; i < 20; i++)
        expect({"set", "modem.state.message_unread=" + std::string(250, '1')}, 0, "", "");
    EXPECT_LT(pending("modem").size(), 8192U);
    expect({"show", "modem"}, 0,
           "modem.settings=settings\nmodem.settings.autoconnect='0'\nmodem.scan=scan\nmodem.scan.network='a'\n"
           "modem.state=state\nmodem.state.message_unread='" +
               std::string(250, '1') + "'\n",
           "");
}

TEST_F(UciTool, WaitsForALockWithAnEnd)
{
    int held = open((root / "config/p").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    expect({"get", "p.main.one"}, 1, "", "I/O error");
    pid_t waiting = start({"set", "p.main.one=1"}, "out", "err");
    ASSERT_EQ(flock(held, LOCK_UN), 0);
    EXPECT_EQ(exit_status(waiting), 0);
    close(held);
    EXPECT_EQ(pending(), "p.main.one='1'\n");
}

TEST_F(UciTool, ShippedPackagesHaveTheSectionsThatSettingsNeed)
{
    struct row {
        const char *folder;
        const char *key;
        const char *type;
    };
    for (const row &r : std::vector<row>{
             {SOURCE_DIR "/router/etc/config", "modem.settings", "settings"},
             {SOURCE_DIR "/router/etc/config", "modem.scan", "scan"},
             {SOURCE_DIR "/router/etc/config", "modem.state", "state"},
             {TEST_DATA_DIR "/etc/config", "wanmd.@profile[0]", "profile"},
             {TEST_DATA_DIR "/etc/config", "apn.apnapply", "apnapply"},
             {TEST_DATA_DIR "/etc/config", "apn.networkmode", "networkmode"},
             {TEST_DATA_DIR "/etc/config", "default_profile.profile", "profile"},
             {TEST_DATA_DIR "/etc/config", "default_profile.ims", "profile"},
         })
        expect({"-c", r.folder, "get", r.key}, 0, std::string(r.type) + "\n", "");
}
