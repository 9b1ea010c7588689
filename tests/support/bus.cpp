#include "bus.h"

// Seen from the root's folder, so that the path's length does not matter.
static constexpr const char *socket_path = "var/run/ubus/ubus.sock";

int64_t BusAnswer::result() const
{
    auto found = data.is_object() ? data.find("result") : data.end();
    return data.is_object() && found != data.end() && found->is_number_integer() ? found->get<int64_t>() : -1;
}

ShellResult Bus::tool(const std::vector<std::string> &arguments, std::chrono::milliseconds limit)
{
    std::vector<std::string> all = {"-s", socket_path};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return root_.host_program("ubus", all, limit);
}

BusAnswer Bus::call(const std::string &method, const nlohmann::json &arguments, int timeout_s)
{
    return call_object("celmux", method, arguments, timeout_s);
}

BusAnswer Bus::call_object(const std::string &object, const std::string &method, const nlohmann::json &arguments,
                           int timeout_s)
{
    std::chrono::milliseconds limit = patience + std::chrono::seconds(timeout_s);
    // Bytes that are no UTF-8 are for tests that call tool() themselves.
    ShellResult run = tool({"-t", std::to_string(timeout_s), "-S", "call", object, method, arguments.dump()}, limit);
    BusAnswer answer = {run.status, nullptr, {}, run.output, run.errors};
    for (const std::string &line : split_lines(run.output)) {
        nlohmann::json value = nlohmann::json::parse(line, nullptr, false);
        answer.every.push_back(value.is_discarded() ? nlohmann::json() : value);
    }
    if (!answer.every.empty()) {
        answer.data = answer.every.front();
    }
    return answer;
}

bool Bus::has_object(const std::string &object)
{
    return tool({"list", object}).status == 0;
}

bool Bus::wait_for_object(const std::string &object, std::chrono::milliseconds limit)
{
    return wait_for([&] { return has_object(object); }, limit);
}
