// A simulated modem in a private root.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "private_root.h"

struct ModemOptions {
    std::string link = "/dev/ttyMODEM";
    int latency_ms = -1;            // -1: the profile's
    std::string profile;            // JSON file on the host; empty: the modem's default behaviour
    std::vector<std::string> extra; // further arguments of modemsim
};

class Modem {
public:
    // Starts modemsim and waits until its port is there; throws std::runtime_error when it does not come.
    explicit Modem(PrivateRoot &root, const ModemOptions &options = {});

    // Sends one line to the control socket. Returns the answer, an object with "ok"; null when there was none in time.
    nlohmann::json control(const std::string &line, std::chrono::milliseconds limit = patience);

    // What the modem received and sent, as modemsim recorded it.
    std::string record() const;

    Process &process()
    {
        return process_;
    }

private:
    PrivateRoot &root_;
    Process process_;
};
