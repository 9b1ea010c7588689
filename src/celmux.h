// What the units of the daemon share: result codes, the element of the text queues, and the state that crosses threads.
#pragma once

#include <atomic>
#include <cstdint>

#include "pool_queue.h"

// Outcome of every command function and the "result" member of method replies. Every value but RESULT_OK is a failure.
using result_t = uint32_t;
constexpr result_t RESULT_OK = 0;                    // "OK" and no "ERROR" in the answer
constexpr result_t RESULT_ERROR = 0xFFFF;            // "ERROR" in the answer, no answer text, or nothing recognised
constexpr result_t RESULT_NO_CARRIER = 0x10000;      // "NO CARRIER" without "ERROR" and "OK"
constexpr result_t RESULT_REQUEST_FAILED = 0x10001;  // the command could not be queued, or no answer came in time
constexpr result_t RESULT_INCOMPLETE = 0x10002;      // the expected prefix, but no final result
constexpr result_t RESULT_REFUSED = 0xFFFFFFFF;      // an argument refused before anything was sent, or an odd answer

// Element of at_tx_queue, at_rx_queue and resp_queue. `text` is a heap string (malloc) owned by whoever holds the element.
struct TextElem {
    char *text;
    uint32_t size; // length of the string in at_tx_queue, capacity of the buffer in the other two
    uint32_t number = 0; // of the command (link.h): what is written, or what the text answers
};

// The only channels between threads; created once by main before the threads start.
extern PoolQueue at_tx_queue;         // TextElem: commands to write; request API -> at_sender
extern PoolQueue at_rx_queue;         // TextElem: bursts read; at_listener -> resp_processor
extern PoolQueue resp_queue;          // TextElem: solicited answers; resp_processor -> request API
extern PoolQueue incomming_sms_queue; // int32_t: SIM storage indexes of new messages; resp_processor -> requester

// Single bytes, sequentially consistent accesses, no lock.
extern std::atomic<uint8_t> running;           // 1 until main sees SIGINT or SIGTERM (use stop_all of waiting.h to clear)
extern std::atomic<uint8_t> t_processor_ready; // set by the thread of that name once it can work, never cleared
extern std::atomic<uint8_t> t_listener_ready;
extern std::atomic<uint8_t> t_sender_ready;
extern std::atomic<uint8_t> t_requester_ready;
extern std::atomic<uint8_t> g_scanning;        // a network scan runs: at_enqueue refuses every command
extern std::atomic<uint8_t> g_scan_began;      // the scan command has been written to the port
extern std::atomic<uint8_t> g_connecting;      // a data connection is being set up (wanmd_enable)
extern std::atomic<uint8_t> ip_family_updated; // a "+CGDCONT: 1," line has been seen
extern std::atomic<int32_t> g_ip_family;       // 0 IPv4, 2 IPv6, 3 IPv4v6, -1 unknown; of PDP context 1
