// The daemon from its start to its end on a router: configuration, first start since boot, modem initialisation,
// signals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/syscall.h>
#include <unistd.h>

#include "daemon.h"

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;

static int64_t ms_since(Clock::time_point from)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - from).count();
}

// Line settings that only the port itself refuses end its two threads, not the daemon.
TEST(DaemonStart, RunsOnWhenThePortCannotBeSetUp)
{
    const struct {
        const char *settings;
        const char *message;
    } rows[] = {
        {R"("serial_databits": 9)", "invalid char len: 9"},
        {R"("serial_speed": 128000)", "OS does not currently support custom bauds"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.settings);
        PrivateRoot root;
        root.write_file("/etc/ril.json", std::string(R"({"settings": {"port": "/dev/ttyMODEM", "type": "serial", )") +
                                             row.settings + R"(}, "results": ["OK"]})");
        DaemonOptions options;
        options.wait_until_ready = false;
        Daemon daemon(root, options);
        for (const char *thread : {"at_listener", "at_sender"}) {
            EXPECT_TRUE(daemon.celmuxd().wait_for_output(std::string(thread) + " thread exit gracefully"));
            EXPECT_TRUE(wait_for([&] { return root.syslog().contains(std::string("[CELMUX: ") + thread); }));
        }
        EXPECT_TRUE(wait_for([&] { return root.syslog().contains("failed to configure serial port"); }));
        EXPECT_TRUE(wait_for([&] { return root.syslog().contains(row.message); }));
        EXPECT_TRUE(daemon.celmuxd().running());
        EXPECT_EQ(daemon.stop().code, 0);
    }
}

static void set_autoconnect(PrivateRoot &root, const std::string &option)
{
    root.write_file("/etc/config/modem", "\nconfig modem 'settings'\n" + option + "\nconfig modem 'state'\n");
}

static size_t count_of(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        count++;
    }
    return count;
}

TEST(DaemonStart, FirstStartSinceBoot)
{
    constexpr const char *marker = "/tmp/celmuxd_init";
    constexpr const char *stop_call = "/etc/init.d/wanmd stop";
    const struct {
        const char *name;
        const char *option;
        bool marker_before, marker_after, stops, radio_on;
    } rows[] = {
        {"on", "\toption autoconnect '1'\n", false, true, false, true},
        {"off", "\toption autoconnect '0'\n", false, true, true, false},
        {"off, not the first", "\toption autoconnect '0'\n", true, true, false, false},
        {"unset", "", false, false, false, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        PrivateRoot root;
        set_autoconnect(root, row.option);
        if (row.marker_before) {
            root.write_file(marker, "as it was");
        }
        Daemon daemon(root);
        // The object comes after the marker, but the script runs in the background.
        EXPECT_EQ(root.exists(marker), row.marker_after);
        auto stopped = [&] { return root.read_file("/tmp/calls.log").find(stop_call) != std::string::npos; };
        if (row.stops) {
            EXPECT_TRUE(wait_for(stopped));
            EXPECT_THAT(root.read_file("/tmp/calls.log"), HasSubstr("nvram set network_test test"));
        }
        EXPECT_EQ(daemon.modem().record().find("AT+CFUN=1") != std::string::npos, row.radio_on);
        ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; })); // the network scan is over
        if (row.marker_before) { // as a link it counts too, and is not followed
            root.remove(marker);
            std::filesystem::create_symlink(root.path("/tmp/elsewhere"), root.path(marker));
        }
        daemon.start_again();
        EXPECT_FALSE(root.exists("/tmp/elsewhere"));
        EXPECT_EQ(count_of(root.read_file("/tmp/calls.log"), stop_call), row.stops ? 1U : 0U);
    }
}

// The commands that the modem got, in order: the record's lines without time and number. The escape that leaves a
// prompt comes before the first, and is no command.
static std::vector<std::string> commands(const std::string &record)
{
    std::vector<std::string> result;
    for (const std::string &line : split_lines(record)) {
        size_t from = line.find(' ', line.find(' ') + 1);
        std::string command = line.substr(std::min(from, line.size() - 1) + 1);
        size_t end = command.find("\\r");
        if (!command.starts_with("\\x1B"))
            result.push_back(command.substr(0, end));
    }
    EXPECT_THAT(record, HasSubstr("\\x1B"));
    return result;
}

static std::vector<std::string> initialisation(const nlohmann::json &profile)
{
    PrivateRoot root;
    root.write_file("/tmp/profile.json", profile.dump());
    DaemonOptions options;
    options.modem.profile = root.path("/tmp/profile.json");
    Daemon daemon(root, options);
    EXPECT_TRUE(wait_for([&] { return daemon.modem().record().find("AT+COPS=?") != std::string::npos; }));
    return commands(daemon.modem().record());
}

