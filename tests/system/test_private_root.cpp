// The private root itself: what is in it is its own, what runs in it answers for itself, and nothing stays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus.h"
#include "modem.h"
#include "private_root.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

static const std::string launcher = BIN_DIR "/private_root";

TEST(PrivateRoot, HasItsOwnFolders)
{
    PrivateRoot root;
    std::string name = "private-root-" + std::to_string(getpid());
    ShellResult made =
        root.shell("for d in /tmp /etc /etc/config /data /var/run /dev /; do echo in >$d/" + name + "; done");
    EXPECT_EQ(made.status, 0) << made.errors;
    for (const char *folder : {"/tmp/", "/etc/", "/etc/config/", "/data/", "/var/run/", "/dev/", "/"}) {
        EXPECT_FALSE(fs::exists(folder + name)) << folder;
        EXPECT_EQ(root.read_file(folder + name), "in\n") << folder;
    }
    root.write_file("/data/sub/from_outside", "text");
    EXPECT_EQ(root.shell("cat /data/sub/from_outside").output, "text");
}

TEST(PrivateRoot, TwoRootsDoNotSeeEachOther)
{
    PrivateRoot one;
    PrivateRoot other;
    EXPECT_EQ(one.shell("echo one >/tmp/file").status, 0);
    EXPECT_FALSE(other.exists("/tmp/file"));
}

TEST(PrivateRoot, APseudoTerminalHasOneName)
{
    PrivateRoot root;
    // A pseudo-terminal of one process goes by the same name in the root's other processes and on the host.
    Process holder = root.start({"script", "-qc", "tty; sleep 1000", "/dev/null"});
    ASSERT_TRUE(holder.wait_for_output("\n")) << holder.errors();
    std::string number = fs::path(holder.output().substr(0, holder.output().find('\r'))).filename();
    EXPECT_EQ(root.shell("test -c /dev/pts/" + number).status, 0) << number;
    EXPECT_TRUE(fs::is_character_file("/dev/pts/" + number)) << number;
}

TEST(PrivateRoot, ExitStatusAndOutputsComeThrough)
{
    PrivateRoot root;
    const struct {
        std::vector<std::string> argv;
        int code;
    } rows[] = {
        {{"sh", "-c", "exit 0"}, 0}, {{"sh", "-c", "exit 7"}, 7}, {{"sh", "-c", "exit 255"}, 255},
        {{"no_such_command"}, 127},  {{"/etc/passwd"}, 126},
    };
    for (const auto &row : rows) {
        Process process = root.start(row.argv);
        std::optional<ExitStatus> status = process.wait_exit();
        ASSERT_TRUE(status.has_value()) << row.argv.back();
        EXPECT_EQ(status->code, row.code) << row.argv.back();
        EXPECT_EQ(status->signal, 0) << row.argv.back();
    }
    Process two = root.start({"sh", "-c", "echo out; echo err >&2; echo $EXTRA"}, {"EXTRA=more"});
    ASSERT_TRUE(two.wait_exit().has_value());
    EXPECT_THAT(two.output_lines(), ElementsAre("out", "more"));
    EXPECT_EQ(two.errors(), "err\n");
}

TEST(PrivateRoot, SignalsReachTheCommandItself)
{
    PrivateRoot root;
    Process killed = root.start({"sleep", "1000"});
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(killed.pid()) + "/exe").filename(), "busybox");
    killed.signal(SIGTERM);
    std::optional<ExitStatus> status = killed.wait_exit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->signal, SIGTERM);

    Process trapped = root.start({"sh", "-c", "trap 'exit 3' TERM; echo set; while :; do sleep 0.01; done"});
    ASSERT_TRUE(trapped.wait_for_output("set\n"));
    EXPECT_EQ(trapped.stop().code, 3);
    EXPECT_FALSE(trapped.running());
}

