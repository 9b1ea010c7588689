#pragma once

#include "commands.h"
#include "modem.h"
#include "troubles.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

/// What the port offers to the engine.
struct Host {
    std::function<void(std::string_view bytes)> write;
    std::function<void(bool present)> set_port; ///< the port comes or goes
    /// One command, message text or escape arrived: when, the running number of its command, its bytes.
    std::function<void(int64_t arrived_ms, uint64_t number, std::string_view bytes)> record;
};

/// The command interpreter between port and modem: bytes in, framed answers out, one command at a time, with the
/// troubles that strike. It knows no clock but its timer queue and no file; the caller feeds it.
class Engine {
public:
    explicit Engine(Host host);
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    TimerQueue timers;
    Modem modem;
    Troubles troubles;

    /// Begins to serve with the state that `modem.state` holds: the port comes.
    void start();
    /// Bytes from the port. More than 64 KiB that wait are dropped, as a modem without flow control drops them.
    void input(std::string_view bytes);
    /// Puts bytes out as they are, as soon as they may stand there.
    void emit(std::string bytes, Reports place = Reports::between);
    /// Takes the port away; for `away_ms`, or without it until `bring_port_back`.
    void take_port_away(std::optional<int64_t> away_ms);
    void bring_port_back();
    /// Nothing goes out any more for `ms`; 0 for ever, less ends it.
    void be_silent(int64_t ms);

    bool port_present() const;
    bool scanning() const;
    uint64_t commands() const;
    const std::map<std::string, uint64_t> &commands_by_name() const;
    uint64_t dropped_input() const;
    uint64_t port_losses() const;

private:
    struct Byte {
        char value;
        int64_t arrived_ms;
    };
    struct Job {
        std::vector<Chunk> chunks;
        std::function<void()> done;
    };
    struct Execution {
        uint64_t number = 0;
        AtCommand last; ///< the command that asked for a message text
        Strikes strikes;
        Reply reply;
        std::string body; ///< the framed lines of the commands before
    };

    void process_input();
    void flush_echo();
    void take_command_byte(const Byte &byte);
    void take_message_byte(const Byte &byte);
    void handle_line(int64_t arrived_ms, const std::string &line);
    void execute(Execution execution, const std::vector<AtCommand> &commands, const std::string &line);
    bool refused_by_scan(Execution &execution);
    void finish(Execution execution);
    void send_prompt(Execution execution);
    void finish_scan(Execution execution);
    void answer(const Execution &execution, bool frees_modem);
    void vanish(const TroubleRule &rule);

    void unsolicited(const std::string &line);
    void release_held();
    void push(Job job);
    void play();
    void put(std::string_view bytes);
    void put_between_lines();
    /// Plans work that is forgotten when the port goes away before.
    void after(int64_t delay_ms, std::function<void()> work);
    int64_t extra_delay(std::string_view line) const;

    Host host_;
    std::deque<Byte> input_;
    std::string line_;
    std::string echo_;
    bool line_overflow_ = false;
    bool busy_ = false;       ///< a command is being carried out: input waits
    bool processing_ = false; ///< process_input is on the stack
    bool holding_ = false;    ///< unsolicited lines wait for the answer or the end of the message text
    bool message_mode_ = false;
    uint64_t scanning_ = 0; ///< the number of the scan that runs; 0 without one
    Execution submission_;
    std::deque<std::string> held_;
    std::deque<std::string> hurried_; ///< what goes out at the next line's end
    bool line_open_ = false;          ///< the last byte out was no line end
    std::deque<Job> lane_;
    bool playing_ = false;
    bool present_ = false;
    uint64_t epoch_ = 0;
    int64_t silent_until_ = -1; ///< INT64_MAX for ever
    uint64_t commands_ = 0;
    std::map<std::string, uint64_t> by_name_;
    uint64_t dropped_ = 0;
    uint64_t losses_ = 0;
};

} // namespace modemsim
