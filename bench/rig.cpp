#include "rig.h"

#include <filesystem>
#include <stdexcept>
#include <unistd.h>

#include "caller.h"

static DaemonOptions with_latency(int latency_ms)
{
    DaemonOptions options;
    options.modem.latency_ms = latency_ms;
    return options;
}

Rig::Rig(int latency_ms, int burst_gap_ms)
{
    nlohmann::json configuration = nlohmann::json::parse(root_.read_file("/etc/ril.json"));
    configuration["settings"]["burst_gap_ms"] = burst_gap_ms;
    root_.write_file("/etc/ril.json", configuration.dump());
    daemon_ = std::make_unique<Daemon>(root_, with_latency(latency_ms));
    wait_until_answering();
}

void Rig::stop_daemon()
{
    (void)daemon_->stop();
}

void Rig::start_daemon()
{
    daemon_->start_again();
    wait_until_answering();
}

void Rig::wait_until_answering()
{
    Caller caller(socket());
    if (!wait_for([&] { return caller.succeeds("get_imei"); }))
        throw std::runtime_error("the daemon answers no query");
}

std::string Rig::socket() const
{
    return root_.path("/var/run/ubus/ubus.sock");
}

std::string Rig::port() const
{
    return root_.path("/dev/ttyMODEM");
}

std::string Rig::record_path() const
{
    return root_.path("/tmp/modem.record");
}

std::string Rig::messages_folder() const
{
    return root_.path("/data");
}

size_t Rig::record_size() const
{
    return std::filesystem::file_size(record_path());
}

std::vector<std::string> Rig::commands_since(size_t record_size) const
{
    std::vector<std::string> commands;
    for (const std::string &line : split_lines(read_whole_file(record_path()).substr(record_size))) {
        size_t number = line.find(' ');
        size_t bytes = line.find(' ', number + 1) + 1;
        commands.push_back(line.substr(bytes, line.rfind("\\r") - bytes));
    }
    return commands;
}

int Rig::deleted_messages()
{
    return modem().control("state /messages/deleted").at("state").get<int>();
}

void Rig::forget_logs()
{
    root_.syslog().forget();
    std::error_code ignored; // the file only takes room
    std::filesystem::resize_file("/proc/" + std::to_string(pid()) + "/fd/1", 0, ignored);
}