TEST(PrivateRoot, NothingIsLeftRunning)
{
    pid_t background = 0;
    {
        PrivateRoot root;
        Process process = root.start({"sh", "-c", "sleep 1000 & echo $!; wait"});
        ASSERT_TRUE(process.wait_for_output("\n"));
        background = std::stoi(process.output());
        EXPECT_THAT(root.processes(), testing::UnorderedElementsAre(process.pid(), background));
    }
    // Whoever inherits it may reap it late, but it runs no more.
    std::error_code gone;
    (void)fs::read_symlink("/proc/" + std::to_string(background) + "/exe", gone);
    EXPECT_TRUE(gone) << background;
}

static Process run_launcher(const std::string &folder, const std::vector<std::string> &argv)
{
    ProcessOptions options;
    options.output_path = folder + "/launcher.out";
    options.error_path = folder + "/launcher.err";
    return Process::start(argv, options);
}

TEST(PrivateRoot, OwnPidsEndWithTheirLauncher)
{
    PrivateRoot root;
    std::string folder = root.path("/");
    // Process numbers begin anew, and what stays in the background ends with the command.
    Process ended =
        run_launcher(folder, {launcher, "--own-pids", root.path(""), "sh", "-c", "sleep 1000 & echo $$; exit 4"});
    std::optional<ExitStatus> status = ended.wait_exit();
    ASSERT_TRUE(status.has_value()) << ended.errors();
    EXPECT_EQ(status->code, 4);
    EXPECT_EQ(ended.output(), "2\n");
    EXPECT_TRUE(wait_for([&] { return root.processes().empty(); }));

    const char *endless = "trap 'exit 6' TERM; sleep 1000 & echo set; while :; do sleep 0.01; done";
    Process asked = run_launcher(folder, {launcher, "--own-pids", root.path(""), "sh", "-c", endless});
    ASSERT_TRUE(asked.wait_for_output("set\n"));
    EXPECT_EQ(asked.stop().code, 6);
    EXPECT_TRUE(wait_for([&] { return root.processes().empty(); }));

    Process killed = run_launcher(folder, {launcher, "--own-pids", root.path(""), "sh", "-c", endless});
    ASSERT_TRUE(killed.wait_for_output("set\n"));
    killed.signal(SIGKILL);
    EXPECT_TRUE(wait_for([&] { return root.processes().empty(); }));
}

TEST(PrivateRoot, TheLauncherTellsItsOwnFailures)
{
    PrivateRoot root;
    const struct {
        std::vector<std::string> argv;
        const char *message;
    } rows[] = {
        {{launcher}, "Usage: private_root"},
        {{launcher, "--nonsense", root.path(""), "true"}, "Usage: private_root"},
        {{launcher, "/proc/self/no/such", "true"}, "private_root: cannot create /proc/self/no/such"},
        {{launcher, "/etc/passwd", "true"}, "private_root: cannot create /etc/passwd/bin: Not a directory"},
        {{launcher, "--build", "/no/such", root.path(""), "true"}, "private_root: cannot find /no/such/bin"},
    };
    for (const auto &row : rows) {
        Process process = run_launcher(root.path("/"), row.argv);
        std::optional<ExitStatus> status = process.wait_exit();
        ASSERT_TRUE(status.has_value());
        EXPECT_EQ(status->code, 125) << row.message;
        EXPECT_THAT(process.errors(), HasSubstr(row.message));
    }
}

