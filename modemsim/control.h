#pragma once

#include "engine.h"

#include <string>
#include <string_view>

namespace modemsim {

/// What one can do to the modem from outside while it runs: the control socket's commands and a profile's events.
class Control {
public:
    explicit Control(Engine &engine) : engine_(engine) {}

    /// Carries out one line: words (with "double quotes"), a JSON array of words, or a JSON object with "do", "args"
    /// and the options. Returns one line of JSON with "ok", and "error" or the command's own members.
    std::string run(std::string_view line);

    /// Takes a profile (README.md) over, before the engine starts. Throws std::invalid_argument with the reason.
    void load_profile(std::string_view text);

    /// Why an event of the profile failed last; empty when none did.
    const std::string &event_error() const;
    bool quit() const;
    /// One line for each command: its usage.
    static std::string usage();

private:
    Engine &engine_;
    std::string event_error_;
    bool quit_ = false;
};

} // namespace modemsim
