// The one link to the modem: the state machine of link_machine.h behind a lock, with the clock and the queues. The four
// threads only feed it: callers submit and abandon commands, the sender asks before it writes, the response processor
// hands in what came and the time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "link_machine.h"

// 1 while a network scan runs: every other command is refused. Only this unit writes it; any thread may read it.
extern std::atomic<uint8_t> g_scanning;
// 1 once the command of the scan has been written to the port. The sender sets it, scan_network waits for it.
extern std::atomic<uint8_t> g_scan_began;

// Called once, before the threads start; `probed` as in machine_init.
void link_init(bool probed);
void link_free();

// Queues a command; "\r" is appended when `append_cr`. `expected` (null: anything) must last until the answer has come
// or link_abandon was called. Returns the number of the command, or 0 after a log line when a network scan runs, too
// many commands wait or there is no memory. The answer comes in resp_queue under that number unless the caller is
// nobody. Any thread; never waits.
uint32_t link_submit(const char *command, int append_cr, const char *expected, LinkCaller caller);
// The caller stops waiting. Returns true with *answer set to the answer as far as it is known (heap text, or null when
// there is none); false when the answer is on its way to resp_queue.
bool link_abandon(uint32_t number, char **answer);
// Sends the PDU and Ctrl-Z after the prompt. Returns false when the modem does not wait for them any more.
bool link_send_message(uint32_t number, const char *pdu);

// Called by the sender only. Returns false when nobody wants the command any more.
bool link_may_write(uint32_t number);
void link_write_failed(uint32_t number);
// Must the modem be sent LINK_ESCAPE before the port is closed?
bool link_at_prompt();

// Called by the response processor only; as machine_take and machine_tick of link_machine.h.
size_t link_take(const char *data, size_t size, LinkItem *item);
void link_tick(LinkItem *item);
// Returns for how many ms the response processor may sleep, at most `ceiling_ms`. When an event of another thread makes
// that time shorter, an element without a text is put into at_rx_queue, which wakes the response processor.
uint32_t link_sleep_ms(uint32_t ceiling_ms);

// To be called when the port was opened anew or was lost. Any thread.
void link_restarted();
// To be called when the modem says that it has started. Any thread.
void link_doubt();

// Did the last answer not come, and has the modem sent nothing since? Any thread.
bool link_silent();

// The command that starts a network scan; while the scan runs (g_scanning) every other command is refused.
constexpr char SCAN_COMMAND[] = "AT+COPS=?\r";
// The scan is over, or its answer can no longer come. Any thread.
void end_scan();

// How many bursts ended by silence although a gap of more than 1 ms was granted.
extern std::atomic<uint32_t> link_gap_bursts;
// Logs one line about what happened since the last such line, and nothing when nothing happened. Called by the
// requester only.
void log_link_statistics();
