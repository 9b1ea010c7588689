// What a call came to in words, and the exit status that stands for it.
#pragma once

#include "bus.h"
#include "command.h"

// Unless reply.done(): one line on standard error, "celmux: <what>: <why>" (without "<what>: " for null), such as
// "celmux: signal: the modem did not answer within 3 s". Returns the exit status, EXIT_DONE for a reply that is done.
int explain(const char *what, const Reply &reply);

// The same without printing: writes why into `text`, at most `size` bytes with the terminating zero.
ExitCode describe_failure(const Reply &reply, char *text, size_t size);

// Calls and, unless it is done, explains on standard error what was not: "celmux: <what>: <why>". Returns the exit
// status. For setters that have nothing to show.
int bus_do(const char *method, const CallArguments *arguments, const char *what, int timeout_ms = CALL_TIMEOUT_MS);
