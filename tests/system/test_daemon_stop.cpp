// The daemon ends when it is told to: at any moment, whatever modem and bus do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>
#include <unistd.h>

#include "daemon.h"
#include "silent_bus.h"

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

static constexpr milliseconds stop_limit{3000};
static constexpr milliseconds latest_stop{3000}; // after exec

enum class Port { PRESENT, ABSENT, SILENT, FLOODING };
static constexpr Port ports[] = {Port::PRESENT, Port::ABSENT, Port::SILENT, Port::FLOODING};
static constexpr const char *port_names[] = {"present", "absent", "silent", "flooding"};

struct StopRun {
    int64_t after_ms; // from exec to the signal
    int64_t took_ms;  // from the signal to the end, or -1
    int status;       // exit status, or -1
    int signal;       // that ended it, or 0
};

static int64_t ms_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration_cast<milliseconds>(to - from).count();
}

// Starts the daemon with SIGTERM blocked, because before main() has blocked it the signal ends any process by itself.
static StopRun stop_after(PrivateRoot &root, milliseconds delay)
{
    Process celmuxd = root.start({"celmuxd"}, {}, SIGTERM);
    std::this_thread::sleep_for(delay); // the moment of the signal is what this is about
    Clock::time_point sent = Clock::now();
    celmuxd.signal(SIGTERM);
    std::optional<ExitStatus> status = celmuxd.wait_exit();
    if (!status) {
        return {delay.count(), -1, -1, 0};
    }
    return {delay.count(), ms_between(sent, status->ended), status->code, status->signal};
}

static std::optional<Modem> modem_for(PrivateRoot &root, Port port)
{
    ModemOptions options;
    options.latency_ms = 5;
    if (port == Port::ABSENT) {
        return std::nullopt;
    }
    if (port == Port::SILENT) {
        options.profile = SOURCE_DIR "/modemsim/profiles/silent.json";
    }
    if (port == Port::FLOODING) {
        root.write_file("/tmp/flooding.json", R"({"events": [{"every_ms": 10, "do": "flood", "lines": 200}]})");
        options.profile = root.path("/tmp/flooding.json");
    }
    return std::make_optional<Modem>(root, options);
}

static void run_stops(Port port, unsigned seed, int count, std::vector<StopRun> *runs)
{
    PrivateRoot root;
    Process broker = root.start({"ubusd"});
    std::optional<Modem> modem = modem_for(root, port);
    std::mt19937 random(seed + static_cast<unsigned>(port));
    std::uniform_int_distribution<int64_t> moments(0, latest_stop.count());
    for (int i = 0; i < count; i++) {
        root.remove("/tmp/celmuxd_init"); // each is the first start since boot
        runs->push_back(stop_after(root, milliseconds(moments(random))));
    }
}

static int number_from_environment(const char *name, int otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : atoi(text);
}

// CELMUX_STOP_RUNS and CELMUX_STOP_SEED for more, or for others.
TEST(DaemonStop, EndsAtAnyMoment)
{
    const int total = number_from_environment("CELMUX_STOP_RUNS", 30);
    const unsigned seed = static_cast<unsigned>(number_from_environment("CELMUX_STOP_SEED", 1));
    std::vector<StopRun> runs[std::size(ports)];
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::size(ports); i++) {
        int count = total / 4 + (static_cast<int>(i) < total % 4 ? 1 : 0);
        threads.emplace_back(run_stops, ports[i], seed, count, &runs[i]);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    size_t done = 0;
    for (size_t i = 0; i < std::size(ports); i++) {
        int64_t longest = 0;
        int64_t sum = 0;
        for (const StopRun &run : runs[i]) {
            EXPECT_EQ(run.status, 0) << port_names[i] << " modem, SIGTERM after " << run.after_ms << " ms, signal "
                                     << run.signal;
            EXPECT_GE(run.took_ms, 0) << port_names[i] << " modem, SIGTERM after " << run.after_ms << " ms: no end";
            EXPECT_LE(run.took_ms, stop_limit.count())
                << port_names[i] << " modem, SIGTERM after " << run.after_ms << " ms";
            longest = std::max(longest, run.took_ms);
            sum += run.took_ms;
        }
        done += runs[i].size();
        printf("modem %-8s %3zu runs, time to end: mean %lld ms, longest %lld ms\n", port_names[i], runs[i].size(),
               static_cast<long long>(sum / std::max<int64_t>(1, static_cast<int64_t>(runs[i].size()))),
               static_cast<long long>(longest));
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
    Process caller =
        root.start({"ubus", "call", "celmux", "at_passthrough", R"({"at": "AT+CSQ", "timeout_ms": 60000})"});
    ASSERT_TRUE(wait_for([&] { return daemon.modem().record().find("AT+CSQ") != std::string::npos; }));
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
