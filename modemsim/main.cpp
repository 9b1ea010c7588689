#include "control.h"
#include "control_server.h"
#include "engine.h"
#include "pty_port.h"
#include "record_file.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>
#include <sstream>
#include <sys/signalfd.h>
#include <unistd.h>

namespace modemsim {

namespace {

struct Options {
    std::string link;
    std::string record;
    std::string profile;
    std::string control;
    int64_t latency_ms = -1;
    int64_t scan_ms = -1;
    int64_t seed = -1;
    bool serial_numbers = false;
    std::vector<std::string> words; ///< of a control command
};

int64_t monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

int signal_descriptor()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

std::string read_whole(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    if (!file || !(text << file.rdbuf()))
        throw std::runtime_error(path + " cannot be read");
    return text.str();
}

void set_up(const Options &options, Engine &engine, Control &control)
{
    if (!options.profile.empty()) {
        try {
            control.load_profile(read_whole(options.profile));
        } catch (const std::invalid_argument &error) {
            throw std::runtime_error(fmt::format("{}: {}", options.profile, error.what()));
        }
    }
    Behaviour &behaviour = engine.modem.state.behaviour;
    if (options.latency_ms >= 0)
        behaviour.latency_ms = options.latency_ms;
    if (options.scan_ms >= 0)
        behaviour.scan_ms = options.scan_ms;
    if (options.seed >= 0)
        engine.troubles.seed(static_cast<uint64_t>(options.seed));
    behaviour.serial_numbers = behaviour.serial_numbers || options.serial_numbers;
}

int serve(const Options &options)
{
    int stop = signal_descriptor();
    RecordFile record(options.record);
    PtyPort port(options.link);
    Host host;
    host.write = [&](std::string_view bytes) { port.write(bytes); };
    host.record = [&](int64_t ms, uint64_t number, std::string_view bytes) { record.add(ms, number, bytes); };
    host.set_port = [&](bool present) { present ? port.open() : port.close(); };
    Engine engine(host);
    Control control(engine);
    engine.timers.run_until(monotonic_ms());
    set_up(options, engine, control);
    std::optional<ControlServer> server;
    if (!options.control.empty())
        server.emplace(options.control, [&](std::string_view line) { return control.run(line); });
    engine.start();
    fmt::print("{}\n", port.path());
    std::fflush(stdout);

    std::vector<pollfd> waiting;
    while (!control.quit()) {
        waiting.assign(1, {stop, POLLIN, 0});
        waiting.push_back(
            {port.descriptor(), static_cast<short>(port.wants_to_write() ? POLLIN | POLLOUT : POLLIN), 0});
        if (server)
            server->add_to(waiting);
        auto due = engine.timers.next_due();
        int64_t wait = due ? std::clamp<int64_t>(*due - monotonic_ms(), 0, 60000) : -1;
        (void)poll(waiting.data(), waiting.size(), static_cast<int>(wait));
        engine.timers.run_until(monotonic_ms());
        if (waiting[0].revents != 0)
            break;
        if (port.is_open() && port.descriptor() == waiting[1].fd) {
            port.flush();
            engine.input(port.read());
        }
        if (server)
            server->serve(waiting);
        engine.timers.run_until(monotonic_ms());
    }
    ::close(stop);
    return 0;
}

int send_control(const Options &options)
{
    std::string answer = control_request(options.control, nlohmann::json(options.words).dump());
    fmt::print("{}\n", answer);
    return nlohmann::json::parse(answer).value("ok", false) ? 0 : 1;
}

} // namespace

} // namespace modemsim

int main(int argc, char **argv)
{
    modemsim::Options options;
    CLI::App app{"A simulated modem on a pseudo-terminal"};
    app.add_option("--link", options.link, "Symbolic link that leads to the port while it is there");
    app.add_option("--profile", options.profile, "JSON file with the modem's state, troubles and events");
    app.add_option("--control", options.control, "Path of the control socket");
    app.add_option("--record", options.record, "File that gets every command: time in ms, number, bytes");
    app.add_option("--latency", options.latency_ms, "Time in ms that each answer takes")->check(CLI::NonNegativeNumber);
    app.add_option("--scan", options.scan_ms, "Time in ms that a network scan takes")->check(CLI::NonNegativeNumber);
    app.add_option("--seed", options.seed, "Seed of the troubles")->check(CLI::NonNegativeNumber);
    app.add_flag("--serial-numbers", options.serial_numbers,
                 "A line +SN: <n> with the command's number in each answer");
    CLI::App *ctl = app.add_subcommand("ctl", "Sends one command to a simulated modem that runs");
    ctl->add_option("--control", options.control, "Path of the control socket")->required();
    ctl->add_option("words", options.words, "The command and its arguments")->required();
    ctl->prefix_command(false);
    ctl->footer("Commands:\n" + modemsim::Control::usage());
    CLI11_PARSE(app, argc, argv);
    try {
        return ctl->parsed() ? modemsim::send_control(options) : modemsim::serve(options);
    } catch (const std::exception &error) {
        fmt::print(stderr, "modemsim: {}\n", error.what());
        return 1;
    }
}
