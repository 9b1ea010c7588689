// Clients that call all methods with random arguments, and the account of their calls.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bus_client.h"
#include "ledger.h"
#include "random.h"

// The daemon serves one call at a time. So the time that a call took beyond queueing is that since it was made or, if
// later, since the call that was answered before it.
struct CallFigures {
    std::map<std::string, uint64_t> by_outcome;
    uint64_t calls = 0;
    int64_t longest_served_ms = 0; // beyond queueing
    std::string longest_served;
    int64_t longest_waited_ms = 0; // with queueing
};

class CallAccount {
public:
    explicit CallAccount(int64_t slack_ms) : slack_ms_(slack_ms) {}

    // A call that was made at `begin` has been answered now.
    void answered(const std::string &method, const nlohmann::json &arguments, const CallOutcome &outcome,
                  std::chrono::steady_clock::time_point begin, int64_t limit_ms);
    // From now on calls may fail: the daemon is being stopped.
    void forgive(bool all);
    // What was wrong so far.
    std::string faults() const;
    CallFigures figures() const;

private:
    // A call that seems to have taken too long. Two answers that come together may be seen in the wrong order: then the
    // next one, whose call was made before, explains the time.
    struct Suspect {
        std::string fault;
        std::chrono::steady_clock::time_point answered;
        int64_t served_ms;
        int64_t limit_ms;
    };
    void judge(const std::string &call, std::chrono::steady_clock::time_point begin,
               std::chrono::steady_clock::time_point now, int64_t limit_ms);
    void count(const std::string &call, const CallOutcome &outcome);

    int64_t slack_ms_;
    mutable std::mutex mutex_; // protects all below
    std::chrono::steady_clock::time_point last_answer_;
    CallFigures figures_;
    std::string faults_;
    std::optional<Suspect> suspect_;
    bool forgiving_ = false;
};

// How long the daemon may take for a call of this method beyond queueing.
int64_t limit_of(const std::string &method, const nlohmann::json &arguments);

class Clients {
public:
    static constexpr int count = 4;

    Clients(const std::string &socket, uint64_t seed, Ledger &ledger, CallAccount &account);
    ~Clients();

    // The clients call on until pause(), which returns once each has got its last answer.
    void resume();
    void pause();
    // How long a client waits for an answer; as long as all the others' calls can take, at first.
    void set_patience(std::chrono::milliseconds limit);

private:
    void run(int number, uint64_t seed);
    void call(BusClient &client, Random &random);
    void delete_known(BusClient &client, Random &random, const std::string &method);
    CallOutcome account_call(BusClient &client, const std::string &method, const nlohmann::json &arguments);

    std::string socket_;
    Ledger &ledger_;
    CallAccount &account_;
    std::map<std::string, std::map<std::string, int>> methods_;
    std::vector<std::string> names_;
    std::mutex deleting_; // one deletion at a time: what stands at an index is known then
    std::atomic<bool> going_ = false;
    std::atomic<bool> ending_ = false;
    std::atomic<int> busy_ = 0;
    std::atomic<int64_t> patience_ms_;
    std::vector<std::thread> threads_;
};
