// What has become of every message: sent by the simulated network, handed over and deleted by its SIM, stored by the
// daemon, deleted by a client. Any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct LedgerFigures {
    size_t sent = 0;       // messages, long ones counted once
    size_t parts = 0;      // of them on the SIM
    size_t kept_whole = 0; // found in the store once, whole
    size_t deleted = 0;    // or deleted by a client
    size_t altered = 0;    // a part of it never left the modem unaltered, so nothing can be told
};

class Ledger {
public:
    // The key to put into a message's text, again and again, so that each part shows it.
    std::string next_key();
    // The modem has taken the message as these parts.
    void sent(const std::string &key, const std::string &text, const std::vector<uint64_t> &ids);

    // A client deletes this message of the store, as the bus gives it.
    void deleted_by_client(const nlohmann::json &message);
    // A client deleted everything that was in the store by now.
    void all_deleted_by_client();

    // Compares the modem's history with the daemon's store. Empty, or what is wrong. The store is emptied after that.
    std::string verify(const nlohmann::json &history, const nlohmann::json &stored);

    LedgerFigures figures() const;

private:
    struct Entry {
        std::string text;
        std::vector<uint64_t> ids;
        bool client_deleted = false; // it may be in the store or not
        bool done = false;           // it was there, and its place on the SIM is free: it must not come back
    };

    void find_fillers(const nlohmann::json &history);
    std::string verify_entry(const std::string &key, Entry &entry, const nlohmann::json &history,
                             const std::vector<std::string> &texts);

    mutable std::mutex mutex_; // protects all below
    std::map<std::string, Entry> entries_;
    std::map<uint64_t, std::string> key_of_id_;
    uint64_t next_ = 1;
    size_t history_seen_ = 0;
    uint64_t all_deleted_below_ = 0; // messages with lower numbers may have been deleted before sent() told of them
    bool fillers_deleted_ = false;   // the same of those that `fill` made
    LedgerFigures figures_;
};
