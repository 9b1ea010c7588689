// A modem on a pseudo-terminal of the test's own: it takes one command at a time, and a script says what it answers,
// when and in which pieces. It shares no code with the simulated modem, so that it has no manners in common with it.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;
using std::chrono::milliseconds;

struct Piece {
    double pause_ms; // before it goes out
    std::string bytes;
};

// What the modem does with one input; it takes the next one when all is done.
struct Course {
    std::vector<Piece> pieces;
    size_t whole = 0;    // with so many pieces the answer is out; 0 never
    bool prompt = false; // then it waits for the text of a message
    int away_ms = 0;     // then the port goes away for so long
    int deaf_ms = 0;     // from now on, what comes is lost
};

struct Input {
    std::string
        text; // a command without its line end, or a message text with its Ctrl-Z or ESC; an ESC outside of one alone
    Moment came;       // when it was taken up
    Moment answered{}; // when the whole answer was out; none yet or never: the clock's beginning
    Moment done{};
};

class ScriptedModem {
public:
    // Is asked on the modem's thread; `number` is the input's, from 0.
    using Script = std::function<Course(const std::string &text, size_t number)>;

    // Makes `link` a symbolic link to the port while it is there.
    ScriptedModem(std::string link, Script script);
    ~ScriptedModem();
    ScriptedModem(const ScriptedModem &) = delete;
    ScriptedModem &operator=(const ScriptedModem &) = delete;

    // Puts bytes out at once, wherever the modem stands.
    void emit(const std::string &bytes);
    // What comes is lost from now on for so long.
    void be_deaf(int ms);
    std::vector<Input> inputs() const;
    size_t count(const std::string &text) const; // inputs with this text
    bool at_prompt() const;
    // The periods in which it took no input: deaf or without a port.
    std::vector<std::pair<Moment, Moment>> absences() const;

private:
    void run();
    void open_port();
    void close_port();
    void step(Moment now);
    bool take_input();
    void begin(std::string text);
    void flush();

    const std::string link_;
    const Script script_;
    mutable std::mutex mutex_; // guards everything below
    int master_ = -1, slave_ = -1, wake_ = -1;
    bool quit_ = false;
    std::string in_, out_;
    std::vector<Input> inputs_;
    std::vector<std::pair<Moment, Moment>> absences_;
    bool busy_ = false, prompt_ = false;
    Course course_;
    size_t next_ = 0; // piece
    Moment due_{}, deaf_until_{}, back_{};
    std::thread thread_;
};

// "\r\n", the lines and the final result as modems frame them.
std::string framed(const std::vector<std::string> &lines, const std::string &final = "OK");

// The answer of a modem that is well, in one piece.
Course at_once(const std::string &bytes, double latency_ms = 0);

// What such a modem says to the commands of a daemon that starts: OK, or a value of the right shape.
std::string usual_answer(const std::string &command);
