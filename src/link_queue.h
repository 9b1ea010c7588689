// The commands that wait for their turn, and when the next one may be sent.
#pragma once

#include "link_state.h"

// Puts a command in front of those that wait. The caller has checked that there is room for it.
void put_first(LinkMachine *m, const LinkCommand &command);
// Sends what can be sent now.
void pump(LinkMachine *m, int64_t now);
