#pragma once

#include "modemsim/control.h"
#include "modemsim/engine.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// A simulated modem without a port and without a clock: time passes only where a test says so.
struct Rig {
    std::string out;
    std::vector<std::string> recorded;
    bool present = false;
    modemsim::Engine engine{modemsim::Host{[this](std::string_view bytes) { out += bytes; },
                                           [this](bool here) { present = here; },
                                           [this](int64_t, uint64_t number, std::string_view bytes) {
                                               recorded.push_back(std::to_string(number) + " " + std::string(bytes));
                                           }}};
    modemsim::Control control{engine};

    /// Starts with a JSON patch of the state; echo is off unless the patch says otherwise.
    explicit Rig(const std::string &profile = "{}")
    {
        engine.modem.state.settings.echo = false;
        engine.modem.state.behaviour.sms_send_ms = 0;
        control.load_profile(profile);
        engine.start();
        run(0);
    }

    void run(int64_t ms)
    {
        engine.timers.run_until(engine.timers.now() + ms);
    }

    /// What comes back within `wait_ms` of bytes that are written.
    std::string send(const std::string &bytes, int64_t wait_ms = 0)
    {
        out.clear();
        engine.input(bytes);
        run(wait_ms);
        return out;
    }

    /// Likewise of a command line, which gets its carriage return here.
    std::string at(const std::string &line, int64_t wait_ms = 0)
    {
        return send(line + "\r", wait_ms);
    }

    nlohmann::json ctl(const std::string &line)
    {
        return nlohmann::json::parse(control.run(line));
    }

    nlohmann::json state(const std::string &pointer)
    {
        return ctl("state " + pointer).at("state");
    }
};

/// The usual frame of an answer around its lines and OK.
inline std::string answer(const std::string &lines)
{
    return "\r\n" + lines + "\r\n\r\nOK\r\n";
}

inline const std::string ok = "\r\nOK\r\n";
