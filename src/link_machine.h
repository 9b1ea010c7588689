// The one place that knows which command an answer belongs to. It keeps what has been sent, which answers are still
// owed and what has come. It is a state machine without threads, clock or files: its owner (link.cpp) holds a lock,
// hands in events with their time in microseconds and carries out what comes back. docs/architecture.md describes the
// states and rules in tables.
//
// One command is under way at a time (ITU-T V.250 5.2.1). An answer belongs to that command unless there is a reason to
// doubt it. In that case the machine sends a mark: a harmless question whose answer cannot be mistaken for another one.
// Whatever comes before that answer belongs to earlier commands.
#pragma once

#include "link_state.h"

// Prepares a machine. It begins out of step, since nobody knows what the modem was asked before. `probed` tells that
// the modem was asked for its identity a short time ago (probe.h) and may still answer that question.
void machine_init(LinkMachine *machine, bool probed, bool (*send)(const char *text, size_t length, uint32_t number));
// Frees what the machine holds.
void machine_free(LinkMachine *machine);

// Takes over `text` and sends it when its turn comes. Returns the number of the command, or 0 when too many commands
// wait; the text is freed then.
uint32_t machine_submit(LinkMachine *machine, char *text, const char *expected, LinkCaller caller, int64_t now);
// To be called before the text that `send` was given is written to the port. Returns false when nobody wants it any
// more and it must not be written.
bool machine_may_write(LinkMachine *machine, uint32_t number, int64_t now);
void machine_write_failed(LinkMachine *machine, uint32_t number, int64_t now, LinkItem *item);

// Hands in bytes from the port, without zero bytes. Returns how many were taken. To be called again with the rest, even
// when nothing is left, until it gives no item.
size_t machine_take(LinkMachine *machine, const char *data, size_t size, int64_t now, LinkItem *item);
// Does what is due at the time `now`. To be called again until it gives no item.
void machine_tick(LinkMachine *machine, int64_t now, LinkItem *item);
// When machine_tick is due; INT64_MAX when it is not due before the next event of another kind.
int64_t machine_next_tick(const LinkMachine *machine, int64_t now);

// After the prompt: sends the text of the message and its end (Ctrl-Z). Returns false when the modem does not wait for
// it any more.
bool machine_send_message(LinkMachine *machine, uint32_t number, const char *pdu);
// The caller stops waiting. Returns true with *answer set to the text that may be the answer (heap text, or null when
// there is none); false when the answer was given out before.
bool machine_abandon(LinkMachine *machine, uint32_t number, int64_t now, char **answer);

// To be called when the port was opened anew. The modem has forgotten what it was asked; a command that has not been
// written yet is still sent. Gives an item for a caller whose answer can no longer come.
void machine_restarted(LinkMachine *machine, int64_t now, LinkItem *item);
// To be called when the modem says that it has started. What it was asked before may never be answered.
void machine_doubt(LinkMachine *machine, int64_t now);
// Is it possible that the modem waits for the text of a message?
bool machine_at_prompt(const LinkMachine *machine);
