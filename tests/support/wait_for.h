// Waiting for something with a limit, the only way in which system tests wait.
#pragma once

#include <chrono>
#include <thread>

// A limit for what takes milliseconds on a quiet machine; reached only when something is broken.
constexpr std::chrono::milliseconds patience{20000};

// Asks `predicate` again and again until it holds or `limit` has passed; returns whether it held.
template<typename Predicate> bool wait_for(Predicate predicate, std::chrono::milliseconds limit = patience)
{
    auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
