// The daemon ends when it is told to: at any moment, whatever modem and bus do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <random>
#include <thread>
#include <unistd.h>

#include "daemon.h"
#include "silent_bus.h"

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

static constexpr milliseconds stop_limit{3000};

static int64_t ms_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration_cast<milliseconds>(to - from).count();
}

struct StopRun {
    int64_t after_ms; // from the start of the work to the signal
    int64_t took_ms;  // from the signal to the end, or -1
    int status;       // exit status, or -1
    int signal;       // that ended it, or 0
    int left_behind;  // threads
};

static StopRun stop_now(PrivateRoot &root, Process &celmuxd, milliseconds delay, int left_behind)
{
    Clock::time_point sent = Clock::now();
    celmuxd.signal(SIGTERM);
    std::optional<ExitStatus> status = celmuxd.wait_exit();
    if (!status) {
        return {delay.count(), -1, -1, 0, 0};
    }
    int64_t took = ms_between(sent, status->ended);
    if (took > 2000) { // the sink may not have taken the line yet
        (void)wait_for([&] { return root.syslog().left_behind() > left_behind; }, milliseconds(200));
    }
    return {delay.count(), took, status->code, status->signal, root.syslog().left_behind() - left_behind};
}

// Starts the daemon with SIGTERM blocked, because before main() has blocked it the signal ends any process by itself.
static StopRun stop_after(PrivateRoot &root, milliseconds delay)
{
    int left_behind = root.syslog().left_behind();
    root.remove("/tmp/celmuxd_init"); // each is the first start since boot
    Process celmuxd = root.start({"celmuxd"}, {}, SIGTERM);
    std::this_thread::sleep_for(delay); // the moment of the signal is what this is about
    return stop_now(root, celmuxd, delay, left_behind);
}

struct Scene {
    PrivateRoot root;
    std::optional<Daemon> daemon;
    std::vector<Process> helpers;

    void modem(const nlohmann::json &command)
    {
        (void)daemon->modem().control(command.dump());
    }
    void in_background(const std::string &line)
    {
        helpers.push_back(root.start({"sh", "-c", line}));
    }
    void wait_for_command(const std::string &command)
    {
        EXPECT_TRUE(wait_for([&] {
            return daemon->modem().record().find(command, record_before) != std::string::npos;
        })) << "no "
            << command;
    }
    size_t record_before = 0; // size of the modem's record when the daemon started
};

// What goes on while the signal comes.
struct Work {
    const char *name;
    int64_t latest_ms;              // of the signal, after `begin` or after exec
    const char *profile;            // of the modem
    void (*begin)(Scene &scene);    // null: the work is the start
    bool calm_first;                // let the work of the start end
    bool without_modem, silent_bus; // for starts
};

static void clients_call(Scene &scene)
{
    for (const char *method : {"get_imei", "get_signal_quality", "get_all_messages"}) {
        scene.in_background(std::string("while :; do ubus call celmux ") + method + "; done");
    }
}

static void port_is_lost(Scene &scene)
{
    clients_call(scene);
    scene.modem({{"do", "port"}, {"args", {"away"}}, {"ms", 1500}});
}

static void reports_come(Scene &scene)
{
    for (int i = 0; i < 6; i++) {
        scene.modem({{"do", "sms"}, {"args", {"+491701234567", "one of many"}}});
        scene.modem({{"do", "emit"}, {"args", {"+CGEV: NW DETACH"}}});
    }
}

static void shell_hangs(Scene &scene)
{
    scene.root.write_file("/sbin/nvram", "sleep 60\n"); // run by the shell that it hangs
    scene.in_background("ubus call celmux wanmd_disable");
}

static void prompt_is_late(Scene &scene)
{
    scene.modem({{"do", "trouble"}, {"args", {R"({"kind": "prompt_late", "ms": 4000})"}}});
    scene.in_background(R"(ubus call celmux send_message '{"dest": "+491701234567", "type": 0, "content": "Hello"}')");
    scene.wait_for_command("AT+CMGS");
}

static void listing_waits(Scene &scene)
{
    scene.wait_for_command("AT+CMGL=4");
}

static void queue_is_full(Scene &scene)
{
    scene.modem({{"do", "silent"}, {"args", {"0"}}});
    std::string reports;
    for (int i = 0; i < 300; i++) {
        reports += "\\r\\n+CMTI: \"SM\"," + std::to_string(i) + "\\r\\n";
    }
    scene.modem({{"do", "raw"}, {"args", {reports}}});
}

static void modem_falls_silent(Scene &scene)
{
    scene.modem({{"do", "silent"}, {"args", {"0"}}});
    clients_call(scene);
}

static void port_is_dead(Scene &scene)
{
    scene.daemon->modem().process().signal(SIGSTOP); // it takes nothing and says nothing
    clients_call(scene);
}

