// STAND-IN, to be replaced: whether the modem is silent.
#pragma once

#include <atomic>
#include <cstdint>

inline std::atomic<uint8_t> link_silent_stand_in{0}; // request.cpp: an answer timed out and none has come since
inline bool link_silent()
{
    return link_silent_stand_in.load();
}
