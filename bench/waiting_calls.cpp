// What a call that needs no modem takes while others wait for the modem, and what those who ask the same at once wait.

#include <fmt/format.h>
#include <future>
#include <latch>

#include "caller.h"
#include "measurements.h"
#include "rig.h"
#include "spread.h"

using nlohmann::json;

static constexpr const char *quick_methods[] = {"get_autoconnect", "get_all_messages", "get_profile_list"};
static constexpr int latency_ms = 50;
static constexpr int messages = 10;
static constexpr int many_clients = 16;

static void must(bool done, const char *what)
{
    if (!done)
        throw std::runtime_error(what);
}

// Clients that ask the modem without pause for as long as this lives.
class Crowd {
public:
    explicit Crowd(const Rig &rig)
    {
        for (int i = 0; i < many_clients; i++)
            threads_.push_back(std::async(std::launch::async, [this, socket = rig.socket()] {
                Caller caller(socket);
                while (!ending_)
                    (void)caller.succeeds("get_imei");
            }));
    }
    ~Crowd()
    {
        ending_ = true;
    }
    Crowd(const Crowd &) = delete;
    Crowd &operator=(const Crowd &) = delete;

private:
    std::atomic<bool> ending_ = false;
    std::vector<std::future<void>> threads_; // their end is waited for
};

// Times of each method's calls, taken in turn; fewer when they take too long.
static std::vector<Spread> spreads(const Rig &rig, int calls)
{
    constexpr double limit_ms = 10000;
    Caller caller(rig.socket());
    std::vector<std::vector<double>> times(std::size(quick_methods));
    Clock::time_point begin = Clock::now();
    for (int i = 0; i < calls && ms_since(begin) < limit_ms; i++) {
        for (size_t method = 0; method < std::size(quick_methods); method++)
            times[method].push_back(caller.time_call(quick_methods[method]));
    }
    std::vector<Spread> all;
    for (const std::vector<double> &series : times)
        all.push_back(spread_of(series));
    return all;
}

static void measure_quick_calls(int calls, Table *table, Report *report)
{
    constexpr double most_ms = 5, most_times = 2;
    Rig rig(latency_ms);
    for (int i = 0; i < messages; i++)
        must(rig.modem()
                 .control(fmt::format("sms +49170{:07d} \"a message of some length, as they are\"", i))
                 .value("ok", false),
             "the simulated modem takes no message");
    must(wait_for([&] { return rig.deleted_messages() == messages; }), "the messages do not come");
    std::vector<Spread> idle;
    auto add = [&](const char *situation) {
        std::vector<Spread> now = spreads(rig, calls);
        if (idle.empty())
            idle = now;
        for (size_t i = 0; i < now.size(); i++) {
            table->rows.push_back({{"situation", situation},
                                   {"what", quick_methods[i]},
                                   {"median", now[i].median},
                                   {"p99", now[i].p99},
                                   {"ratio", now[i].p99 / idle[i].p99}});
            report->goals.push_back({9, fmt::format("99th percentile of {}, {}", quick_methods[i], situation),
                                     now[i].p99, Bound::at_most, std::min(most_ms, most_times * idle[i].p99), "ms"});
        }
    };
    add("modem idle");
    {
        Crowd crowd(rig);
        add("16 clients ask the modem");
    }
    Caller caller(rig.socket());
    must(rig.modem().control(R"(set {"behaviour": {"scan_ms": 15000}})").value("ok", false), "no long scan");
    must(caller.succeeds("scan_network"), "no scan");
    add("a scan runs");
    rig.wait_until_answering();
    must(rig.modem().control("silent 0").value("ok", false), "no silence");
    size_t before = rig.record_size();
    Process held =
        rig.root().start({"ubus", "call", "celmux", "at_passthrough", R"({"at":"AT+SLOW","timeout_ms":20000})"});
    must(wait_for([&] { return !rig.commands_since(before).empty(); }), "no pass-through");
    add("a pass-through waits");
}

static void measure_crowd(int calls, Table *table, Report *report)
{
    Rig rig(latency_ms);
    std::latch ready(many_clients);
    std::vector<std::future<std::vector<double>>> running;
    for (int i = 0; i < many_clients; i++)
        running.push_back(std::async(std::launch::async, [&] {
            Caller caller(rig.socket());
            bool present = caller.object_present();
            ready.arrive_and_wait();
            std::vector<double> times;
            for (int call = 0; present && call < calls; call++)
                times.push_back(caller.time_call("get_imei") / latency_ms);
            return times;
        }));
    std::vector<double> all;
    for (auto &client : running) {
        std::vector<double> times = client.get();
        all.insert(all.end(), times.begin(), times.end());
    }
    Spread spread = spread_of(all);
    table->rows.push_back({{"situation", "16 clients ask get_imei"},
                           {"what", "in modem times"},
                           {"median", spread.median},
                           {"p99", spread.p99}});
    constexpr double goal = 2.3; // two modem times and what the daemon adds to each
    report->goals.push_back(
        {9, "16 clients ask get_imei, 99th percentile", spread.p99, Bound::at_most, goal, "modem times"});
}

void measure_waiting_calls(const Scale &scale, Report *report)
{
    const int calls = scale.of(1000, 200);
    Table table = {
        9,
        fmt::format(
            "calls that need no modem, times in ms of up to {} calls, {} messages stored; modem latency {}; × idle: "
            "the 99th percentile against that while the modem is idle",
            calls, messages, latency_ms),
        {{"situation", "meanwhile"},
         {"what", "what"},
         {"median", "median", 3},
         {"p99", "p99", 3},
         {"ratio", "× idle", 2}},
        {}};
    measure_quick_calls(calls, &table, report);
    measure_crowd(scale.of(100, 20), &table, report);
    report->tables.push_back(table);
}
