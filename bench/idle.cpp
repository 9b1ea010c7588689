// What the daemon does when nothing happens.

#include <fmt/format.h>
#include <functional>
#include <thread>

#include "caller.h"
#include "measurements.h"
#include "process_figures.h"
#include "rig.h"
#include "spread.h"

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Quiet {
    double wakeups_per_second;
    double processor_ms_per_hour;
    double ticks;
};

static Quiet watch(Rig &rig, const std::function<void()> &pass_time)
{
    Activity before = activity_of(rig.pid());
    Clock::time_point begin = Clock::now();
    pass_time();
    double elapsed_s = ms_since(begin) / 1000;
    Activity after = activity_of(rig.pid());
    constexpr double seconds_per_hour = 3600, ns_per_ms = 1e6;
    double processor_ms = static_cast<double>(after.processor_ns - before.processor_ns) / ns_per_ms;
    return {static_cast<double>(after.wakeups - before.wakeups) / elapsed_s,
            processor_ms / elapsed_s * seconds_per_hour, static_cast<double>(after.ticks - before.ticks)};
}

static json row_of(const char *what, const Quiet &quiet)
{
    return {{"what", what},
            {"wakeups", quiet.wakeups_per_second},
            {"processor", quiet.processor_ms_per_hour},
            {"share", quiet.processor_ms_per_hour / 3600e3 * 100},
            {"ticks", quiet.ticks}};
}

void measure_idle(const Scale &scale, Report *report)
{
    const int duration_s = scale.of(120, 12);
    constexpr int settling_s = 2, query_every_s = 10;
    Rig rig(0);
    std::this_thread::sleep_for(seconds(settling_s)); // what the start left to do is over
    Quiet idle = watch(rig, [&] { std::this_thread::sleep_for(seconds(duration_s)); });
    Caller caller(rig.socket());
    Quiet queried = watch(rig, [&] {
        for (int passed = 0; passed < duration_s; passed += query_every_s) {
            caller.time_call("get_signal_quality");
            std::this_thread::sleep_for(seconds(std::min(query_every_s, duration_s - passed)));
        }
    });
    report->tables.push_back({4,
                              fmt::format("the daemon left alone for {} s", duration_s),
                              {{"what", "what"},
                               {"wakeups", "wake-ups per second", 2},
                               {"processor", "processor ms per hour", 1},
                               {"share", "% of one processor", 5},
                               {"ticks", "clock ticks in all", 0}},
                              {row_of("idle", idle), row_of("a query every 10 s", queried)}});
    report->goals.push_back({4, "wake-ups when idle", idle.wakeups_per_second, Bound::at_most, 1, "per second"});
    report->goals.push_back(
        {4, "processor time when idle, as the kernel's clock counts it", idle.ticks, Bound::at_most, 0, "ticks"});
}
