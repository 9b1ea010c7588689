#include "engine.h"

#include <fmt/format.h>
#include <utility>

#include "refusals.h"

namespace modemsim {

namespace {

constexpr size_t input_limit = 64 * 1024;
constexpr size_t line_limit = 4096;
constexpr char ctrl_z = 0x1A;
constexpr char escape = 0x1B;

std::string upper_prefix(std::string_view line)
{
    std::string text;
    for (char c : line)
        text += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return text;
}

} // namespace

Engine::Engine(Host host) : modem(timers), host_(std::move(host))
{
    modem.unsolicited = [this](const std::string &line) { unsolicited(line); };
    modem.take_port_away = [this](int64_t away_ms) {
        scanning_ = 0;
        take_port_away(away_ms);
    };
}

void Engine::start()
{
    modem.start();
    if (RulePtr silence = troubles.initial_silence())
        be_silent(troubles.draw(silence->ms));
    present_ = true;
    host_.set_port(true);
}

void Engine::input(std::string_view bytes)
{
    if (!present_)
        return;
    for (char c : bytes) {
        if (input_.size() >= input_limit)
            dropped_++;
        else
            input_.push_back({c, timers.now()});
    }
    process_input();
}

void Engine::process_input()
{
    if (processing_)
        return;
    processing_ = true;
    while (!busy_ && !input_.empty()) {
        Byte byte = input_.front();
        input_.pop_front();
        if (message_mode_)
            take_message_byte(byte);
        else
            take_command_byte(byte);
    }
    flush_echo();
    processing_ = false;
}

void Engine::flush_echo()
{
    if (!echo_.empty())
        emit(std::exchange(echo_, {}));
}

void Engine::take_command_byte(const Byte &byte)
{
    char c = byte.value;
    if (c == ctrl_z || c == escape) {
        // The end of a message text that was never asked for; what stood before it is no command.
        line_ += c;
        host_.record(byte.arrived_ms, commands_, line_);
        line_.clear();
        return;
    }
    // A shell's echo ends its commands with a line feed alone.
    bool ends = c == '\r' || (c == '\n' && !line_.empty());
    if (modem.state.settings.echo && c != '\n')
        echo_ += c;
    if (ends) {
        flush_echo();
        std::string line = std::move(line_);
        line_.clear();
        if (std::exchange(line_overflow_, false))
            emit(frame_line("ERROR"));
        else
            handle_line(byte.arrived_ms, line);
        return;
    }
    if (c == '\n')
        return;
    if (line_.size() >= line_limit)
        line_overflow_ = true;
    else
        line_ += c;
}

void Engine::take_message_byte(const Byte &byte)
{
    char c = byte.value;
    if (modem.state.settings.echo && c != ctrl_z && c != escape)
        echo_ += c;
    if (c != ctrl_z && c != escape) {
        if (line_.size() < line_limit)
            line_ += c;
        return;
    }
    flush_echo();
    std::string data = std::move(line_);
    line_.clear();
    message_mode_ = false;
    host_.record(byte.arrived_ms, submission_.number, data + c);
    Execution execution = std::move(submission_);
    if (c == escape)
        execution.reply = reply_ok();
    else
        execution.reply = submit_message(modem, execution.last, data);
    busy_ = true;
    int64_t delay = modem.state.behaviour.latency_ms + execution.reply.delay_ms;
    after(delay, [this, execution] { finish(execution); });
}

void Engine::handle_line(int64_t arrived_ms, const std::string &line)
{
    if (line.empty())
        return;
    uint64_t number = ++commands_;
    host_.record(arrived_ms, number, line + "\r");
    auto commands = parse_command_line(line);
    if (!commands)
        return;
    Execution execution;
    execution.number = number;
    execution.strikes = troubles.strike(line);
    if (RulePtr silence = find_strike(execution.strikes, TroubleKind::silent))
        be_silent(troubles.draw(silence->ms));
    RulePtr loss = find_strike(execution.strikes, TroubleKind::vanish);
    if (loss != nullptr && loss->where == Where::before) {
        vanish(*loss);
        return;
    }
    execute(std::move(execution), *commands, line);
}

void Engine::execute(Execution execution, const std::vector<AtCommand> &commands, const std::string &line)
{
    busy_ = true;
    holding_ = true;
    if (RulePtr error = find_strike(execution.strikes, TroubleKind::error)) {
        execution.reply.final = error->text;
    } else if (!refused_by_scan(execution)) {
        int64_t delay = 0;
        for (const AtCommand &command : commands) {
            by_name_[command.name]++;
            execution.body += frame_lines(execution.reply.lines);
            std::vector<uint64_t> messages = std::move(execution.reply.messages);
            execution.reply = run_command(modem, command);
            execution.reply.messages.insert(execution.reply.messages.begin(), messages.begin(), messages.end());
            delay += execution.reply.delay_ms;
            execution.last = command;
            if (execution.reply.final != "OK" || execution.reply.kind != ReplyKind::plain)
                break;
        }
        execution.reply.delay_ms = delay;
    }
    if (find_strike(execution.strikes, TroubleKind::echo) != nullptr)
        modem.state.settings.echo = true;
    int64_t delay = modem.state.behaviour.latency_ms + extra_delay(line);
    switch (execution.reply.kind) {
    case ReplyKind::plain:
        after(delay + execution.reply.delay_ms, [this, execution] { finish(execution); });
        break;
    case ReplyKind::prompt:
        after(delay, [this, execution] { send_prompt(execution); });
        break;
    case ReplyKind::scan: {
        scanning_ = execution.number;
        if (modem.state.behaviour.scan_refusal != Refusal::queue) {
            busy_ = false;
            holding_ = false;
            release_held();
        }
        // A scan ends in the modem even when the port goes away meanwhile.
        timers.after(delay + execution.reply.delay_ms, [this, execution, epoch = epoch_] {
            if (epoch == epoch_)
                finish_scan(execution);
            else if (scanning_ == execution.number)
                scanning_ = 0;
        });
        break;
    }
    }
}

/// While a scan runs every other command is refused, unless this modem lets them wait.
bool Engine::refused_by_scan(Execution &execution)
{
    if (scanning_ == 0 || modem.state.behaviour.scan_refusal == Refusal::queue)
        return false;
    execution.reply = modem.state.behaviour.scan_refusal == Refusal::cme14 ? cme(modem, 14) : reply_error();
    return true;
}

int64_t Engine::extra_delay(std::string_view line) const
{
    std::string text = upper_prefix(line);
    int64_t delay = 0;
    size_t longest = 0;
    for (const auto &[prefix, ms] : modem.state.behaviour.delays)
        if (prefix.size() >= longest && text.starts_with(prefix)) {
            delay = ms;
            longest = prefix.size();
        }
    return delay;
}

void Engine::finish_scan(Execution execution)
{
    bool queues = busy_ && holding_ && modem.state.behaviour.scan_refusal == Refusal::queue;
    scanning_ = 0;
    answer(execution, queues);
}

void Engine::finish(Execution execution)
{
    answer(execution, true);
}

void Engine::answer(const Execution &execution, bool frees_modem)
{
    std::vector<std::string> lines = execution.reply.lines;
    if (modem.state.behaviour.serial_numbers)
        lines.push_back(fmt::format("+SN: {}", execution.number));
    std::string text = execution.body + frame_lines(lines) + frame_line(execution.reply.final);
    AnswerPlan plan = troubles.plan(execution.strikes, Stage::answer, std::move(text));

    auto free_modem = [this, frees_modem] {
        if (!frees_modem)
            return;
        busy_ = false;
        process_input();
    };
    auto messages = execution.reply.messages;
    auto done = [this, plan, messages, free_modem] {
        if (plan.vanish != nullptr) {
            vanish(*plan.vanish);
            return;
        }
        if (plan.intact && silent_until_ < timers.now())
            for (uint64_t id : messages)
                modem.messages.by_id(id)->handed_over++;
        if (plan.late_ms == 0 || plan.late_busy)
            free_modem();
    };
    if (plan.lost)
        free_modem();
    else if (plan.late_ms > 0)
        after(plan.late_ms, [this, plan, done] { push({plan.chunks, done}); });
    else
        push({plan.chunks, done});
    if (frees_modem) {
        holding_ = false;
        release_held();
    }
    if (!plan.lost && plan.late_ms > 0 && !plan.late_busy)
        free_modem();
}

void Engine::send_prompt(Execution execution)
{
    AnswerPlan plan = troubles.plan(execution.strikes, Stage::prompt, "\r\n> ");
    auto listen = [this, execution] {
        submission_ = execution;
        submission_.body.clear();
        message_mode_ = true;
        busy_ = false;
        process_input();
    };
    auto done = [this, plan, listen] {
        if (plan.vanish != nullptr)
            vanish(*plan.vanish);
        else
            listen();
    };
    // A modem takes what comes before its prompt for message text, once the prompt is out.
    if (plan.lost)
        listen();
    else
        after(plan.late_ms, [this, plan, done] { push({plan.chunks, done}); });
}

void Engine::vanish(const TroubleRule &rule)
{
    int64_t ms = troubles.draw(rule.ms);
    if (rule.reset)
        modem.restart(ms);
    else
        take_port_away(ms);
}

bool Engine::port_present() const
{
    return present_;
}

bool Engine::scanning() const
{
    return scanning_ != 0;
}

uint64_t Engine::commands() const
{
    return commands_;
}

const std::map<std::string, uint64_t> &Engine::commands_by_name() const
{
    return by_name_;
}

uint64_t Engine::dropped_input() const
{
    return dropped_;
}

uint64_t Engine::port_losses() const
{
    return losses_;
}

} // namespace modemsim
