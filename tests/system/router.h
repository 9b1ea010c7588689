// A router for scenarios: everything runs in a private root, and the test follows what the modem, the connection
// manager and the bus saw from step to step.
#pragma once

#include <iconv.h>
#include <string>
#include <vector>

#include "daemon.h"

class Router {
public:
    // `profile` is JSON for modemsim (state, troubles, events); `files` are put into the root before anything starts.
    explicit Router(const std::string &profile = "{}",
                    const std::vector<std::pair<std::string, std::string>> &files = {})
        : daemon(root, prepare(root, profile, files))
    {
        if (!daemon.wait_until_calm())
            throw std::runtime_error("the first network scan does not end");
    }

    // Waits for the end of a network scan, during which every call that needs the modem fails.
    bool wait_until_free()
    {
        return wait_for([&] { return daemon.call("get_rssi").data.value("result", 1) != 65537; });
    }

    // The answer as the client sees it, members of the same name included; "status N" without one.
    std::string call(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object())
    {
        BusAnswer answer = daemon.call(method, arguments);
        if (answer.status != 0)
            return "status " + std::to_string(answer.status) + answer.text;
        return answer.text.substr(0, answer.text.find('\n'));
    }
    // The same as JSON.
    nlohmann::json ask(const std::string &method, const nlohmann::json &arguments = nlohmann::json::object())
    {
        return daemon.call(method, arguments).data;
    }

    nlohmann::json modem(const nlohmann::json &command)
    {
        return daemon.modem().control(command.dump());
    }
    nlohmann::json modem_state(const std::string &pointer)
    {
        return daemon.modem().control("state " + pointer).value("state", nlohmann::json());
    }

    // The command lines that the modem got since the last call, without their carriage return.
    std::vector<std::string> commands()
    {
        std::vector<std::string> all;
        for (const std::string &line : split_lines(daemon.modem().record())) {
            std::string bytes = line.substr(line.find(' ', line.find(' ') + 1) + 1);
            all.push_back(bytes.substr(0, bytes.rfind("\\r")));
        }
        return fresh(all, commands_seen_);
    }

    // The datagrams that the connection manager got since the last call; waits for `count` of them.
    std::vector<std::string> datagrams(size_t count)
    {
        (void)wait_for([&] { return daemon.datagrams().size() >= datagrams_seen_ + count; });
        return fresh(daemon.datagrams(), datagrams_seen_);
    }

    // What the init scripts and nvram recorded, once there are `count` lines; some run in the background, in any order.
    std::vector<std::string> script_calls(size_t count)
    {
        std::vector<std::string> calls;
        (void)wait_for([&] {
            calls = split_lines(root.read_file("/tmp/calls.log"));
            return calls.size() >= count;
        });
        return calls;
    }

    // Everything that the daemon printed or logged.
    std::string all_logs()
    {
        std::string text = daemon.celmuxd().output() + daemon.celmuxd().errors();
        for (const std::string &line : root.syslog().lines())
            text += line + "\n";
        return text;
    }

    PrivateRoot root;
    Daemon daemon;

private:
    static DaemonOptions prepare(PrivateRoot &root, const std::string &profile,
                                 const std::vector<std::pair<std::string, std::string>> &files)
    {
        for (const auto &[path, text] : files) {
            root.remove(path); // it may be a link that leads out of the root
            root.write_file(path, text);
        }
        root.write_file("/tmp/profile.json", profile);
        DaemonOptions options;
        options.modem.profile = root.path("/tmp/profile.json");
        return options;
    }
    static std::vector<std::string> fresh(const std::vector<std::string> &all, size_t &seen)
    {
        size_t from = std::min(seen, all.size());
        seen = all.size();
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }

    size_t commands_seen_ = 0;
    size_t datagrams_seen_ = 0;
};

// UTF-8 of a message's bytes as the daemon gives them, by its alphabet. Of the GSM alphabet only what ASCII shares with
// it.
inline std::string message_text(const nlohmann::json &message)
{
    std::string bytes;
    for (int byte : message["message"])
        bytes += static_cast<char>(byte);
    if (message["alphabet"] != "UCS2")
        return bytes;
    std::string text(bytes.size() * 2, '\0');
    char *from = bytes.data(), *to = text.data();
    size_t from_left = bytes.size(), to_left = text.size();
    iconv_t conversion = iconv_open("UTF-8", "UTF-16BE");
    bool good = iconv(conversion, &from, &from_left, &to, &to_left) == 0;
    (void)iconv_close(conversion);
    return good ? text.substr(0, text.size() - to_left) : "(no UTF-16)";
}
