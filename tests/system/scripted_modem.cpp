#include "scripted_modem.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

static constexpr char ctrl_z = 0x1A, escape = 0x1B;

static Clock::duration span_of(double ms)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(ms));
}

ScriptedModem::ScriptedModem(std::string link, Script script) : link_(std::move(link)), script_(std::move(script))
{
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    open_port();
    thread_ = std::thread([this] { run(); });
}

ScriptedModem::~ScriptedModem()
{
    {
        std::lock_guard lock(mutex_);
        quit_ = true;
    }
    (void)eventfd_write(wake_, 1);
    thread_.join();
    close_port();
    (void)close(wake_);
}

void ScriptedModem::open_port()
{
    char name[64];
    termios raw{};
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 || ptsname_r(master_, name, sizeof name) != 0 ||
        (slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC)) < 0 || tcgetattr(slave_, &raw) != 0)
        throw std::system_error(errno, std::generic_category(), "no pseudo-terminal");
    cfmakeraw(&raw);
    (void)tcsetattr(slave_, TCSANOW, &raw);
    std::string fresh = link_ + ".new";
    (void)unlink(fresh.c_str());
    if (symlink(name, fresh.c_str()) != 0 || rename(fresh.c_str(), link_.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), link_);
}

void ScriptedModem::close_port()
{
    if (master_ < 0)
        return;
    (void)unlink(link_.c_str());
    (void)close(slave_);
    (void)close(master_);
    master_ = slave_ = -1;
    in_.clear();
    out_.clear();
}

void ScriptedModem::flush()
{
    while (!out_.empty()) {
        ssize_t put = write(master_, out_.data(), out_.size());
        if (put <= 0)
            return;
        out_.erase(0, static_cast<size_t>(put));
    }
}

void ScriptedModem::begin(std::string text)
{
    size_t number = inputs_.size();
    inputs_.push_back({text, Clock::now()});
    course_ = script_(text, number);
    busy_ = true;
    next_ = 0;
    due_ = Clock::now() + span_of(course_.pieces.empty() ? 0 : course_.pieces[0].pause_ms);
    if (course_.deaf_ms > 0) {
        deaf_until_ = Clock::now() + milliseconds(course_.deaf_ms);
        absences_.emplace_back(Clock::now(), deaf_until_);
    }
}

// One complete input off what has come; false when there is none.
bool ScriptedModem::take_input()
{
    if (prompt_) {
        size_t end = in_.find_first_of("\x1A\x1B");
        if (end == in_.npos)
            return false;
        prompt_ = false;
        std::string text = in_.substr(0, end + 1);
        in_.erase(0, end + 1);
        begin(std::move(text));
        return true;
    }
    in_.erase(0, std::min(in_.find_first_not_of("\r\n\x1A"), in_.size()));
    if (!in_.empty() && in_[0] == escape) {
        inputs_.push_back({in_.substr(0, 1), Clock::now()});
        in_.erase(0, 1);
        return true;
    }
    size_t end = in_.find_first_of("\r\n");
    if (end == in_.npos)
        return false;
    std::string line = in_.substr(0, end);
    in_.erase(0, end + 1);
    begin(std::move(line));
    return true;
}

// The next piece, or the end of the course.
void ScriptedModem::step(Moment now)
{
    Input &input = inputs_.back();
    if (next_ > 0 && next_ == course_.whole && input.answered == Moment{})
        input.answered = now;
    if (next_ < course_.pieces.size()) {
        out_ += course_.pieces[next_++].bytes;
        flush();
        due_ = now + span_of(next_ < course_.pieces.size() ? course_.pieces[next_].pause_ms : 0);
        return;
    }
    input.done = now;
    busy_ = false;
    prompt_ = course_.prompt;
    if (course_.away_ms > 0) {
        prompt_ = false;
        close_port();
        back_ = now + milliseconds(course_.away_ms);
        absences_.emplace_back(now, back_);
    }
}

