// The result codes of the daemon.
#pragma once

#include <cstdint>

// Outcome of every command function and the "result" member of method replies. Every value but RESULT_OK is a failure.
using result_t = uint32_t;
constexpr result_t RESULT_OK = 0;                   // "OK" and no "ERROR" in the answer
constexpr result_t RESULT_ERROR = 0xFFFF;           // "ERROR" in the answer, no answer text, or nothing recognised
constexpr result_t RESULT_NO_CARRIER = 0x10000;     // "NO CARRIER" without "ERROR" and "OK"
constexpr result_t RESULT_REQUEST_FAILED = 0x10001; // the command could not be queued, or no answer came in time
constexpr result_t RESULT_INCOMPLETE = 0x10002;     // the expected prefix, but no final result
constexpr result_t RESULT_REFUSED = 0xFFFFFFFF;     // an argument refused before anything was sent, or an odd answer
