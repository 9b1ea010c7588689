// From the daemon's exec to its object on the bus, and how much of that is the modem's.

#include <fmt/format.h>

#include "bare_port.h"
#include "caller.h"
#include "measurements.h"
#include "rig.h"
#include "spread.h"

using nlohmann::json;

struct Start {
    double ms;
    std::vector<std::string> commands; // that were sent until then
};

static Start start_once(Rig &rig)
{
    Caller caller(rig.socket());
    size_t before = rig.record_size();
    Process daemon = rig.root().start({"celmuxd"});
    Clock::time_point begin = Clock::now(); // start() returns when the program begins
    if (!wait_for([&] { return caller.object_present(); }))
        throw std::runtime_error("no object on the bus");
    Start start = {ms_since(begin), rig.commands_since(before)};
    // The scan's answer is waited for by nobody; let it come before the daemon goes.
    if (!wait_for([&] { return caller.succeeds("get_imei"); }))
        throw std::runtime_error("the daemon answers no query");
    (void)daemon.stop();
    return start;
}

// The time that the modem alone takes for the same commands.
static double modem_time(Rig &rig, const std::vector<std::string> &commands)
{
    BarePort port(rig.port());
    Clock::time_point begin = Clock::now();
    for (const std::string &command : commands) {
        if (command != "AT+COPS=?") // sent, but not waited for
            (void)port.exchange(command);
    }
    return ms_since(begin);
}

void measure_start(const Scale &scale, Report *report)
{
    const int starts = scale.of(30, 4);
    constexpr double limit_ms = 1500;
    Table table = {6,
                   fmt::format("exec to object on the bus, ms of {} starts", starts),
                   {{"latency", "modem latency"},
                    {"commands", "commands"},
                    {"median", "median"},
                    {"worst", "longest"},
                    {"modem", "the modem alone"},
                    {"beyond", "beyond the modem"}},
                   {}};
    for (int latency_ms : {0, 50}) {
        Rig rig(latency_ms);
        rig.stop_daemon();
        std::vector<double> times, modem_times;
        size_t commands = 0;
        for (int i = 0; i < starts; i++) {
            Start start = start_once(rig);
            times.push_back(start.ms);
            modem_times.push_back(modem_time(rig, start.commands));
            commands = start.commands.size();
        }
        double median = spread_of(times).median, modem = spread_of(modem_times).median;
        double worst = spread_of(times).p999;
        table.rows.push_back({{"latency", latency_ms},
                              {"commands", commands},
                              {"median", median},
                              {"worst", worst},
                              {"modem", modem},
                              {"beyond", median - modem}});
        report->goals.push_back(
            {6, fmt::format("start beyond the modem's own time, longest, modem latency {} ms", latency_ms),
             worst - modem, Bound::at_most, limit_ms, "ms"});
    }
    report->tables.push_back(table);
}
