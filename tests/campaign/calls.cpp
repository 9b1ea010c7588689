#include "calls.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

#include "random_arguments.h"

extern "C" {
#include <libubus.h>
}

using nlohmann::json;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How many exchanges with the modem a call makes at most, and what it does besides.
struct MethodLimit {
    const char *method;
    int exchanges;
    int64_t answer_ms; // time-out of each
    int64_t more_ms;   // pauses, shell commands
};

constexpr int64_t shell_ms = 2000;
constexpr int64_t disk_ms =
    3000; // syncing a file takes long where others write; another thread's sync may be waited for
constexpr int64_t longest_call_ms = 250000; // a message of as many parts as the clients send
constexpr MethodLimit limits[] = {
    {"get_signal_quality", 4, 3000, 0},
    {"set_network_mode", 2, 3000, 0},
    {"set_pcm_loopback_state", 2, 3000, 500},
    {"set_default_apn", 2, 3000, 1000 + shell_ms + disk_ms},
    {"select_profile", 2, 3000, shell_ms + disk_ms},
    {"wanmd_enable", 6, 6000, 6 * 500 + shell_ms},
    {"wanmd_disable", 0, 0, shell_ms},
    {"set_autoconnect", 0, 0, shell_ms + disk_ms},
    {"get_all_messages", 0, 0, disk_ms},
    {"get_message", 0, 0, disk_ms},
    {"read_message", 0, 0, disk_ms},
    {"read_messages", 0, 0, disk_ms},
    {"delete_message", 0, 0, disk_ms},
    {"delete_messages", 0, 0, disk_ms},
    {"delete_all_messages", 0, 0, disk_ms},
    {"get_profile_list", 0, 0, disk_ms},
    {"get_profile", 0, 0, disk_ms},
    {"add_profile", 0, 0, disk_ms},
    {"modify_profile", 0, 0, disk_ms},
    {"delete_profile", 0, 0, disk_ms},
    {"get_autoconnect", 0, 0, 0},
    {"scan_network", 1, 3000, 0},
};

// An exchange waits for its turn (the supervisor talks to the modem as well) and then for the answer, each for the
// time-out at most. The sending of a message has three answers: prompt, number, final result.
int64_t limit_of(const std::string &method, const json &arguments)
{
    constexpr int64_t usual_ms = 2 * 3000;
    constexpr int64_t part_ms = 10000 + 3 * 10000;
    constexpr size_t part_bytes = 60; // at least
    if (method == "send_message") {
        std::string content =
            arguments.contains("content") && arguments["content"].is_string() ? arguments["content"] : "";
        return part_ms * static_cast<int64_t>(1 + content.size() / part_bytes);
    }
    if (method == "at_passthrough") {
        bool given = arguments.contains("timeout_ms") && arguments["timeout_ms"].is_number_integer();
        return given ? 2 * std::max<int64_t>(arguments["timeout_ms"].get<int64_t>(), 0) : usual_ms;
    }
    for (const MethodLimit &row : limits) {
        if (method == row.method)
            return row.exchanges * 2 * row.answer_ms + row.more_ms;
    }
    return usual_ms;
}

// How long a call may wait for its turn: not at all when it needs no modem.
static int64_t wait_of(const std::string &method, const json &arguments)
{
    constexpr int64_t callers_patience_ms = 30000;
    if (method == "at_passthrough")
        return limit_of(method, arguments) / 2;
    auto row = std::find_if(std::begin(limits), std::end(limits),
                            [&](const MethodLimit &limit) { return method == limit.method; });
    bool needs_modem = row == std::end(limits) || row->exchanges > 0 || method == "wanmd_disable";
    return needs_modem ? callers_patience_ms : 0;
}

void CallAccount::count(const std::string &call, const PipelinedAnswer &outcome)
{
    figures_.calls++;
    if (outcome.status == UBUS_STATUS_INVALID_ARGUMENT) {
        figures_.by_outcome["refused arguments"]++;
    } else if (outcome.status != UBUS_STATUS_OK) {
        figures_.by_outcome["status " + std::to_string(outcome.status)]++;
        faults_ += fmt::format("{} gave status {}\n", call, outcome.status);
    } else if (!outcome.data.is_object() || !outcome.data.contains("result")) {
        faults_ += fmt::format("{} gave no result: {}\n", call, outcome.data.dump());
    } else {
        figures_.by_outcome["result " + std::to_string(outcome.result())]++;
    }
}

void CallAccount::answered(const std::string &method, const json &arguments, const PipelinedAnswer &outcome,
                           steady_clock::time_point begin, int64_t limit_ms)
{
    std::lock_guard lock(mutex_);
    if (forgiving_)
        return;
    steady_clock::time_point now = steady_clock::now();
    std::string call = method + " " + arguments.dump();
    int64_t took_ms = duration_cast<milliseconds>(now - begin).count(), wait_ms = wait_of(method, arguments);
    if (took_ms > wait_ms + limit_ms + slack_ms_)
        faults_ += fmt::format("{} took {} ms, at most {} and {} for its turn\n", call, took_ms, limit_ms, wait_ms);
    count(call, outcome);
    int64_t &longest = wait_ms ? figures_.longest_waited_ms : figures_.longest_quick_ms;
    if (took_ms > longest && !wait_ms)
        figures_.longest_quick = method;
    longest = std::max(longest, took_ms);
}