static void scan_runs(Scene &scene)
{
    scene.wait_for_command("AT+COPS=?");
}

static constexpr const char *flooding = R"({"events": [{"every_ms": 10, "do": "flood", "lines": 200}]})";
static constexpr const char *silent = R"({"troubles": [{"kind": "silent"}]})";
static constexpr const char *slow_scan = R"({"modem": {"behaviour": {"scan_ms": 5000}}})";

static constexpr const char *slow_listing = R"({"modem": {"behaviour": {"delays": {"AT+CMGL": 5000}}}})";

static const Work works[] = {
    {"start", 3000, "{}", nullptr, false, false, false},
    {"start, no port", 3000, "{}", nullptr, false, true, false},
    {"start, silent modem", 3000, silent, nullptr, false, false, false},
    {"start, flooding modem", 3000, flooding, nullptr, false, false, false},
    {"start, silent bus", 1500, "{}", nullptr, false, false, true},
    {"clients call", 1000, "{}", clients_call, false, false, false},
    {"port lost", 3000, "{}", port_is_lost, false, false, false},
    {"burst of reports", 300, "{}", reports_come, true, false, false},
    {"shell hangs", 300, "{}", shell_hangs, true, false, false},
    {"late SMS prompt", 500, "{}", prompt_is_late, true, false, false},
    {"listing of the SIM", 500, slow_listing, listing_waits, false, false, false},
    {"full queue", 1000, "{}", queue_is_full, true, false, false},
    {"modem falls silent", 1000, "{}", modem_falls_silent, true, false, false},
    {"dead port", 1000, "{}", port_is_dead, true, false, false},
    {"scan", 500, slow_scan, scan_runs, false, false, false},
};

static void end_work(Scene &scene)
{
    scene.daemon->modem().process().signal(SIGCONT);
    scene.helpers.clear();
    for (const char *all_well : {"trouble clear", "silent end", "port back"}) {
        (void)scene.daemon->modem().control(all_well);
    }
    scene.record_before = scene.daemon->modem().record().size();
}

using Moments = std::function<milliseconds()>;

static void stop_starts(const Work &work, Scene &scene, int count, const Moments &moment, std::vector<StopRun> *runs)
{
    std::optional<SilentBus> silent_bus;
    std::optional<Process> broker;
    if (work.silent_bus) {
        silent_bus.emplace(scene.root.path("/var/run/ubus"));
    } else {
        broker = scene.root.start({"ubusd"});
    }
    std::optional<Modem> modem;
    if (!work.without_modem) {
        ModemOptions options;
        options.latency_ms = 5;
        options.profile = scene.root.path("/tmp/profile.json");
        modem.emplace(scene.root, options);
    }
    for (int i = 0; i < count; i++) {
        runs->push_back(stop_after(scene.root, moment()));
    }
}

static void stop_works(const Work &work, Scene &scene, int count, const Moments &moment, std::vector<StopRun> *runs)
{
    DaemonOptions options;
    options.modem.profile = scene.root.path("/tmp/profile.json");
    options.modem.latency_ms = 20;
    scene.daemon.emplace(scene.root, options);
    for (int i = 0; i < count; i++) {
        if (i > 0) {
            scene.daemon->start_again();
        }
        if (work.calm_first) {
            (void)scene.daemon->wait_until_calm();
        }
        int left_behind = scene.root.syslog().left_behind();
        work.begin(scene);
        milliseconds delay = moment();
        std::this_thread::sleep_for(delay);
        runs->push_back(stop_now(scene.root, scene.daemon->celmuxd(), delay, left_behind));
        end_work(scene);
    }
}

static void run_stops(const Work &work, unsigned seed, int count, std::vector<StopRun> *runs)
{
    Scene scene;
    scene.root.write_file("/tmp/profile.json", work.profile);
    std::mt19937 random(seed);
    std::uniform_int_distribution<int64_t> moments(0, work.latest_ms);
    Moments moment = [&] { return milliseconds(moments(random)); };
    (work.begin == nullptr ? stop_starts : stop_works)(work, scene, count, moment, runs);
}

static int number_from_environment(const char *name, int otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : atoi(text);
}

static void judge(const Work &work, const std::vector<StopRun> &runs)
{
    int64_t longest = 0;
    int64_t sum = 0;
    int left_behind = 0;
    for (const StopRun &run : runs) {
        SCOPED_TRACE(std::string(work.name) + ", SIGTERM after " + std::to_string(run.after_ms) + " ms");
        EXPECT_EQ(run.status, 0) << "signal " << run.signal;
        EXPECT_GE(run.took_ms, 0) << "no end";
        EXPECT_LE(run.took_ms, stop_limit.count());
        EXPECT_EQ(run.left_behind, 0);
        longest = std::max(longest, run.took_ms);
        sum += run.took_ms;
        left_behind += run.left_behind;
    }
    printf("%-22s %3zu stops, mean %4lld ms, longest %4lld ms, threads left behind in %d\n", work.name, runs.size(),
           static_cast<long long>(sum / std::max<int64_t>(1, static_cast<int64_t>(runs.size()))),
           static_cast<long long>(longest), left_behind);
}

