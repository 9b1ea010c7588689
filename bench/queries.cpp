// What a query costs against the bare exchange and against a call that needs no modem, and how many there are in a
// second.

#include <fmt/format.h>
#include <future>
#include <latch>
#include <map>

#include "bare_port.h"
#include "caller.h"
#include "measurements.h"
#include "rig.h"
#include "spread.h"

using nlohmann::json;

static constexpr const char *no_modem_method = "get_autoconnect";
static constexpr const char *query_methods[] = {"get_imei", "get_signal_quality"};

struct Series {
    Spread spread;
    double per_second;
};

static Series call_series(const Rig &rig, const char *method, int clients, int calls)
{
    std::latch ready(clients + 1);
    auto one_client = [&] {
        Caller caller(rig.socket());
        bool present = caller.object_present();
        ready.arrive_and_wait();
        std::vector<double> times;
        for (int i = 0; present && i < calls / clients; i++)
            times.push_back(caller.time_call(method));
        return times;
    };
    std::vector<std::future<std::vector<double>>> running;
    for (int i = 0; i < clients; i++)
        running.push_back(std::async(std::launch::async, one_client));
    ready.arrive_and_wait();
    Clock::time_point begin = Clock::now();
    std::vector<double> all;
    for (auto &client : running) {
        std::vector<double> times = client.get();
        all.insert(all.end(), times.begin(), times.end());
    }
    double elapsed_s = ms_since(begin) / 1000;
    return {spread_of(all), static_cast<double>(all.size()) / elapsed_s};
}

// What one call of the method makes the daemon send. Other threads may send something in between, but not twice.
static std::vector<std::string> commands_of(Rig &rig, const char *method)
{
    Caller caller(rig.socket());
    std::vector<std::string> commands, before;
    do {
        before = commands;
        size_t record_size = rig.record_size();
        caller.time_call(method);
        commands = rig.commands_since(record_size);
    } while (commands != before);
    return commands;
}

static Series bare_series(BarePort &port, const std::vector<std::string> &commands, int rounds)
{
    std::vector<double> times;
    Clock::time_point all = Clock::now();
    for (int i = 0; i < rounds; i++) {
        Clock::time_point begin = Clock::now();
        for (const std::string &command : commands)
            (void)port.exchange(command);
        times.push_back(ms_since(begin));
    }
    return {spread_of(times), rounds / (ms_since(all) / 1000)};
}

static json latency_row(int latency_ms, int clients, const std::string &what, const Series &series)
{
    return {{"latency", latency_ms},          {"clients", clients},       {"what", what},
            {"median", series.spread.median}, {"p99", series.spread.p99}, {"p999", series.spread.p999}};
}

struct Tables {
    Table latency;
    Table rate;
};

static void judge_query(Report *report, int latency_ms, const char *method, double median, double bare, double bus)
{
    constexpr double allowance_ms = 1.5;
    report->goals.push_back({1, fmt::format("median of {}, modem latency {} ms", method, latency_ms), median,
                             Bound::at_most, bare + 2 * bus + allowance_ms, "ms"});
}

static void judge_rate(Report *report, const char *method, int clients, double per_second)
{
    constexpr double least = 300;
    report->goals.push_back(
        {2, fmt::format("{} with {} client{}, modem latency 0", method, clients, clients > 1 ? "s" : ""), per_second,
         Bound::at_least, least, "calls/s"});
}

static void add_rate(Tables *tables, int latency_ms, int clients, const std::string &what, double per_second,
                     double bare_per_second)
{
    json row = {{"latency", latency_ms}, {"clients", clients}, {"what", what}, {"per_second", per_second}};
    if (bare_per_second > 0)
        row["ratio"] = per_second / bare_per_second;
    tables->rate.rows.push_back(row);
}

static void measure_at(int latency_ms, int calls, Tables *tables, Report *report)
{
    Rig rig(latency_ms);
    std::map<std::string, Series> bare;
    std::map<std::string, std::vector<std::string>> commands;
    for (const char *method : query_methods)
        commands[method] = commands_of(rig, method);
    rig.stop_daemon();
    {
        BarePort port(rig.port());
        for (const char *method : query_methods) {
            bare[method] = bare_series(port, commands[method], calls);
            std::string what = fmt::format("bare {}", fmt::join(commands[method], ", "));
            json row = latency_row(latency_ms, 1, what, bare[method]);
            row["ratio"] = 1;
            tables->latency.rows.push_back(row);
            add_rate(tables, latency_ms, 1, what, bare[method].per_second, bare[method].per_second);
        }
    }
    rig.start_daemon();
    for (int clients : {1, 4, 16}) {
        Series bus = call_series(rig, no_modem_method, clients, calls);
        tables->latency.rows.push_back(latency_row(latency_ms, clients, no_modem_method, bus));
        if (clients != 4)
            add_rate(tables, latency_ms, clients, no_modem_method, bus.per_second, 0);
        for (const char *method : query_methods) {
            Series query = call_series(rig, method, clients, calls);
            rig.forget_logs();
            json row = latency_row(latency_ms, clients, method, query);
            // Exchanges are made one at a time, so a call waits for those of all the other clients.
            row["ratio"] = query.spread.median / (clients * bare[method].spread.median);
            if (clients == 1) {
                row["added"] = query.spread.median - bare[method].spread.median;
                row["added_bus"] = (query.spread.median - bare[method].spread.median) / bus.spread.median;
                judge_query(report, latency_ms, method, query.spread.median, bare[method].spread.median,
                            bus.spread.median);
            }
            tables->latency.rows.push_back(row);
            if (clients == 4)
                continue;
            add_rate(tables, latency_ms, clients, method, query.per_second, bare[method].per_second);
            if (latency_ms == 0)
                judge_rate(report, method, clients, query.per_second);
        }
    }
}

// How much of a query is the silence that the daemon waits for behind an answer.
static void measure_without_gap(int calls, Tables *tables)
{
    Rig rig(0, 0);
    Series query = call_series(rig, query_methods[0], 1, calls);
    tables->latency.rows.push_back(latency_row(0, 1, fmt::format("{}, burst_gap_ms 0", query_methods[0]), query));
}

void measure_queries(const Scale &scale, Report *report)
{
    const int calls = scale.of(2000, 320);
    Tables tables = {
        {1,
         fmt::format(
             "one query, times in ms of {} calls; × bare: the median against as many bare exchanges "
             "as there are clients; added: the median beyond the bare exchange, in ms and in bus calls that need no modem",
             calls),
         {{"latency", "modem latency"},
          {"clients", "clients"},
          {"what", "what"},
          {"median", "median", 3},
          {"p99", "p99", 3},
          {"p999", "p99.9", 3},
          {"ratio", "× bare", 2},
          {"added", "added", 3},
          {"added_bus", "added, bus calls", 1}},
         {}},
        {2,
         "calls per second, and as a share of the bare exchanges per second",
         {{"latency", "modem latency"},
          {"clients", "clients"},
          {"what", "what"},
          {"per_second", "per second", 1},
          {"ratio", "of bare", 2}},
         {}}};
    for (int latency_ms : {0, 5, 50})
        measure_at(latency_ms, scale.quick && latency_ms == 50 ? calls / 10 : calls, &tables, report);
    measure_without_gap(calls, &tables);
    report->tables.push_back(tables.latency);
    report->tables.push_back(tables.rate);
}
