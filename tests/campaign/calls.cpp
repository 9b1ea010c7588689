#include "calls.h"

#include <algorithm>
#include <stdexcept>

#include "random_arguments.h"
#include "wait_for.h"

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
constexpr MethodLimit limits[] = {
    {"get_signal_quality", 4, 3000, 0},          {"set_network_mode", 2, 3000, 0},
    {"set_pcm_loopback_state", 2, 3000, 500},    {"set_default_apn", 2, 3000, 1000 + shell_ms},
    {"select_profile", 2, 3000, shell_ms},       {"wanmd_enable", 6, 6000, 6 * 500 + shell_ms},
    {"wanmd_disable", 0, 0, shell_ms},           {"set_autoconnect", 0, 0, shell_ms},
    {"get_all_messages", 0, 0, 0},               {"get_message", 0, 0, 0},
    {"read_message", 0, 0, 0},                   {"read_messages", 0, 0, 0},
    {"delete_message", 0, 0, 0},                 {"delete_messages", 0, 0, 0},
    {"delete_all_messages", 0, 0, 0},            {"get_profile_list", 0, 0, 0},
    {"get_profile", 0, 0, 0},                    {"add_profile", 0, 0, 0},
    {"modify_profile", 0, 0, 0},                 {"delete_profile", 0, 0, 0},
    {"get_autoconnect", 0, 0, 0},                {"scan_network", 1, 3000, 0},
};

// An exchange waits for its turn (the supervisor talks to the modem as well) and then for the answer, each for the
// time-out at most. The sending of a message has three answers: prompt, number, final result.
int64_t limit_of(const std::string &method, const json &arguments)
{
    constexpr int64_t usual_ms = 2 * 3000;
    constexpr int64_t part_ms = 10000 + 3 * 10000;
    constexpr size_t part_bytes = 60; // at least
    if (method == "send_message") {
        std::string content = arguments.contains("content") && arguments["content"].is_string() ? arguments["content"] : "";
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

void CallAccount::answered(const std::string &method, const json &arguments, const CallOutcome &outcome,
                           steady_clock::time_point begin, int64_t limit_ms)
{
    std::lock_guard lock(mutex_);
    steady_clock::time_point now = steady_clock::now();
    int64_t served_ms = duration_cast<milliseconds>(now - std::max(begin, last_answer_)).count();
    last_answer_ = now;
    figures_.calls++;
    figures_.longest_waited_ms =
        std::max<int64_t>(figures_.longest_waited_ms, duration_cast<milliseconds>(now - begin).count());
    if (served_ms > figures_.longest_served_ms) {
        figures_.longest_served_ms = served_ms;
        figures_.longest_served = method;
    }
    std::string call = method + " " + arguments.dump();
    if (served_ms > limit_ms + slack_ms_)
        faults_ += call + " took " + std::to_string(served_ms) + " ms, at most " + std::to_string(limit_ms) + "\n";
    if (outcome.status == UBUS_STATUS_INVALID_ARGUMENT) {
        figures_.by_outcome["refused arguments"]++;
    } else if (outcome.status != UBUS_STATUS_OK) {
        figures_.by_outcome["status " + std::to_string(outcome.status)]++;
        faults_ += call + " gave status " + std::to_string(outcome.status) + "\n";
    } else if (!outcome.data.is_object() || !outcome.data.contains("result")) {
        faults_ += call + " gave no result: " + outcome.data.dump() + "\n";
    } else {
        int64_t result = outcome.result();
        figures_.by_outcome["result " + std::to_string(result)]++;
    }
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
    : socket_(socket), ledger_(ledger), account_(account)
{
    constexpr size_t method_count = 68;
    methods_ = BusClient(socket).methods();
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

void Clients::run(int number, uint64_t seed)
{
    constexpr int64_t pause_ms = 25;
    Random random(seed * 1000 + static_cast<uint64_t>(number));
    BusClient client(socket_);
    while (!ending_) {
        busy_++;
        if (going_)
            call(client, random);
        busy_--;
        std::this_thread::sleep_for(milliseconds(random.between(0, pause_ms)));
    }
}

CallOutcome Clients::account_call(BusClient &client, const std::string &method, const json &arguments)
{
    // Longer than all the others' calls can take before this one.
    constexpr milliseconds longest{count * 200000};
    steady_clock::time_point begin = steady_clock::now();
    CallOutcome outcome = client.call(method, arguments, longest);
    account_.answered(method, arguments, outcome, begin, limit_of(method, arguments));
    return outcome;
}

// New messages only come behind the others, so what was read at an index is what is deleted there.
void Clients::delete_known(BusClient &client, Random &random, const std::string &method)
{
    constexpr int64_t highest = 12;
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
    for (const json &index : indexes)
        ledger_.deleted_by_client(account_call(client, "get_message", {{"index", index}}).data);
    account_call(client, method,
                 method == "delete_message" ? json{{"index", indexes[0]}} : json{{"index_list", indexes}});
}

void Clients::call(BusClient &client, Random &random)
{
    constexpr int bad_per_mille = 150;
    const std::string &method = random.pick(names_);
    bool bad = random.chance(bad_per_mille);
    bool deletes = method.starts_with("delete_") && method.find("message") != std::string::npos;
    if (deletes && (!bad || method == "delete_all_messages")) {
        delete_known(client, random, method);
        return;
    }
    json arguments = bad ? bad_arguments(random, method, methods_.at(method))
                         : good_arguments(random, method, methods_.at(method));
    account_call(client, method, arguments);
}
