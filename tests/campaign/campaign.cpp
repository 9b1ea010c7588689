// The fault campaign: a simulated modem makes random trouble while four clients call all methods with random arguments.
// In rounds: some seconds of trouble, then a calm in which the books are checked. Ends with status 1 at the first
// fault.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <unistd.h>

#include "calls.h"
#include "ledger.h"
#include "mischief.h"
#include "private_root.h"

using nlohmann::json;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

// The slack is for a machine that does other things as well; what a sanitizer costs is not the daemon's time.
constexpr bool sanitized = CAMPAIGN_SANITIZED;
constexpr int64_t slack_ms = sanitized ? 4000 : 1000;
constexpr milliseconds stop_limit{sanitized ? 15000 : 3000};
constexpr long growth_limit_kb = 512;
constexpr milliseconds recovery_limit{90000};
constexpr milliseconds late_answers{3200}; // the latest answer of a modem that was told to behave
constexpr const char *log_path = "/tmp/celmuxd.log";

struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A number of /proc/<pid>/status.
long status_number(pid_t pid, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":"))
            return std::stol(line.substr(name.size() + 1));
    }
    return -1;
}

size_t descriptors(pid_t pid)
{
    std::error_code gone;
    std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd", gone);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Everything of a router that the daemon needs.
class Rig {
public:
    explicit Rig(uint64_t seed)
    {
        broker_ = root.start({"ubusd"});
        root_fd_ = open(root.path("/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        wanmd_ = root.start({"wanmd_standin"});
        ModemOptions options;
        options.latency_ms = 1;
        options.extra = {"--seed", std::to_string(seed)};
        modem.emplace(root, options);
        if (!wait_for([&] { return root.exists("/tmp/wanmd_celmuxd_uds_file"); }))
            throw Fault("no connection manager");
        start_daemon();
    }
    ~Rig()
    {
        (void)close(root_fd_);
    }
    Rig(const Rig &) = delete;
    Rig &operator=(const Rig &) = delete;

    // The path is short enough for a socket's address wherever the build folder is.
    std::string socket() const
    {
        return fmt::format("/proc/self/fd/{}/var/run/ubus/ubus.sock", root_fd_);
    }

    // Returns once the modem can be talked to.
    void start_daemon()
    {
        daemon = root.start({"sh", "-c", std::string("exec celmuxd >>") + log_path + " 2>&1"});
        if (!wait_for([&] { return answers() || !daemon.running(); }, recovery_limit) || !daemon.running())
            throw Fault("the daemon does not come up");
    }

    bool answers()
    {
        try {
            PipelinedAnswer outcome = PipelinedCaller(socket()).ask("get_imei", json::object(), milliseconds(20000));
            return outcome.status == 0 && outcome.result() == 0;
        } catch (const std::runtime_error &) {
            return false; // no broker yet
        }
    }

    void restart_broker()
    {
        (void)broker_.stop();
        broker_ = root.start({"ubusd"});
        if (!wait_for([&] { return quick_call_answered(); }, recovery_limit))
            throw Fault("the daemon does not come to the new broker");
    }

    bool quick_call_answered()
    {
        try {
            return PipelinedCaller(socket()).ask("get_autoconnect", json::object(), milliseconds(2000)).status == 0;
        } catch (const std::runtime_error &) {
            return false; // no broker yet
        }
    }

    void stop_daemon()
    {
        auto begin = steady_clock::now();
        daemon.signal(SIGTERM);
        std::optional<ExitStatus> status = daemon.wait_exit(2 * stop_limit);
        if (!status)
            throw Fault("SIGTERM did not end the daemon");
        auto took = duration_cast<milliseconds>(status->ended - begin);
        if (status->code != 0 || took > stop_limit)
            throw Fault(fmt::format("SIGTERM ended the daemon with status {}, signal {} after {} ms", status->code,
                                    status->signal, took.count()));
        if (root.syslog().left_behind() != 0)
            throw Fault("the stop left a thread behind");
        longest_stop = std::max(longest_stop, took);
    }

    // The last lines of what the daemon said.
    std::string log_tail() const
    {
        constexpr size_t kept = 12000;
        std::string text = root.read_file(log_path);
        return text.substr(text.size() - std::min(text.size(), kept));
    }

    PrivateRoot root;
    std::optional<Modem> modem;
    Process daemon;
    milliseconds longest_stop{0};

private:
    Process broker_;
    Process wanmd_;
    int root_fd_ = -1;
};

struct MemoryFigures {
    long first_kb = 0; // after the warm-up
    long last_kb = 0;
    long highest_kb = 0; // in any calm after it
    long peak_kb = 0;    // at any time
    size_t descriptors = 0;
    long threads = 0;
};

class Campaign {
public:
    Campaign(Rig &rig, uint64_t seed)
        : rig_(rig), random_(seed), mischief_(*rig.modem, ledger_, seed + 1), account_(slack_ms),
          clients_(rig.socket(), seed, ledger_, account_)
    {
    }

    void run(seconds duration)
    {
        warm_up();
        auto begin = steady_clock::now();
        auto warm = begin + std::min<seconds>(duration / 4, seconds(120));
        while (steady_clock::now() < begin + duration) {
            trouble_for(milliseconds(random_.between(8000, 25000)));
            calm();
            check_memory(steady_clock::now() >= warm);
            rounds_++;
        }
        stop_under_load();
    }

    void print_figures();

private:
    void warm_up();
    void trouble_for(milliseconds length);
    void calm();
    void lose_broker();
    void check_books();
    void empty_sim();
    void check_memory(bool warm);
    void check_daemon();
    void stop_under_load();
    json call(const std::string &method, const json &arguments = json::object());
    json messages_of_store();
    int64_t used_of(const std::string &storage);
    int64_t on_sim();

    Rig &rig_;
    Random random_;
    Ledger ledger_;
    Mischief mischief_;
    CallAccount account_;
    Clients clients_;
    MemoryFigures memory_;
    int rounds_ = 0;
    int broker_losses_ = 0;
};

void Campaign::check_daemon()
{
    if (!rig_.daemon.running()) {
        ExitStatus status = rig_.daemon.wait_exit().value();
        throw Fault(fmt::format("the daemon ended: status {}, signal {}", status.code, status.signal));
    }
    if (std::string faults = account_.faults(); !faults.empty())
        throw Fault(faults);
    if (rig_.root.exists("/tmp/broken_out"))
        throw Fault("an argument reached a shell as a command");
}

// What needs most memory once, so that what comes later is growth: the largest bursts and listings, and every method.
void Campaign::warm_up()
{
    constexpr seconds calling{5};
    clients_.resume();
    for (json command :
         {json{{"do", "fill"}}, json{{"do", "flood"}, {"lines", 4000}}, json{{"do", "flood"}, {"bytes", 600000}}})
        (void)mischief_.control(command);
    std::this_thread::sleep_for(calling);
    calm();
}

void Campaign::trouble_for(milliseconds length)
{
    constexpr int broker_losses = 300;                                // per mille of the rounds
    int64_t longest_pause = random_.pick<int64_t>({200, 1000, 3000}); // some rounds are hell, some an ordinary bad day
    clients_.resume();
    auto end = steady_clock::now() + length, loss = end;
    if (random_.chance(broker_losses))
        loss -= length / 2;
    while (steady_clock::now() < end) {
        mischief_.act();
        if (loss < std::min(end, steady_clock::now())) {
            lose_broker();
            loss = end;
        }
        check_daemon();
        std::this_thread::sleep_for(milliseconds(random_.between(10, longest_pause)));
    }
}

// In the middle of calls: those in progress fail, and nothing else.
void Campaign::lose_broker()
{
    account_.forgive(true);
    {
        auto held = clients_.hold_deletions();
        rig_.restart_broker();
    }
    clients_.pause();
    account_.forgive(false);
    clients_.resume();
    broker_losses_++;
}

json Campaign::call(const std::string &method, const json &arguments)
{
    PipelinedAnswer outcome = PipelinedCaller(rig_.socket()).ask(method, arguments, recovery_limit);
    if (outcome.status != 0)
        throw Fault(fmt::format("{} gave status {} in a calm", method, outcome.status));
    return outcome.data;
}

// After that no call is under way, the modem can be talked to, and it has handed over all messages.
void Campaign::calm()
{
    mischief_.end();
    clients_.pause();
    check_daemon();
    std::this_thread::sleep_for(late_answers);
    // The answer of a scan that was lost would be waited for during minutes.
    (void)mischief_.control(
        {{"do", "emit"}, {"args", {"+COPS: (2,\"CHN-UNICOM\",\"UNICOM\",\"46001\",7),,(0,1,2,3,4),(0,1,2)"}}});
    if (!wait_for([&] { return rig_.answers(); }, recovery_limit))
        throw Fault("the modem behaves again, but cannot be talked to");
    empty_sim();
    check_books();
    check_daemon();
    rig_.root.write_file(log_path, "");
    rig_.root.syslog().forget();
}

int64_t Campaign::used_of(const std::string &storage)
{
    return mischief_.control({{"do", "state"}, {"args", {"/messages/used/" + storage}}}).at("state").get<int64_t>();
}

int64_t Campaign::on_sim()
{
    return used_of("SM") + used_of("ME") +
           mischief_.control({{"do", "state"}, {"args", {"/messages/waiting"}}}).at("state").get<int64_t>();
}

void Campaign::empty_sim()
{
    constexpr int tries = 8;
    constexpr milliseconds reading{3000};
    for (int i = 0; i < tries && on_sim() > 0; i++) {
        // A modem that was reset may have been storing messages elsewhere, and no longer announces them.
        // What the network still holds comes once the modem is registered and has room, and the network tries again.
        (void)mischief_.control({{"do", "set"}, {"args", {"{}"}}});
        (void)wait_for([&] { return used_of("SM") + used_of("ME") > 0; }, reading);
        std::string storage = used_of("SM") > 0 ? "SM" : "ME";
        (void)call("at_passthrough", {{"at", "AT+CMGF=0"}});
        (void)call("at_passthrough", {{"at", fmt::format("AT+CPMS=\"{0}\",\"{0}\",\"{0}\"", storage)}});
        (void)call("at_passthrough", {{"at", "AT+CMGL=4"}, {"timeout_ms", 10000}});
        (void)wait_for([&] { return used_of(storage) == 0; }, reading);
    }
    (void)mischief_.control({{"do", "emit"}, {"args", {"+SIM READY"}}}); // back to the usual storage
    if (on_sim() > 0)
        throw Fault("messages stay on the SIM, in service: " +
                    mischief_.control({{"do", "state"}, {"args", {"/service"}}}).dump() + " " +
                    mischief_.control({{"do", "state"}, {"args", {"/messages"}}}).dump());
}

json Campaign::messages_of_store()
{
    json list = call("get_all_messages");
    json messages = list.value("messages", json::array());
    if (!list.value("truncated", false))
        return messages;
    for (;;) {
        json message = call("get_message", {{"index", messages.size() + 1}});
        if (message.value("result", -1) != 0)
            return messages;
        messages.push_back(message);
    }
}

void Campaign::check_books()
{
    json history = mischief_.control({{"do", "state"}, {"args", {"/messages/history"}}}).at("state");
    std::string faults = ledger_.verify(history, messages_of_store());
    if (!faults.empty())
        throw Fault(faults);
    (void)call("delete_all_messages");
    (void)call("delete_profile");
}

void Campaign::check_memory(bool warm)
{
    pid_t pid = rig_.daemon.pid();
    if (memory_.descriptors == 0) {
        memory_.descriptors = descriptors(pid);
        memory_.threads = status_number(pid, "Threads");
    }
    if (!wait_for([&] { return descriptors(pid) <= memory_.descriptors; }))
        throw Fault(fmt::format("{} descriptors, {} before", descriptors(pid), memory_.descriptors));
    if (status_number(pid, "Threads") > memory_.threads)
        throw Fault("more threads than before");
    memory_.last_kb = status_number(pid, "VmRSS");
    memory_.peak_kb = status_number(pid, "VmHWM");
    if (!warm)
        return;
    if (memory_.first_kb == 0)
        memory_.first_kb = memory_.last_kb;
    memory_.highest_kb = std::max(memory_.highest_kb, memory_.last_kb);
    if (!sanitized && memory_.last_kb > memory_.first_kb + growth_limit_kb)
        throw Fault(fmt::format("{} KB resident, {} KB after the warm-up", memory_.last_kb, memory_.first_kb));
}

// Stopped in the middle of everything and started again, the daemon has lost nothing.
void Campaign::stop_under_load()
{
    trouble_for(seconds(4));
    account_.forgive(true);
    clients_.set_patience(seconds(2));
    rig_.stop_daemon();
    clients_.pause();
    mischief_.end();
    rig_.start_daemon();
    calm();
    rig_.stop_daemon();
}

void Campaign::print_figures()
{
    CallFigures calls = account_.figures();
    LedgerFigures messages = ledger_.figures();
    fmt::print("rounds {}\ncalls {}: ", rounds_, calls.calls);
    for (const auto &[outcome, count] : calls.by_outcome)
        fmt::print("{} {}, ", outcome, count);
    fmt::print("\nclients that died in a call {}, brokers lost {}\n", calls.died, broker_losses_);
    fmt::print("longest call that needs no modem {} ms ({}), of the others {} ms\n", calls.longest_quick_ms,
               calls.longest_quick, calls.longest_waited_ms);
    fmt::print("messages {} in {} parts: {} stored whole and once, {} deleted by clients, {} altered on the way\n",
               messages.sent, messages.parts, messages.kept_whole, messages.deleted, messages.altered);
    fmt::print("faults injected: ");
    for (const auto &[kind, count] : mischief_.figures())
        fmt::print("{} {}, ", kind, count);
    json port = mischief_.control({{"do", "state"}, {"args", {"/port/losses"}}}).at("state");
    json commands = mischief_.control({{"do", "state"}, {"args", {"/commands/count"}}}).at("state");
    fmt::print("\ncommands at the modem {}, port losses {}\n", commands.dump(), port.dump());
    fmt::print(
        "resident after warm-up {} KB, highest in a calm {} KB, last {} KB, peak {} KB; descriptors {}, threads {}\n",
        memory_.first_kb, memory_.highest_kb, memory_.last_kb, memory_.peak_kb, memory_.descriptors, memory_.threads);
    fmt::print("longest end after SIGTERM {} ms\n", rig_.longest_stop.count());
}

int run(uint64_t seed, seconds duration)
{
    fmt::print("campaign of {} s with seed {}\n", duration.count(), seed);
    std::fflush(stdout);
    Rig rig(seed);
    try {
        Campaign campaign(rig, seed);
        try {
            campaign.run(duration);
            campaign.print_figures();
            return 0;
        } catch (const std::exception &fault) {
            fmt::print("\nFAULT: {}\n\n{}\n\n", fault.what(), rig.log_tail());
            std::fflush(stdout);
            (void)setenv("CELMUX_KEEP_ROOTS", "1", 1);
            fmt::print("what ran is left in {}\n", rig.root.path("/"));
            campaign.print_figures();
            std::fflush(stdout);
            std::_Exit(1); // clients may wait for answers
        }
    } catch (const std::exception &fault) {
        fmt::print("FAULT: {}\n{}\n", fault.what(), rig.log_tail());
        return 1;
    }
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Random troubles of the modem and random calls of all methods; status 1 when the daemon does wrong.");
    uint64_t seed = 1;
    int64_t duration = 60;
    app.add_option("--seed", seed, "repeats a course as far as timing lets it")
        ->envname("CAMPAIGN_SEED")
        ->capture_default_str();
    app.add_option("--seconds", duration, "how long")->envname("CAMPAIGN_SECONDS")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        return run(seed, seconds(duration));
    } catch (const std::exception &error) {
        std::cerr << "campaign: " << error.what() << "\n";
        return 2;
    }
}