void CallAccount::died()
{
    std::lock_guard lock(mutex_);
    figures_.died++;
}

void CallAccount::forgive(bool all)
{
    std::lock_guard lock(mutex_);
    forgiving_ = all;
}

std::string CallAccount::faults() const
{
    std::lock_guard lock(mutex_);
    return faults_;
}

CallFigures CallAccount::figures() const
{
    std::lock_guard lock(mutex_);
    return figures_;
}

Clients::Clients(const std::string &socket, uint64_t seed, Ledger &ledger, CallAccount &account)
    : socket_(socket), ledger_(ledger), account_(account), patience_ms_(count * longest_call_ms)
{
    constexpr size_t method_count = 68;
    methods_ = PipelinedCaller(socket).methods();
    for (const auto &[name, arguments] : methods_)
        names_.push_back(name);
    if (names_.size() != method_count)
        throw std::runtime_error("the object has " + std::to_string(names_.size()) + " methods");
    for (int i = 0; i < count; i++)
        threads_.emplace_back([this, i, seed] { run(i, seed); });
}

Clients::~Clients()
{
    ending_ = true;
    for (std::thread &thread : threads_)
        thread.join();
}

void Clients::resume()
{
    going_ = true;
}

void Clients::pause()
{
    going_ = false;
    while (busy_ > 0)
        std::this_thread::sleep_for(milliseconds(2));
}

void Clients::set_patience(milliseconds limit)
{
    patience_ms_ = limit.count();
}

std::unique_lock<std::mutex> Clients::hold_deletions()
{
    return std::unique_lock(deleting_);
}

// What it asked may be waiting, under way or answered when it goes.
void Clients::ask_and_die(Random &random, const std::string &method, const json &arguments)
{
    constexpr int64_t longest_life_ms = 50;
    PipelinedCaller caller(socket_);
    (void)caller.call(method, arguments);
    std::this_thread::sleep_for(milliseconds(random.chance(500) ? 0 : random.between(0, longest_life_ms)));
    account_.died();
}

void Clients::run(int number, uint64_t seed)
{
    constexpr int64_t pause_ms = 25;
    Random random(seed * 1000 + static_cast<uint64_t>(number));
    std::optional<PipelinedCaller> client;
    while (!ending_) {
        busy_++;
        try {
            if (going_ && !client)
                client.emplace(socket_);
            if (going_)
                call(*client, random);
        } catch (const std::runtime_error &) {
            client.reset(); // the broker is being started again
        }
        busy_--;
        std::this_thread::sleep_for(milliseconds(random.between(0, pause_ms)));
    }
}

PipelinedAnswer Clients::account_call(PipelinedCaller &client, const std::string &method, const json &arguments)
{
    steady_clock::time_point begin = steady_clock::now();
    PipelinedAnswer outcome = client.ask(method, arguments, milliseconds(patience_ms_));
    account_.answered(method, arguments, outcome, begin, limit_of(method, arguments));
    if (outcome.status == UBUS_STATUS_CONNECTION_FAILED)
        throw std::runtime_error("the broker has gone");
    return outcome;
}

// New messages only come behind the others, so what was read at an index is what is deleted there.
void Clients::delete_known(PipelinedCaller &client, Random &random, const std::string &method)
{
    constexpr int64_t highest = 12, never_reached = 1000000;
    std::lock_guard lock(deleting_);
    if (method == "delete_all_messages") {
        constexpr int per_mille = 30; // it leaves little to check
        if (random.chance(per_mille)) {
            account_call(client, method, json::object());
            ledger_.all_deleted_by_client();
        }
        return;
    }
    json indexes = json::array();
    for (int64_t i = random.between(1, method == "delete_message" ? 1 : 4); i > 0; i--) {
        int64_t index = random.between(1, highest);
        if (std::find(indexes.begin(), indexes.end(), json(index)) == indexes.end())
            indexes.push_back(index);
    }
    for (json &index : indexes) {
        json message = account_call(client, "get_message", {{"index", index}}).data;
        if (message.is_object() && message.contains("message"))
            ledger_.deleted_by_client(message);
        else
            index = index.get<int64_t>() + never_reached; // by now a message may stand there that nobody has read
    }
    account_call(client, method,
                 method == "delete_message" ? json{{"index", indexes[0]}} : json{{"index_list", indexes}});
}

void Clients::call(PipelinedCaller &client, Random &random)
{
    constexpr int deaths_per_mille = 50;
    constexpr int bad_per_mille = 150;
    constexpr int scans_left_out = 900; // per mille: while a scan runs everything else is refused
    const std::string &method = random.pick(names_);
    if (method == "scan_network" && random.chance(scans_left_out))
        return;
    bool bad = random.chance(bad_per_mille);
    bool deletes = method.starts_with("delete_") && method.find("message") != std::string::npos;
    if (deletes && (!bad || method == "delete_all_messages")) {
        delete_known(client, random, method);
        return;
    }
    json arguments =
        bad ? bad_arguments(random, method, methods_.at(method)) : good_arguments(random, method, methods_.at(method));
    if (!deletes && random.chance(deaths_per_mille))
        ask_and_die(random, method, arguments);
    else
        account_call(client, method, arguments);
}
