// Decides to which command an answer belongs.
#pragma once

#include "link_state.h"

// Called when a final result code has come. Gives the answer out, keeps it until the answer to a mark shows whose it
// is, or drops it.
void judge(LinkMachine *m, int64_t now, LinkItem *item);
// Logs and frees a text that nobody waits for any more.
void drop_late(LinkMachine *m, char *text);
