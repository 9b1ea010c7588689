// Measures what the daemon costs, prints it and writes it as JSON; `bench/run` builds and starts this.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

#include "measurements.h"
#include "process.h"

using nlohmann::json;

static constexpr const char *page_path = SOURCE_FOLDER "/docs/performance.md";

struct Measurement {
    std::vector<int> numbers;
    const char *what;
    void (*measure)(const Scale &, Report *);
};

static const Measurement measurements[] = {
    {{1, 2}, "queries", measure_queries},
    {{3}, "incoming messages", measure_messages},
    {{4}, "idle", measure_idle},
    {{5}, "memory", measure_memory},
    {{6}, "start", measure_start},
    {{7}, "message store", measure_store},
    {{8}, "pool queue", measure_pool_queue},
    {{9}, "waiting calls", measure_waiting_calls},
};

static void write_file(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::trunc | std::ios::binary);
    file << text;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

static void measure(const Scale &scale, const std::vector<int> &only, const std::string &output)
{
    Report report;
    report.quick = scale.quick;
    report.machine = describe_machine(BENCH_FOLDER);
    for (const Measurement &measurement : measurements) {
        bool wanted = only.empty() || std::any_of(only.begin(), only.end(), [&](int number) {
                          return std::count(measurement.numbers.begin(), measurement.numbers.end(), number) > 0;
                      });
        if (!wanted)
            continue;
        fmt::print(stderr, "measuring {}\n", measurement.what);
        size_t before = report.tables.size();
        measurement.measure(scale, &report);
        for (size_t i = before; i < report.tables.size(); i++)
            fmt::print("{}", as_text(report.tables[i]));
        std::fflush(stdout);
    }
    std::stable_sort(report.goals.begin(), report.goals.end(),
                     [](const Goal &a, const Goal &b) { return a.number < b.number; });
    fmt::print("{}", as_text(report.goals));
    write_file(output, to_json(report).dump(2) + "\n");
    fmt::print("\n{}written to {}\n", scale.quick ? "For trying only: too few samples for figures. " : "", output);
}

static void write_page(const std::string &results)
{
    json parsed = json::parse(read_whole_file(results), nullptr, false);
    if (parsed.is_discarded())
        throw std::runtime_error("no results in " + results);
    Report report = report_from_json(parsed);
    if (report.quick)
        throw std::runtime_error("figures of a quick run do not go into the page");
    write_file(page_path, with_figures(read_whole_file(page_path), report));
    fmt::print("figures written to {}\n", page_path);
}

int main(int argc, char **argv)
try {
    Scale scale = {};
    std::vector<int> only;
    std::string output = BENCH_FOLDER "/results.json";
    bool into_page = false;
    CLI::App app{
        "Builds the release and measures it: (1) queries against the bare exchange, (2) queries per second, (3) incoming "
        "messages,\n(4) idle, (5) memory, (6) start, (7) the message store, (8) the pool queue, (9) calls while\nothers wait. A whole run takes half an "
        "hour.\nbench/run --build FOLDER ... builds in another folder than build/.",
        "bench/run"};
    app.add_flag("--quick", scale.quick, "Few samples, to try it");
    app.add_option("--only", only, "Measurements by number")->delimiter(',')->check(CLI::Range(1, 9));
    app.add_option("--output", output, "The results as JSON")->capture_default_str();
    app.add_flag("--write-docs", into_page,
                 "Measures nothing: puts the results of the last whole run into docs/performance.md");
    CLI11_PARSE(app, argc, argv);
    if (into_page)
        write_page(output);
    else
        measure(scale, only, output);
    return 0;
} catch (const std::exception &error) {
    fmt::print(stderr, "bench: {}\n", error.what());
    return 1;
}
