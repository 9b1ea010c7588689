// What is known of how this modem answers.
#pragma once

#include <string_view>

#include "link_state.h"

void note_asked(LinkMachine *m, std::string_view command);
// Is it the name of something that was asked before? Then a line with it is an answer, not a report that is not known.
bool was_asked(const LinkMachine *m, std::string_view name);
// Was the name of the command under way asked in another form before, as "AT+CSIM?" before "AT+CSIM=1"?
bool other_form_asked(const LinkMachine *m);
// An answer that is surely the command's own took so long.
void note_latency(LinkMachine *m, std::string_view command, int64_t took);
// Does the modem answer the command under way with a line of its name, as far as is known?
bool answered_by_name(const LinkMachine *m);
// Did the answer come sooner than the modem's recent ones? `own`: it has the command's name.
bool came_early(const LinkMachine *m, bool own, int64_t now);
// The command under way is answered sooner than others.
void note_quick(LinkMachine *m);
