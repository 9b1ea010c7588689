// The fixture of tests over a modem that answers as they say: its fakes are as new, nothing is logged, the daemon runs.
#pragma once

#include <gtest/gtest.h>

#include "captured_log.h"
#include "fake_modem_link.h"
#include "waiting.h"

using Answer = FakeLink::Answer;
using Strings = std::vector<std::string>;

// Of the link, and of what else is named.
template<auto &...fakes> class ModemTest : public testing::Test {
protected:
    ModemTest()
    {
        fake_link.reset();
        (fakes.reset(), ...);
        clear_log();
        running.store(1);
    }
    ~ModemTest() override
    {
        running.store(1);
    }
};
