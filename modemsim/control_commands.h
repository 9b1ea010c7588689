#pragma once

#include "engine.h"

#include <map>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

/// One control command, taken apart.
struct Request {
    std::vector<std::string> words; ///< without the command's name
    std::map<std::string, std::string> options;

    std::string option(const std::string &name, const std::string &otherwise) const;
    /// A number of the options. Throws std::invalid_argument when it is none.
    int64_t number(const std::string &name, int64_t otherwise) const;
};

struct ControlCommand {
    std::string_view name;
    size_t least_words;
    size_t most_words;
    std::string_view options; ///< names between blanks, such as " ref order "
    std::string_view usage;
    /// Throws std::invalid_argument with the reason of a refusal.
    nlohmann::json (*handler)(Engine &engine, const Request &request);
};

std::span<const ControlCommand> control_commands();

/// A whole decimal number. Throws std::invalid_argument.
int64_t whole_number(const std::string &text);

/// What the modem is and what has happened so far, as `modemsim ctl state` prints it (README.md); of that the part at a
/// JSON pointer (RFC 6901) unless it is empty. Throws a JSON exception when there is no such part.
nlohmann::json report(const Engine &engine, std::string_view pointer);

} // namespace modemsim
