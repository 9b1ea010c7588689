// Who is asked, what is owed, what has come: the one place that knows which command an answer belongs to. A state
// machine without threads, clock or files: its owner (link.cpp) holds a lock, hands in events with their time in
// microseconds and carries out what comes back. docs/architecture.md has its states and rules as tables.
//
// One command is under way at a time (ITU-T V.250 5.2.1). An answer belongs to it unless something speaks against that:
// then a mark, a harmless question whose answer cannot be mistaken, tells what else the modem has to say.
#pragma once

#include "link_state.h"

// Prepares a machine out of step: what the modem was asked before is not known. `probed`: of late the modem was asked
// for its identity (probe.h), and may still answer that.
void machine_init(LinkMachine *machine, bool probed, bool (*send)(const char *text, size_t length, uint32_t number));
// Frees what the machine holds.
void machine_free(LinkMachine *machine);

// Takes over `text` and sends it when its turn comes. Its number, or 0 (the text is freed) when too many commands wait.
uint32_t machine_submit(LinkMachine *machine, char *text, const char *expected, LinkCaller caller, int64_t now);
// The port is about to write what `send` was given. False: nobody wants it any more, do not write it.
bool machine_may_write(LinkMachine *machine, uint32_t number, int64_t now);
void machine_write_failed(LinkMachine *machine, uint32_t number, int64_t now, LinkItem *item);

// Bytes from the port, without zero bytes. Returns how many were taken; call again with the rest until an event gives
// nothing, also with none left.
size_t machine_take(LinkMachine *machine, const char *data, size_t size, int64_t now, LinkItem *item);
// Time has passed. Call until it gives nothing.
void machine_tick(LinkMachine *machine, int64_t now, LinkItem *item);
// When machine_tick is due; INT64_MAX for not before the next other event.
int64_t machine_next_tick(const LinkMachine *machine, int64_t now);

// The prompt has come: sends the text of the message and its end (Ctrl-Z). False when that is no longer wanted.
bool machine_send_message(LinkMachine *machine, uint32_t number, const char *pdu);
// The caller waits no longer. True: *answer gets what is taken for the answer (heap) or null for none. False: the
// answer was given out before.
bool machine_abandon(LinkMachine *machine, uint32_t number, int64_t now, char **answer);

// The port was opened anew: the modem has forgotten what it was asked, but a command that has not been written yet is
// sent. An item for a caller whose answer cannot come.
void machine_restarted(LinkMachine *machine, int64_t now, LinkItem *item);
// The modem says that it has started: what it was asked before may never be answered.
void machine_doubt(LinkMachine *machine, int64_t now);
// May the modem wait for the text of a message?
bool machine_at_prompt(const LinkMachine *machine);
