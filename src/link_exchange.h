// The exchange under way and the text that has come: the steps that all other parts of the link's state machine use.
#pragma once

#include <string_view>

#include "link_state.h"

constexpr int64_t MS = 1000;                // times are in microseconds
constexpr int64_t MARK_RENEWAL = 1000 * MS; // a mark without an answer is sent again

// The text that has come and has not been given out yet.
std::string_view view(const LinkMachine *m);
// Has a command been written whose answer is not complete yet?
bool in_exchange(const LinkMachine *m);
// The number of the next command or mark; never 0.
uint32_t next_number(LinkMachine *m);
// Takes the text that has come, up to the end of its last complete line, out of the machine. Heap text that the caller
// frees; null without memory.
char *take_text(LinkMachine *m);
void drop_text(LinkMachine *m);
// Takes the text that may be the answer out of the machine. Heap text that the caller frees; null when there is none.
char *take_candidate(LinkMachine *m);
// Ends the exchange. `text` is its answer, or null when there is none; it belongs to *item afterwards.
void finish(LinkMachine *m, char *text, LinkItem *item);
