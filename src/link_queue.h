// What is to be sent: the commands that wait for their turn, and when the next one may go.
#pragma once

#include "link_state.h"

void put_first(LinkMachine *m, const LinkCommand &command); // there is room for it
void pump(LinkMachine *m, int64_t now);                     // sends what can be sent now
