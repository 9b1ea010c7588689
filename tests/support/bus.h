// Calls of a test over the bus of a private root, by way of the `ubus` tool.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "private_root.h"

struct BusAnswer {
    int status;          // the tool's exit status: the bus status, 255 without a broker, -1 when it took too long
    nlohmann::json data; // the first answer; null when there was none or it was no JSON
    std::vector<nlohmann::json> every; // each answer in order
    std::string text;                  // as printed
    std::string errors;

    // data["result"] as a number, or -1 when there is none.
    int64_t result() const;
};

class Bus {
public:
    explicit Bus(PrivateRoot &root) : root_(root) {}

    // Calls a method of the object `celmux`. `timeout_s` is the caller's own time-out.
    BusAnswer call(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object(),
                   int timeout_s = 30);
    BusAnswer call_object(const std::string &object, const std::string &method,
                          const nlohmann::json &arguments = nlohmann::json::object(), int timeout_s = 30);

    // The tool itself, with any arguments behind "-s SOCKET".
    ShellResult tool(const std::vector<std::string> &arguments, std::chrono::milliseconds limit = patience);

    bool has_object(const std::string &object);
    bool wait_for_object(const std::string &object, std::chrono::milliseconds limit = patience);

private:
    PrivateRoot &root_;
};
