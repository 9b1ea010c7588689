#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

enum class Form { execute, read, test, set };

struct Argument {
    std::string text;
    bool quoted = false;
};

/// One command of an AT command line (ITU-T V.250 5.2 to 5.4).
struct AtCommand {
    std::string name; ///< upper case, without "AT": "+CGSN", "$QCRMCALL", "E", "&F"
    Form form = Form::execute;
    std::vector<Argument> args; ///< of a set form; the number of a basic command ("E0") is its only argument

    /// The text of argument `index`; empty when it is not there.
    const std::string &text(size_t index) const;
    /// Argument `index` as a decimal number; empty when it is missing, empty, signed or no number.
    std::optional<int> number(size_t index) const;
    /// True when argument `index` is there and not empty.
    bool has(size_t index) const;
};

/// Splits a command line into its commands. Characters before the first "AT" are noise of the line and are skipped.
/// Empty when the line holds no "AT"; a line with nothing behind "AT" gives an empty list.
std::optional<std::vector<AtCommand>> parse_command_line(std::string_view line);

} // namespace modemsim
