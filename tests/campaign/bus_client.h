// A client of the bus without a process of its own, for many calls a second. One thread each.
#pragma once

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

struct ubus_context;

struct CallOutcome {
    int status; // of the bus, 0 for an answer
    nlohmann::json data;

    int64_t result() const; // the answer's "result", or -1
};

class BusClient {
public:
    // Throws std::runtime_error without a broker at `socket`.
    explicit BusClient(const std::string &socket);
    ~BusClient();
    BusClient(const BusClient &) = delete;
    BusClient &operator=(const BusClient &) = delete;

    // The methods of the object `celmux`, each with its arguments as name and blobmsg type; empty when it is not there.
    std::map<std::string, std::map<std::string, int>> methods();

    // Calls a method of that object. Without the object the status is 4.
    CallOutcome call(const std::string &method, const nlohmann::json &arguments, std::chrono::milliseconds limit);

private:
    ubus_context *context_;
    uint32_t object_ = 0;
};
