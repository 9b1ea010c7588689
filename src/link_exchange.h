// The exchange under way and the text that has come: the steps that all parts of the link's state machine take.
#pragma once

#include <string_view>

#include "link_state.h"

constexpr int64_t MS = 1000;                // times are in microseconds
constexpr int64_t MARK_RENEWAL = 1000 * MS; // a mark without an answer is sent again

std::string_view view(const LinkMachine *m); // of what has come
bool in_exchange(const LinkMachine *m);      // a command has been written and is not over
uint32_t next_number(LinkMachine *m);        // of a command, a mark included; never 0
// Takes the text that has come out of the machine, up to the end of its last complete line, for the caller to free;
// null without memory.
char *take_text(LinkMachine *m);
void drop_text(LinkMachine *m);
char *take_candidate(LinkMachine *m); // what is taken for the answer, for the caller to free; null for none
// The exchange is over. `text` is its answer or null; taken over.
void finish(LinkMachine *m, char *text, LinkItem *item);
