// What the daemon holds: at start, with messages, after many calls.

#include <fmt/format.h>
#include <future>
#include <thread>

#include "caller.h"
#include "measurements.h"
#include "process_figures.h"
#include "rig.h"

using nlohmann::json;

static json row_of(const std::string &what, const Memory &memory)
{
    return {{"what", what},
            {"private", memory.private_all()},
            {"dirty", memory.private_dirty},
            {"shared", memory.shared},
            {"peak", memory.peak}};
}

// Messages of 160 characters; returns once the daemon has stored them and taken them off the SIM.
static void deliver(Rig &rig, int from, int to)
{
    constexpr size_t length = 160;
    constexpr std::chrono::minutes limit(5);
    for (int i = from; i < to; i++) {
        std::string text = fmt::format("{:05d} {}", i, std::string(length - 6, 'x'));
        if (!rig.modem().control(fmt::format("sms +49170{:07d} \"{}\"", i, text)).value("ok", false))
            throw std::runtime_error("the simulated modem takes no message");
    }
    auto all_deleted = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // to ask costs the modem time
        return rig.deleted_messages() == to;
    };
    if (!wait_for(all_deleted, limit))
        throw std::runtime_error("not all messages were taken off the SIM");
    rig.wait_until_answering();
}

static double user_data_bytes(int messages)
{
    return 160.0 * messages; // as the store holds them, one septet a byte
}

static void measure_with_messages(const Scale &scale, Table *table, Report *report)
{
    const int many = scale.of(1000, 200);
    Rig rig(0);
    Memory start = memory_of(rig.pid());
    table->rows.push_back(row_of("at start", start));
    report->goals.push_back({5, "private memory at start", start.private_all(), Bound::at_most, 500, "kB"});
    for (int from = 0; int count : {100, many}) {
        deliver(rig, from, count);
        from = count;
        Memory memory = memory_of(rig.pid());
        json row = row_of(fmt::format("with {} messages of 160 characters", count), memory);
        row["per_byte"] = (memory.private_dirty - start.private_dirty) * 1024 / user_data_bytes(count);
        table->rows.push_back(row);
    }
    rig.stop_daemon();
    rig.start_daemon();
    Memory loaded = memory_of(rig.pid());
    json row = row_of(fmt::format("started with {} messages", many), loaded);
    row["per_byte"] = (loaded.private_dirty - start.private_dirty) * 1024 / user_data_bytes(many);
    table->rows.push_back(row);
}

static void make_calls(Rig &rig, int calls)
{
    constexpr int clients = 4, at_once = 2000;
    static constexpr const char *methods[] = {"get_imei", "get_signal_quality", "get_autoconnect"};
    for (int done = 0; done < calls; done += at_once) {
        std::vector<std::future<void>> running;
        for (int i = 0; i < clients; i++) {
            running.push_back(std::async(std::launch::async, [&] {
                Caller caller(rig.socket());
                for (int call = 0; call < at_once / clients; call++)
                    caller.time_call(methods[call % 3]);
            }));
        }
        for (auto &client : running)
            client.get();
        rig.forget_logs();
    }
}

static void measure_with_calls(const Scale &scale, Table *table, Report *report)
{
    const int few = scale.of(10000, 2000), many = scale.of(100000, 10000);
    constexpr double flat_kb = 16;
    Rig rig(0);
    make_calls(rig, few);
    Memory early = memory_of(rig.pid());
    table->rows.push_back(row_of(fmt::format("after {} calls", few), early));
    make_calls(rig, many - few);
    Memory late = memory_of(rig.pid());
    table->rows.push_back(row_of(fmt::format("after {} calls", many), late));
    report->goals.push_back({5, fmt::format("growth of private memory outside files from {} to {} calls", few, many),
                             late.private_dirty - early.private_dirty, Bound::at_most, flat_kb, "kB"});
}

void measure_memory(const Scale &scale, Report *report)
{
    Table table = {
        5,
        "memory of the daemon in kB; bytes per byte: memory outside files beyond the start for each byte of user data",
        {{"what", "what"},
         {"private", "private"},
         {"dirty", "of that not in files"},
         {"shared", "shared"},
         {"peak", "peak resident"},
         {"per_byte", "bytes per byte", 2}},
        {}};
    measure_with_messages(scale, &table, report);
    measure_with_calls(scale, &table, report);
    report->tables.push_back(table);
}