// CELMUX_STOP_RUNS and CELMUX_STOP_SEED for more, or for others.
TEST(DaemonStop, EndsAtAnyMomentOfAnyWork)
{
    constexpr int kinds = static_cast<int>(std::size(works));
    const int total = number_from_environment("CELMUX_STOP_RUNS", kinds);
    const unsigned seed = static_cast<unsigned>(number_from_environment("CELMUX_STOP_SEED", 1));
    std::vector<StopRun> runs[kinds];
    std::atomic<int> next{0};
    auto take_works = [&] {
        for (int i = next++; i < kinds; i = next++) {
            run_stops(works[i], seed + static_cast<unsigned>(i), total / kinds + (i < total % kinds ? 1 : 0), &runs[i]);
        }
    };
    std::thread others[] = {std::thread(take_works), std::thread(take_works), std::thread(take_works)};
    take_works();
    for (std::thread &thread : others) {
        thread.join();
    }
    size_t done = 0;
    for (int i = 0; i < kinds; i++) {
        judge(works[i], runs[i]);
        done += runs[i].size();
    }
    EXPECT_EQ(done, static_cast<size_t>(total));
}

// The signal waits already when main() comes to wait for it: the workers are told to end before they have begun.
TEST(DaemonStop, EndsBeforeItsThreadsHaveBegun)
{
    PrivateRoot root;
    Process broker = root.start({"ubusd"});
    Modem modem(root);
    for (int i = 0; i < 30; i++) {
        StopRun run = stop_after(root, milliseconds(0));
        ASSERT_EQ(run.status, 0) << "run " << i << ", signal " << run.signal;
        ASSERT_LE(run.took_ms, stop_limit.count());
    }
}

TEST(DaemonStop, SigintEndsItToo)
{
    PrivateRoot root;
    Daemon daemon(root);
    daemon.celmuxd().signal(SIGINT);
    std::optional<ExitStatus> status = daemon.celmuxd().wait_exit(stop_limit);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0);
    for (const char *thread : {"ubus_handler", "requester", "at_sender", "at_listener", "resp_processor", "main"}) {
        EXPECT_THAT(daemon.celmuxd().output(), testing::HasSubstr(std::string(thread) + " thread exit gracefully"));
    }
}

// Calls that the modem leaves without an answer hold the service up; a stop does not wait for them.
TEST(DaemonStop, EndsWithACallInProgress)
{
    PrivateRoot root;
    Daemon daemon(root);
    ASSERT_TRUE(wait_for([&] { return daemon.call("get_imei").result() == 0; }));
    ASSERT_TRUE(daemon.modem().control("silent 0").value("ok", false));
    const size_t asked = daemon.modem().record().size();
    Process caller =
        root.start({"ubus", "call", "celmux", "at_passthrough", R"({"at": "AT+CSQ", "timeout_ms": 60000})"});
    ASSERT_TRUE(wait_for([&] { return daemon.modem().record().size() > asked; })); // the command, or a mark before it
    Clock::time_point sent = Clock::now();
    ExitStatus status = daemon.stop();
    EXPECT_EQ(status.code, 0);
    EXPECT_LE(ms_between(sent, status.ended), stop_limit.count());
}

static bool reached(SilentBus &bus)
{
    return wait_for([&] { return bus.connections() > 0; });
}

TEST(DaemonStop, EndsWithABusThatNeverSaysHello)
{
    PrivateRoot root;
    Modem modem(root);
    SilentBus bus(root.path("/var/run/ubus"));
    Process celmuxd = root.start({"celmuxd"}, {}, SIGTERM);
    ASSERT_TRUE(reached(bus));
    Clock::time_point sent = Clock::now();
    ExitStatus status = celmuxd.stop();
    EXPECT_EQ(status.code, 0);
    EXPECT_LE(ms_between(sent, status.ended), stop_limit.count());
}

TEST(DaemonStop, EndsWhileItReconnectsToABusThatNeverSaysHello)
{
    PrivateRoot root;
    Daemon daemon(root);
    daemon.stop_broker();
    SilentBus bus(root.path("/var/run/ubus"));
    ASSERT_TRUE(reached(bus));
    Clock::time_point sent = Clock::now();
    ExitStatus status = daemon.stop();
    EXPECT_EQ(status.code, 0);
    EXPECT_LE(ms_between(sent, status.ended), stop_limit.count());
}
