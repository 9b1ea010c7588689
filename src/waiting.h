// Sleeping that ends: with a time-out on the monotonic clock, at once when the daemon stops, at once when woken.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

// 1 until main stops the daemon (stop_all of queues.h clears it). Any thread reads it.
extern std::atomic<uint8_t> running;
// Set by the thread of that name once it can work (set_ready), never cleared.
extern std::atomic<uint8_t> t_processor_ready;
extern std::atomic<uint8_t> t_listener_ready;
extern std::atomic<uint8_t> t_sender_ready;
extern std::atomic<uint8_t> t_requester_ready;

// Milliseconds of CLOCK_MONOTONIC_RAW.
int64_t monotonic_ms();
// Current CLOCK_MONOTONIC_RAW time.
timespec monotonic_now();

// Sleeps until *word differs from `seen`, wake_word is called on it, or `timeout_ms` passed (spurious returns happen).
void wait_word(std::atomic<uint32_t> *word, uint32_t seen, uint32_t timeout_ms);
// Wakes every sleeper on the word.
void wake_word(std::atomic<uint32_t> *word);

// Clears `running` and ends every sleep of this unit. Called once, by stop_all.
void end_sleeps();
// A descriptor (eventfd) that becomes readable once end_sleeps has been called, for poll; -1 before init_stop_event.
int stop_event_fd();
int init_stop_event(); // 0 or -1; called once by main before any thread starts

// Sleeps `ms` milliseconds, or less when the daemon stops. Returns true while `running` is still set.
bool sleep_while_running(uint32_t ms);

// Sets a ready flag and wakes those who wait for one.
void set_ready(std::atomic<uint8_t> *flag);
// Waits until all flags are set (true) or `running` is cleared (false).
bool wait_ready(std::atomic<uint8_t> *const flags[], unsigned count);
