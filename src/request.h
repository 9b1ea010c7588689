// The synchronous request API: every exchange with the modem goes through it, one at a time under request_mutex.
#pragma once

#include <cstdint>

// Sends one command line and waits for its answer. `command` is sent as it stands, with "\r" appended when `append_cr`.
// An answer is accepted when it holds "ERROR" or `expected` (any, when `expected` is null); others are dropped.
// Returns 0 with *answer set to a heap text that the caller frees (null when the daemon stops); -1 when the command could not
// be queued or no answer came within `timeout_ms`; an error number (ETIMEDOUT) when request_mutex was not had in time.
// *answer is written only on 0. Any thread.
int request(const char *command, char **answer, const char *expected, int append_cr, uint32_t timeout_ms);

// The command that starts a network scan; while the scan runs (g_scanning) every other command is refused.
constexpr char SCAN_COMMAND[] = "AT+COPS=?\r";
// The scan is over, or its answer can no longer come.
void end_scan();

// Whether the modem will answer what is queued, and whether somebody waits for that.
enum class Owes { nothing, unawaited, awaited };
// The one way into at_tx_queue: queues a command, waiting up to `patience_ms` for room. 0, or -1 after a log line. *number (null is allowed)
// gets the command's number among those that are answered (link_step.h).
int queue_command(const char *command, int append_cr, uint32_t patience_ms, Owes owes, uint32_t *number);

// Queues a command without waiting for an answer. 0, or -1 (a scan runs, the queue stays full, no memory), logged.
int at_enqueue(const char *command, int append_cr);
// The same for the response processor, which never waits: a full queue refuses at once.
int at_enqueue_nowait(const char *command, int append_cr);

// 0 with an answer (null when the daemon stops), -1 on time-out. The caller holds request_mutex.
int wait_for_response(char **answer, const char *expected, uint32_t timeout_ms);
// Drops every answer in resp_queue. 0 when at least one was dropped, -1 when there was none.
int flush_response();

// Up to `tries` requests of 3000 ms without an expected text, until an answer holds "OK". 0 with *answer (the caller frees
// it), or -1 with *answer null.
int exec_retry(const char *command, char **answer, int append_cr, int tries);

// The AT+CMGS exchange (3GPP TS 27.005 3.5.1) for one PDU in hexadecimal. `length` is the number of octets without the
// service-centre address. 0 sent, -1 failed, or the error number of the wait for request_mutex.
int send_message_request(const char *pdu, int length, uint32_t timeout_ms);