TEST(DaemonStart, InitialisesAModemInItsWorkingState)
{
    EXPECT_THAT(initialisation(nlohmann::json::object()),
                ElementsAre("AT+CGMI?", "ATE0", "AT+GTPCMOUT?", "AT+MSMPD?", "AT+SIMSWAPCFG?", "AT+CMGF?",
                            R"(AT+CPMS="SM","SM","SM")", "AT+CNMI?", "AT+CAVIMS?", "AT+CGAUTH=2,0",
                            R"(AT+CGDCONT=2,"IPV4V6","ims")", "AT+CGAUTH=1,0", R"(AT+CGDCONT=1,"IPV4V6","internet")",
                            R"(AT+GTSET="5GSACTR",1)", "AT+GTACT=20,6,3", "AT+CFUN=1", "AT+GTCELLINFO=1", "AT+COPS=?"));
}

TEST(DaemonStart, InitialisesAModemFreshFromTheBox)
{
    auto profile = nlohmann::json::parse(read_whole_file(SOURCE_DIR "/modemsim/profiles/first_boot.json"));
    profile["modem"]["settings"].erase("cfun"); // a card that starts only now has commands of its own sent
    EXPECT_THAT(initialisation(profile),
                ElementsAre("AT+CGMI?", "ATE0", "AT+GTPCMOUT?", "AT+GTPCMOUT=1", "AT+MSMPD?", "AT+MSMPD=1",
                            "AT+SIMSWAPCFG?", "AT+SIMSWAPCFG=0", "AT+CMGF?", "AT+CMGF=0", R"(AT+CPMS="SM","SM","SM")",
                            "AT+CNMI?", "AT+CNMI=2,1", "AT+CAVIMS?", "AT+CAVIMS=1", "AT+CGAUTH=2,0",
                            R"(AT+CGDCONT=2,"IPV4V6","ims")", "AT+CGAUTH=1,0", R"(AT+CGDCONT=1,"IPV4V6","internet")",
                            R"(AT+GTSET="5GSACTR",1)", "AT+GTACT=20,6,3", "AT+CFUN=1", "AT+GTCELLINFO=1", "AT+COPS=?"));
}

// On the bus within 2 s, the modem's own time of 5 ms a command included.
TEST(DaemonStart, IsSoonOnTheBus)
{
    constexpr int64_t limit_ms = 2000;
    PrivateRoot root;
    Bus bus(root);
    Process broker = root.start({"ubusd"});
    ASSERT_TRUE(wait_for([&] { return bus.tool({"list"}).status == 0; }));
    ModemOptions options;
    options.latency_ms = 5;
    Modem modem(root, options);
    Process waiter = root.start({"ubus", "wait_for", "celmux"});
    Clock::time_point began = Clock::now();
    Process celmuxd = root.start({"celmuxd"});
    std::optional<ExitStatus> found = waiter.wait_exit();
    int64_t took = ms_since(began);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->code, 0) << waiter.errors();
    printf("on the bus %lld ms after the start, %zu commands of 5 ms each\n", static_cast<long long>(took),
           commands(modem.record()).size());
    EXPECT_LT(took, limit_ms);
}