// Root can look from an ordinary user's side; an ordinary user's own run of all these tests shows the same.
TEST(PrivateRoot, AnOrdinaryUserHasItToo)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "all tests here run as an ordinary user already";
    }
    const uid_t nobody = 65534;
    PrivateRoot root;
    std::string own = root.path("/tmp/own");
    fs::create_directory(own);
    ASSERT_EQ(chown(own.c_str(), nobody, nobody), 0);
    std::vector<std::string> as_nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    auto run = [&](std::vector<std::string> command) {
        command.insert(command.begin(), as_nobody.begin(), as_nobody.end());
        return run_launcher(root.path("/"), command);
    };
    if (run({"/usr/bin/unshare", "-rm", "/usr/bin/test", "-x", launcher, "-a", "-w", own}).wait_exit()->code != 0) {
        GTEST_SKIP() << "here an ordinary user has no namespaces, or no way into the build folder";
    }
    Process inside =
        run({launcher, own, "sh", "-c", "id -u; echo in >/tmp/file; touch /usr/x; echo >/dev/null && exit 5"});
    std::optional<ExitStatus> status = inside.wait_exit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 5) << inside.errors();
    EXPECT_EQ(inside.output(), "0\n");
    EXPECT_THAT(inside.errors(), HasSubstr("Read-only file system"));
    struct stat file;
    ASSERT_EQ(stat((own + "/tmp/file").c_str(), &file), 0);
    EXPECT_EQ(file.st_uid, nobody);
    EXPECT_EQ(run({launcher, "--own-pids", own, "sh", "-c", "kill -9 $$"}).wait_exit()->code, 128 + SIGKILL);
}

static void send_datagram(const std::string &folder, const std::string &name, const std::string &text)
{
    int folder_fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string path = "/proc/self/fd/" + std::to_string(folder_fd) + "/" + name;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    ssize_t sent =
        sendto(fd, text.data(), text.size(), 0, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    EXPECT_EQ(sent, static_cast<ssize_t>(text.size())) << strerror(errno);
    (void)close(fd);
    (void)close(folder_fd);
}

TEST(WanmdStandin, PrintsEachDatagramAsOneLine)
{
    PrivateRoot root;
    Process wanmd = root.start({"wanmd_standin"});
    ASSERT_TRUE(wait_for([&] { return root.exists("/tmp/wanmd_celmuxd_uds_file"); }));
    for (const std::string &text : {std::string("sim_ready"), std::string("a\n\\\0z", 5), std::string()}) {
        send_datagram(root.path("/tmp"), "wanmd_celmuxd_uds_file", text);
    }
    ASSERT_TRUE(wait_for([&] { return wanmd.output_lines().size() == 3; }));
    EXPECT_THAT(wanmd.output_lines(), ElementsAre("sim_ready", "a\\x0a\\\\\\x00z", ""));
}

TEST(SyslogSink, TakesMoreMessagesThanASocketHolds)
{
    PrivateRoot root;
    EXPECT_EQ(
        root.shell("i=0; while [ $i -lt 100 ]; do logger -p user.err -t test message $i; i=$((i+1)); done").status, 0);
    EXPECT_TRUE(wait_for([&] { return root.syslog().lines().size() == 100; })) << root.syslog().lines().size();
    EXPECT_TRUE(root.syslog().contains("message 99"));
    EXPECT_THAT(root.syslog().lines().front(), testing::StartsWith("<11>"));
}

TEST(Bus, TellsAnswersAndStatuses)
{
    PrivateRoot root;
    Bus bus(root);
    EXPECT_EQ(bus.call("get_imei").status, 255);
    Process broker = root.start({"ubusd"});
    ASSERT_TRUE(wait_for([&] { return bus.tool({"list"}).status == 0; })) << broker.errors();
    EXPECT_FALSE(bus.has_object("celmux"));
    BusAnswer answer = bus.call("get_imei");
    EXPECT_EQ(answer.status, 4);
    EXPECT_TRUE(answer.data.is_null());
    EXPECT_EQ(answer.result(), -1);
    EXPECT_EQ(answer.errors, "");
    EXPECT_EQ(broker.stop().code, 0);
}

TEST(Modem, HasAPortAndAControlSocket)
{
    PrivateRoot root;
    Modem modem(root);
    ShellResult seen = root.shell("readlink /dev/ttyMODEM && test -c /dev/ttyMODEM");
    EXPECT_EQ(seen.status, 0) << seen.output << seen.errors;
    EXPECT_EQ(modem.control("no such command").value("ok", true), false);
    EXPECT_EQ(modem.control("quit").value("ok", false), true);
    std::optional<ExitStatus> status = modem.process().wait_exit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0);
}
