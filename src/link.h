// The one link to the modem: the state machine of link_machine.h behind a lock, with the clock and the queues. The four
// threads only feed it: callers submit and abandon commands, the sender asks before it writes, the response processor
// hands in what came and the time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "link_machine.h"

// A network scan runs: every other command is refused. Written by this unit alone, read by any thread.
extern std::atomic<uint8_t> g_scanning;
extern std::atomic<uint8_t> g_scan_began; // its command has been written to the port: set by the sender

// Before the threads start; `probed` as in machine_init.
void link_init(bool probed);
void link_free();

// Queues a command; "\r" is appended when `append_cr`. `expected` (null: anything) must last until the answer has come
// or link_abandon was called. Returns its number, or 0 after a log line: a network scan runs, too many commands wait,
// no memory. Its answer comes in resp_queue under that number unless the caller is nobody. Any thread; never waits.
uint32_t link_submit(const char *command, int append_cr, const char *expected, LinkCaller caller);
// The caller waits no longer. True: *answer is the answer as far as it is known (heap, or null for none). False: the
// answer is on its way to resp_queue.
bool link_abandon(uint32_t number, char **answer);
// Behind the prompt: the PDU and Ctrl-Z. False when the modem does not wait for it any more.
bool link_send_message(uint32_t number, const char *pdu);

// The sender only. False: the command is not wanted any more.
bool link_may_write(uint32_t number);
void link_write_failed(uint32_t number);
// Is the modem to be sent LINK_ESCAPE before the port is closed?
bool link_at_prompt();

// The response processor only: as machine_take and machine_tick of link_machine.h.
size_t link_take(const char *data, size_t size, LinkItem *item);
void link_tick(LinkItem *item);
// How long the response processor may sleep, at most `ceiling_ms`. When that gets less, an element without a text comes
// in at_rx_queue.
uint32_t link_sleep_ms(uint32_t ceiling_ms);

// The port was opened anew, or is lost; the modem says that it has started. Any thread.
void link_restarted();
void link_doubt();

// Has an answer failed to come, and nothing come since? Any thread.
bool link_silent();

// The command that starts a network scan; while the scan runs (g_scanning) every other command is refused.
constexpr char SCAN_COMMAND[] = "AT+COPS=?\r";
// The scan is over, or its answer can no longer come. Any thread.
void end_scan();

extern std::atomic<uint32_t>
    link_gap_bursts; // bursts that ended by silence although a longer gap than 1 ms was granted
// One line with what happened since the last one, none when nothing did. Only the requester.
void log_link_statistics();
