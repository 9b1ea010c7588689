#include "daemon.h"

#include <algorithm>
#include <stdexcept>

Daemon::Daemon(PrivateRoot &root, const DaemonOptions &options) : bus(root), root_(root), options_(options)
{
    start_broker();
    wanmd_ = root_.start({"wanmd_standin"});
    if (!wait_for([&] { return root_.exists("/tmp/wanmd_celmuxd_uds_file"); })) {
        throw std::runtime_error("no connection manager: " + wanmd_.errors());
    }
    if (options_.with_modem) {
        modem_.emplace(root_, options_.modem);
    }
    start_celmuxd();
}

void Daemon::start_broker()
{
    broker_ = root_.start({"ubusd"});
    // A socket file may be left by the one before: only an answer counts.
    if (!wait_for([&] { return bus.tool({"list"}).status != 255; })) {
        throw std::runtime_error("no bus: " + broker_.errors());
    }
}

void Daemon::stop_broker()
{
    (void)broker_.stop();
}

void Daemon::start_celmuxd()
{
    celmuxd_ = root_.start({"celmuxd"}, options_.env);
    if (!options_.wait_until_ready) {
        return;
    }
    bool there = wait_for([&] { return bus.has_object("celmux") || !celmuxd_.running(); }, 2 * patience);
    if (!there || !celmuxd_.running()) {
        throw std::runtime_error("no object on the bus:\n" + troubles());
    }
}

bool Daemon::wait_until_calm()
{
    return wait_for([&] {
        return celmuxd_.output().find("Send: AT+CMGL=4") != std::string::npos && call("get_rssi").result() != 65537;
    });
}

std::string Daemon::troubles() const
{
    constexpr size_t kept = 4000;
    std::string text = celmuxd_.output() + celmuxd_.errors();
    for (const std::string &line : root_.syslog().lines()) {
        text += line + "\n";
    }
    return text.substr(text.size() - std::min(text.size(), kept));
}

ExitStatus Daemon::stop()
{
    return celmuxd_.stop();
}

void Daemon::start_again()
{
    (void)celmuxd_.stop();
    start_celmuxd();
}
