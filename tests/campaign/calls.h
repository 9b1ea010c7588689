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

#include "ledger.h"
#include "pipelined_caller.h"
#include "random.h"

// The daemon serves one call at a time. So the time that a call took beyond queueing is that since it was made or, if
// later, since the call that was answered before it.
struct CallFigures {
    std::map<std::string, uint64_t> by_outcome;
    uint64_t calls = 0;
    uint64_t died = 0;            // clients that went without waiting for their answer
    int64_t longest_quick_ms = 0; // of a call that needs no modem
    std::string longest_quick;
    int64_t longest_waited_ms = 0; // of the others, with the wait for its turn
};

class CallAccount {
public:
    explicit CallAccount(int64_t slack_ms) : slack_ms_(slack_ms) {}

    // A call that was made at `begin` has been answered now.
    void answered(const std::string &method, const nlohmann::json &arguments, const PipelinedAnswer &outcome,
                  std::chrono::steady_clock::time_point begin, int64_t limit_ms);
    void died();
    // From now on calls may fail: the daemon is being stopped.
    void forgive(bool all);
    // What was wrong so far.
    std::string faults() const;
    CallFigures figures() const;

private:
    void count(const std::string &call, const PipelinedAnswer &outcome);

    int64_t slack_ms_;
    mutable std::mutex mutex_; // protects all below
    CallFigures figures_;
    std::string faults_;
    bool forgiving_ = false;
};

// How long the daemon may take for a call of this method beyond the wait for its turn.
int64_t limit_of(const std::string &method, const nlohmann::json &arguments);

class Clients {
public:
    static constexpr int count = 4;

    Clients(const std::string &socket, uint64_t seed, Ledger &ledger, CallAccount &account);
    ~Clients();

    // The clients call on until pause(), which returns once each has got its last answer.
    void resume();
    void pause();
    // No message is being deleted while the lock is held: whether it is gone would not be known.
    std::unique_lock<std::mutex> hold_deletions();
    // How long a client waits for an answer; as long as all the others' calls can take, at first.
    void set_patience(std::chrono::milliseconds limit);

private:
    void run(int number, uint64_t seed);
    void call(PipelinedCaller &client, Random &random);
    void ask_and_die(Random &random, const std::string &method, const nlohmann::json &arguments);
    void delete_known(PipelinedCaller &client, Random &random, const std::string &method);
    PipelinedAnswer account_call(PipelinedCaller &client, const std::string &method, const nlohmann::json &arguments);

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
