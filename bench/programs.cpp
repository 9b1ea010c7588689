// Measurements of single units, made by programs of their own.

#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <stdexcept>

#include "measurements.h"
#include "process.h"

using nlohmann::json;

// What the program printed from the first line on that begins as JSON does: the daemon's own lines may stand before.
static json output_of(const std::vector<std::string> &argv)
{
    constexpr std::chrono::minutes limit(15);
    ProcessOptions options;
    options.output_path = argv.at(0) + ".out";
    options.error_path = argv.at(0) + ".err";
    Process process = Process::start(argv, options);
    std::optional<ExitStatus> status = process.wait_exit(limit);
    std::string text = "\n" + process.output();
    json output =
        json::parse(text.substr(std::min({text.find("\n[{"), text.find("\n{"), text.size()})), nullptr, false);
    if (!status || status->code != 0 || output.is_discarded())
        throw std::runtime_error(argv[0] + " failed: " + process.errors());
    return output;
}

void measure_store(const Scale &, Report *report)
{
    Table table = {7,
                   "the message store on a file, us, best of several; messages of 140 characters",
                   {{"messages", "messages"},
                    {"add", "add", 1},
                    {"append", "add and save", 1},
                    {"sync", "of that the disk's sync", 1},
                    {"rewrite", "rewrite the file", 1},
                    {"load", "load", 1},
                    {"list", "list", 1},
                    {"heap", "heap bytes"},
                    {"per_byte", "heap bytes per byte", 2}},
                   output_of({BENCH_FOLDER "/bench_message_store", BENCH_FOLDER})};
    report->tables.push_back(table);
}

void measure_pool_queue(const Scale &scale, Report *report)
{
    std::vector<std::string> argv = {BENCH_FOLDER "/bench_pool_queue", "--benchmark_format=json"};
    if (scale.quick)
        argv.push_back("--benchmark_min_time=0.05");
    std::map<std::string, std::map<std::string, double>> times; // operation and threads: queue: ns
    const json output = output_of(argv);
    for (const json &run : output.at("benchmarks")) {
        // "operation<Queue>/real_time/threads:N"
        std::string name = run.at("name");
        size_t open = name.find('<'), close = name.find('>');
        std::string operation = name.substr(0, open);
        std::string queue = name.substr(open + 1, close - open - 1);
        times[fmt::format("{} {}", operation, run.at("threads").get<int>())][queue] = run.at("real_time");
    }
    Table table = {8,
                   "ns per round, pool queue against a mutex and condition variables",
                   {{"operation", "round"},
                    {"threads", "threads"},
                    {"pool", "pool queue", 1},
                    {"mutex", "mutex", 1},
                    {"ratio", "pool / mutex", 2}},
                   {}};
    for (auto &[what, by_queue] : times) {
        size_t blank = what.find(' ');
        table.rows.push_back({{"operation", what.substr(0, blank)},
                              {"threads", std::stoi(what.substr(blank))},
                              {"pool", by_queue.at("PoolQueueFace")},
                              {"mutex", by_queue.at("MutexQueue")},
                              {"ratio", by_queue.at("PoolQueueFace") / by_queue.at("MutexQueue")}});
    }
    report->tables.push_back(table);
}
