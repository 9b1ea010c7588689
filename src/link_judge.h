// Whose answer it is that has come.
#pragma once

#include "link_state.h"

// A final result code has come: gives the answer out, keeps it until a mark's answer tells, or drops it.
void judge(LinkMachine *m, int64_t now, LinkItem *item);
// Logs what nobody waits for any more, and frees it.
void drop_late(LinkMachine *m, char *text);
