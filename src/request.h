// The synchronous request API: every exchange with the modem goes through it, one at a time under request_mutex.
#pragma once

#include <cstdint>

// Sends one command line and waits for its answer. `command` is sent as it stands, with "\r" appended when `append_cr`.
// A final result code ends the wait; the answer is accepted when it holds "ERROR" or `expected` (any, when `expected`
// is null). Returns 0 with *answer set to a heap text that the caller frees (null when the daemon stops): all that the
// modem said up to the end of the final result code, reports included. -1 when the command could not be queued, the
// answer is not accepted, cannot come any more, or none came within `timeout_ms`; an error number (ETIMEDOUT) when
// request_mutex was not had in time. *answer is written only on 0. Any thread.
int request(const char *command, char **answer, const char *expected, int append_cr, uint32_t timeout_ms);

// Queues a command without waiting for an answer; it is sent when nothing else is under way. 0, or -1 (a scan runs, too
// many commands wait, no memory), logged. Never waits. Any thread.
int at_enqueue(const char *command, int append_cr);

// Up to `tries` requests of 3000 ms without an expected text, until an answer holds "OK". 0 with *answer (the caller
// frees it), or -1 with *answer null.
int exec_retry(const char *command, char **answer, int append_cr, int tries);

// The AT+CMGS exchange (3GPP TS 27.005 3.5.1) for one PDU in hexadecimal. `length` is the number of octets without the
// service-centre address. `timeout_ms` bounds the wait for each of prompt and result. 0 sent, -1 failed, or the error
// number of the wait for request_mutex.
int send_message_request(const char *pdu, int length, uint32_t timeout_ms);
