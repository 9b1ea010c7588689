#include "at_command.h"

#include <cctype>
#include <charconv>

namespace modemsim {

namespace {

char upper(char c)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

std::vector<Argument> split_arguments(std::string_view text)
{
    std::vector<Argument> args(1);
    bool inside = false;
    for (char c : text) {
        if (c == '"') {
            inside = !inside;
            args.back().quoted = true;
        } else if (c == ',' && !inside) {
            args.emplace_back();
        } else if (c != ' ' || inside) {
            args.back().text += c;
        }
    }
    return args;
}

/// The end of an extended command: the next ";" outside quotes.
size_t extended_end(std::string_view line, size_t from)
{
    bool inside = false;
    for (size_t i = from; i < line.size(); i++) {
        if (line[i] == '"')
            inside = !inside;
        else if (line[i] == ';' && !inside)
            return i;
    }
    return line.size();
}

AtCommand parse_extended(std::string_view text)
{
    AtCommand command;
    size_t end = text.find_first_of("=?");
    for (char c : text.substr(0, end))
        if (c != ' ')
            command.name += upper(c);
    if (end == text.npos)
        return command;
    std::string_view rest = text.substr(end);
    if (rest == "?") {
        command.form = Form::read;
    } else if (rest == "=?") {
        command.form = Form::test;
    } else {
        command.form = Form::set;
        command.args = split_arguments(rest.substr(1));
    }
    return command;
}

AtCommand parse_basic(std::string_view line, size_t &at)
{
    AtCommand command;
    if (line[at] == '&')
        command.name += line[at++];
    if (at < line.size())
        command.name += upper(line[at++]);
    size_t end = at;
    if (command.name == "D")
        end = line.size();
    while (end < line.size() && is_digit(line[end]))
        end++;
    if (end > at) {
        command.form = Form::set;
        command.args = {{std::string(line.substr(at, end - at)), false}};
    }
    at = end;
    return command;
}

} // namespace

const std::string &AtCommand::text(size_t index) const
{
    static const std::string none;
    return index < args.size() ? args[index].text : none;
}

std::optional<int> AtCommand::number(size_t index) const
{
    const std::string &value = text(index);
    int number = 0;
    auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (value.empty() || !is_digit(value[0]) || error != std::errc() || end != value.data() + value.size())
        return std::nullopt;
    return number;
}

bool AtCommand::has(size_t index) const
{
    return !text(index).empty();
}

std::optional<std::vector<AtCommand>> parse_command_line(std::string_view line)
{
    size_t at = 0;
    while (at + 1 < line.size() && (upper(line[at]) != 'A' || upper(line[at + 1]) != 'T'))
        at++;
    if (at + 1 >= line.size())
        return std::nullopt;
    at += 2;

    std::vector<AtCommand> commands;
    while (at < line.size()) {
        if (line[at] == ' ' || line[at] == ';') {
            at++;
        } else if (line[at] == '+' || line[at] == '$' || line[at] == '*' || line[at] == '^') {
            size_t end = extended_end(line, at);
            commands.push_back(parse_extended(line.substr(at, end - at)));
            at = end;
        } else {
            commands.push_back(parse_basic(line, at));
        }
    }
    return commands;
}

} // namespace modemsim
