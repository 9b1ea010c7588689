// The supervisor of the modem: initialises it, watches data connections that are being set up, runs the periodic
// routine and reads the messages that the modem announces.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "message_fetch.h"

// A data connection is being set up (wanmd_enable). Written by this unit alone, read by any thread.
extern std::atomic<uint8_t> g_connecting;

// Thread function.
void *requester(void *);

// A data connection is being set up from now on: starts the watch and has the requester notice at once. Any thread.
void begin_connect_watch();

// What the main loop keeps from pass to pass. Only the requester's thread uses it.
struct RequesterState {
    timespec last_routine;
    bool routine_ran;
    bool pre_execute_pending;
    bool arrange;     // the IP family has not been asked for in this attempt
    uint32_t attempt; // the connection attempt that is being watched
    MessageFetch fetch;
};

RequesterState requester_start();
// One pass of the main loop, with the wait at its end (at most 1 s, or the time that exchanges with the modem take).
void requester_pass(RequesterState *state);
