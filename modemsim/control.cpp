#include "control.h"

#include "control_commands.h"
#include "state_json.h"

#include <fmt/format.h>
#include <memory>
#include <stdexcept>

namespace modemsim {

using nlohmann::json;

namespace {

/// Words between blanks; double quotes keep blanks, a backslash inside them keeps the character behind it. A word that
/// begins with "{" is JSON and runs to the end of the line.
std::vector<std::string> split_words(std::string_view line)
{
    std::vector<std::string> words;
    bool inside = false;
    bool open = false;
    for (size_t i = 0; i < line.size(); i++) {
        char c = line[i];
        if (!inside && (c == ' ' || c == '\t' || c == '\r')) {
            open = false;
            continue;
        }
        if (!open && c == '{') {
            words.emplace_back(line.substr(i));
            return words;
        }
        if (!open)
            words.emplace_back();
        open = true;
        if (c == '"')
            inside = !inside;
        else if (c == '\\' && inside && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\'))
            words.back() += line[++i];
        else
            words.back() += c;
    }
    if (inside)
        throw std::invalid_argument("a double quote is missing");
    return words;
}

std::string as_word(const json &value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

const ControlCommand &find_command(const std::string &name)
{
    for (const ControlCommand &row : control_commands())
        if (row.name == name)
            return row;
    throw std::invalid_argument(fmt::format("there is no command \"{}\"", name));
}

bool has_option(const ControlCommand &command, std::string_view name)
{
    return !name.empty() && command.options.find(fmt::format(" {} ", name)) != command.options.npos;
}

/// Words of the form name=value are options where the command knows the name.
Request take_options(const ControlCommand &command, const std::vector<std::string> &words)
{
    Request request;
    for (size_t i = 1; i < words.size(); i++) {
        size_t equals = words[i].find('=');
        std::string name = words[i].substr(0, equals);
        if (equals != std::string::npos && has_option(command, name))
            request.options[name] = words[i].substr(equals + 1);
        else
            request.words.push_back(words[i]);
    }
    return request;
}

json execute(Engine &engine, const ControlCommand &command, const Request &request)
{
    if (request.words.size() < command.least_words || request.words.size() > command.most_words)
        throw std::invalid_argument(fmt::format("usage: {}", command.usage));
    return command.handler(engine, request);
}

json execute_object(Engine &engine, const json &object)
{
    const ControlCommand &command = find_command(object.at("do").get<std::string>());
    Request request;
    for (const auto &[name, value] : object.items()) {
        if (name == "args") {
            for (const json &word : value)
                request.words.push_back(as_word(word));
        } else if (has_option(command, name)) {
            request.options[name] = as_word(value);
        } else if (name != "do") {
            throw std::invalid_argument(fmt::format("{} has no \"{}\"", command.name, name));
        }
    }
    return execute(engine, command, request);
}

struct Event {
    Range every;
    int64_t left = 1;
    json action;
    std::string *error = nullptr; ///< where a failure is noted
};

void run_event(Engine &engine, const std::shared_ptr<Event> &event)
{
    try {
        (void)execute_object(engine, event->action);
    } catch (const std::exception &error) {
        // What an event asks for can be impossible by then, such as a context that the host has deleted.
        *event->error = error.what();
    }
    if (event->left > 0 && --event->left == 0)
        return;
    engine.timers.after(std::max<int64_t>(engine.troubles.draw(event->every), 1),
                        [&engine, event] { run_event(engine, event); });
}

/// "after_ms", "every_ms" (numbers or [low, high]) and "times" say when; the rest is a control command.
void plan_event(Engine &engine, json value, std::string &error)
{
    auto event = std::make_shared<Event>();
    event->error = &error;
    Range first;
    if (value.contains("every_ms")) {
        event->every = range_from_json(value["every_ms"]);
        event->left = value.value("times", int64_t{-1});
        first = event->every;
    }
    if (value.contains("after_ms"))
        first = range_from_json(value["after_ms"]);
    for (const char *name : {"after_ms", "every_ms", "times"})
        value.erase(name);
    (void)find_command(value.at("do").get<std::string>());
    event->action = std::move(value);
    engine.timers.after(engine.troubles.draw(first), [&engine, event] { run_event(engine, event); });
}

} // namespace

std::string Control::run(std::string_view line)
{
    json answer;
    try {
        if (line.starts_with('{')) {
            answer = execute_object(engine_, json::parse(line));
        } else {
            std::vector<std::string> words =
                line.starts_with('[') ? json::parse(line).get<std::vector<std::string>>() : split_words(line);
            if (words.empty())
                throw std::invalid_argument("no command");
            if (words[0] == "quit") {
                quit_ = true;
                answer = json::object();
            } else if (words[0] == "help") {
                answer = {{"usage", usage()}};
            } else {
                const ControlCommand &command = find_command(words[0]);
                answer = execute(engine_, command, take_options(command, words));
            }
        }
        answer["ok"] = true;
    } catch (const std::exception &error) {
        answer = {{"ok", false}, {"error", error.what()}};
    }
    return answer.dump(-1, ' ', false, json::error_handler_t::replace);
}

void Control::load_profile(std::string_view text)
try {
    json profile = json::parse(text);
    for (const auto &[name, value] : profile.items())
        if (name != "description" && name != "seed" && name != "modem" && name != "troubles" && name != "events")
            throw std::invalid_argument(fmt::format("a profile has no \"{}\"", name));
    engine_.troubles.seed(profile.value("seed", uint64_t{1}));
    patch_state(engine_.modem.state, profile.value("modem", json::object()));
    for (const json &trouble : profile.value("troubles", json::array()))
        engine_.troubles.add(trouble_from_json(trouble));
    for (const json &event : profile.value("events", json::array()))
        plan_event(engine_, event, event_error_);
} catch (const json::exception &error) {
    throw std::invalid_argument(error.what());
}

const std::string &Control::event_error() const
{
    return event_error_;
}

bool Control::quit() const
{
    return quit_;
}

std::string Control::usage()
{
    std::string text;
    for (const ControlCommand &row : control_commands())
        text += fmt::format("  {}\n", row.usage);
    return text + "  help\n  quit: the simulated modem ends\n";
}

} // namespace modemsim