void ScriptedModem::run()
{
    for (;;) {
        timespec wait = {1, 0};
        pollfd fds[2];
        {
            std::lock_guard lock(mutex_);
            if (quit_)
                return;
            Moment now = Clock::now();
            if (master_ < 0 && now >= back_)
                open_port();
            while (master_ >= 0 && out_.empty() && busy_ && due_ <= now)
                step(now);
            while (master_ >= 0 && !busy_ && take_input())
                while (out_.empty() && busy_ && due_ <= now && master_ >= 0)
                    step(Clock::now());
            Moment until = master_ < 0 ? back_ : busy_ && out_.empty() ? due_ : now + std::chrono::seconds(1);
            auto left = std::max<int64_t>(std::chrono::nanoseconds(until - now).count(), 0);
            wait = {left / 1000000000, left % 1000000000};
            fds[0] = {master_, static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT)), 0};
            fds[1] = {wake_, POLLIN, 0};
        }
        (void)ppoll(fds, 2, &wait, nullptr);
        std::lock_guard lock(mutex_);
        eventfd_t woken;
        (void)eventfd_read(wake_, &woken);
        char buffer[4096];
        ssize_t got = master_ < 0 ? -1 : read(master_, buffer, sizeof buffer);
        if (got > 0 && Clock::now() >= deaf_until_)
            in_.append(buffer, static_cast<size_t>(got));
        if (master_ >= 0)
            flush();
    }
}

void ScriptedModem::emit(const std::string &bytes)
{
    std::lock_guard lock(mutex_);
    if (master_ < 0)
        return;
    out_ += bytes;
    flush();
    (void)eventfd_write(wake_, 1);
}

void ScriptedModem::be_deaf(int ms)
{
    std::lock_guard lock(mutex_);
    deaf_until_ = Clock::now() + milliseconds(ms);
    absences_.emplace_back(Clock::now(), deaf_until_);
}

std::vector<Input> ScriptedModem::inputs() const
{
    std::lock_guard lock(mutex_);
    return inputs_;
}

size_t ScriptedModem::count(const std::string &text) const
{
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(
        std::count_if(inputs_.begin(), inputs_.end(), [&](const Input &input) { return input.text == text; }));
}

bool ScriptedModem::at_prompt() const
{
    std::lock_guard lock(mutex_);
    return prompt_;
}

std::vector<std::pair<Moment, Moment>> ScriptedModem::absences() const
{
    std::lock_guard lock(mutex_);
    return absences_;
}

std::string framed(const std::vector<std::string> &lines, const std::string &final)
{
    std::string text;
    for (const std::string &line : lines)
        text += (text.empty() ? "\r\n" : "") + line + "\r\n";
    return text + "\r\n" + final + "\r\n";
}

Course at_once(const std::string &bytes, double latency_ms)
{
    return {{{latency_ms, bytes}}, 1};
}

std::string usual_answer(const std::string &command)
{
    static const std::map<std::string, std::string> values = {
        {"AT+CGMI?", "+CGMI: \"Fibocom Wireless Inc.\""},
        {"AT+CGMI", "Fibocom Wireless Inc."},
        {"AT+GMM?", "+GMM: \"FM160-EAU\""},
        {"AT+CGMM?", "+CGMM: \"FM160-EAU\""},
        {"AT+CGMR?", "+CGMR: \"89614.1000\""},
        {"AT+CGSN=1", "+CGSN: 860000000000001"},
        {"AT+CIMI?", "+CIMI: 460010000000001"},
        {"AT+CPIN?", "+CPIN: READY"},
        {"AT+CSQ", "+CSQ: 27,99"},
        {"AT+CMGF?", "+CMGF: 0"},
        {"AT+CNMI?", "+CNMI: 2,1,0,0,0"},
        {"AT+CPMS?", "+CPMS: \"SM\",0,50,\"SM\",0,50,\"SM\",0,50"},
        {"AT+COPS=?", "+COPS: (2,\"One\",\"One\",\"26201\",7),,(0-4),(0-2)"},
        {"ATI9", "\"Hardware version: V1.0\""},
        {"ATI8", "\"SVN 01\""},
    };
    if (auto found = values.find(command); found != values.end())
        return framed({found->second});
    if (command.starts_with("AT+") && command.ends_with('?')) {
        size_t name_end = command.find_first_of("=?");
        return framed({command.substr(2, name_end - 2) + ": 0"});
    }
    return framed({});
}
