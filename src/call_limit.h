// How long the requests of a call on the bus may go on: a call that has waited for its turn has less time left than its
// command's own time-out, and one whose time is over sends nothing any more.
#pragma once

#include <cstdint>

constexpr int64_t NO_CALL_LIMIT = INT64_MAX; // every thread's at first
constexpr int64_t CALL_IS_OVER = INT64_MIN;  // no request of this thread is sent

// Sets the calling thread's limit: until when (monotonic ms) its requests may go on while the modem is silent.
void limit_requests(int64_t deadline_ms);

// Shortens *timeout_ms to what the calling thread's limit leaves of it. False when that is nothing: nothing may be
// sent.
bool limit_to_call(uint32_t *timeout_ms);