TEST(DaemonStart, LeavesAModemThatIsNotTheExpectedOne)
{
    PrivateRoot root;
    root.write_file("/tmp/other.json", R"({"modem": {"identity": {"manufacturer": "Other Modems Ltd."}}})");
    DaemonOptions options;
    options.modem.profile = root.path("/tmp/other.json");
    options.wait_until_ready = false;
    Daemon daemon(root, options);
    EXPECT_TRUE(daemon.celmuxd().wait_for_output("Quit celmuxd\n"));
    EXPECT_TRUE(wait_for([&] { return root.read_file("/tmp/calls.log") == "/etc/init.d/celmux stop\n"; }));
    EXPECT_THAT(commands(daemon.modem().record()), ElementsAre("AT+CGMI?"));
    EXPECT_FALSE(daemon.bus.has_object("celmux"));
    EXPECT_TRUE(daemon.celmuxd().running()) << "it waits for its init script";
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST(DaemonStart, LeavesASilentModem)
{
    PrivateRoot root;
    DaemonOptions options;
    options.modem.profile = SOURCE_DIR "/modemsim/profiles/silent.json";
    options.wait_until_ready = false;
    Daemon daemon(root, options);
    EXPECT_TRUE(daemon.celmuxd().wait_for_output("Quit celmuxd\n"));
    EXPECT_THAT(daemon.celmuxd().output(), HasSubstr("get_modem_manufacturer"));
    EXPECT_TRUE(wait_for([&] { return root.read_file("/tmp/calls.log") == "/etc/init.d/celmux stop\n"; }));
    EXPECT_THAT(commands(daemon.modem().record()), Each("AT+CGMI?"));
    EXPECT_FALSE(daemon.bus.has_object("celmux"));
    EXPECT_EQ(daemon.stop().code, 0);
}

TEST(DaemonSignals, RunsOnAfterThoseThatDoNotStopIt)
{
    PrivateRoot root;
    Daemon daemon(root);
    daemon.celmuxd().signal(SIGPIPE);
    EXPECT_TRUE(daemon.celmuxd().wait_for_output("] received signal 13\n"));
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    // One for the process goes to whichever thread takes it: main logs it, ubus_handler leaves its loop.
    daemon.celmuxd().signal(SIGUSR1);
    EXPECT_TRUE(wait_for([&] {
        std::string output = daemon.celmuxd().output();
        return output.find("] received signal 10\n") != std::string::npos ||
               output.find("ubus_handler thread exit gracefully") != std::string::npos;
    }));
    EXPECT_TRUE(daemon.celmuxd().running());
    EXPECT_EQ(daemon.stop().code, 0);
}

static std::vector<std::string> threads_of(pid_t pid)
{
    std::vector<std::string> tasks;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        tasks.push_back(entry.path().filename());
    }
    std::sort(tasks.begin(), tasks.end(), [](const auto &a, const auto &b) { return std::stol(a) < std::stol(b); });
    return tasks;
}

TEST(DaemonSignals, SigusrToTheServiceEndsOnlyIt)
{
    PrivateRoot root;
    Daemon daemon(root);
    std::vector<std::string> tasks = threads_of(daemon.celmuxd().pid());
    ASSERT_EQ(tasks.size(), 7U); // main and five threads, the service the last of them, and its worker
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    // The signal is lost on a loop that is about to wait, as each of the library's is: then it takes another one.
    EXPECT_TRUE(wait_for([&] {
        (void)syscall(SYS_tgkill, daemon.celmuxd().pid(), static_cast<pid_t>(std::stol(tasks[5])), SIGUSR1);
        return daemon.celmuxd().output().find("ubus_handler thread exit gracefully") != std::string::npos;
    }));
    EXPECT_TRUE(wait_for([&] { return !daemon.bus.has_object("celmux"); }));
    EXPECT_TRUE(daemon.celmuxd().running());
    EXPECT_EQ(daemon.stop().code, 0);
}

// A logger that hangs costs messages, nothing else.
TEST(DaemonLog, LivesWithASystemLogThatTakesNothing)
{
    PrivateRoot root;
    Daemon daemon(root);
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    auto held = root.syslog().hold();
    size_t starts = 0;
    for (; starts < 8; starts++) { // each leaves some messages, together more than the socket holds
        daemon.start_again();
        ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    }
    ASSERT_EQ(daemon.stop().code, 0);
    held.unlock();
    daemon.start_again();
    EXPECT_TRUE(wait_for([&] { return root.syslog().lines().size() > starts; }));
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    EXPECT_EQ(daemon.stop().code, 0);
}

// Context switches of all threads since their start.
static int64_t context_switches(pid_t pid)
{
    int64_t sum = 0;
    for (const std::string &task : threads_of(pid)) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + task + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                sum += std::stoll(line.substr(line.find(':') + 1));
            }
        }
    }
    return sum;
}

// CELMUX_IDLE_SECONDS for a longer look.
TEST(DaemonIdle, SeldomWakesUp)
{
    const char *wanted = getenv("CELMUX_IDLE_SECONDS");
    const std::chrono::seconds period(wanted == nullptr ? 3 : atoi(wanted));
    PrivateRoot root;
    Daemon daemon(root);
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    int64_t before = context_switches(daemon.celmuxd().pid());
    ASSERT_GT(before, 0);
    Clock::time_point began = Clock::now();
    std::this_thread::sleep_for(period); // the rate is what is asked for
    double seconds = static_cast<double>(ms_since(began)) / 1000;
    int64_t switches = context_switches(daemon.celmuxd().pid()) - before;
    printf("%lld context switches in %.1f s, %.2f per second\n", static_cast<long long>(switches), seconds,
           static_cast<double>(switches) / seconds);
    EXPECT_LT(static_cast<double>(switches) / seconds, 20.0);
}
