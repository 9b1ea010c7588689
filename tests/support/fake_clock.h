// Another body for src/waiting.cpp: time stands still but for the waits, which end at once and move it on.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

struct FakeClock {
    int64_t now_ms = 1000000;
    std::vector<uint32_t> sleeps;              // of sleep_while_running
    std::function<void(uint32_t ms)> on_sleep; // called before time moves

    void reset();
};

extern FakeClock fake_clock;
