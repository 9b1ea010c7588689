// What the simulated modem does to the daemon: troubles, messages, and everything that happens to modems.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ledger.h"
#include "modem.h"
#include "random.h"

class Mischief {
public:
    Mischief(Modem &modem, Ledger &ledger, uint64_t seed) : modem_(modem), ledger_(ledger), random_(seed) {}

    // One thing more.
    void act();
    // From now on the modem behaves: no troubles, port and card there, the usual settings of the network.
    void end();

    // How often each happened, those of answers as the modem counted them.
    std::map<std::string, int64_t> figures();

    // One command of the control socket; throws std::runtime_error when it was refused.
    nlohmann::json control(const nlohmann::json &command);

private:
    void trouble();
    void message();
    void long_message();
    void event();

    Modem &modem_;
    Ledger &ledger_;
    Random random_;
    std::map<std::string, int64_t> done_;
    uint64_t long_messages_ = 0;
};
