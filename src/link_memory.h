// What the machine has learned about the way in which this modem answers.
#pragma once

#include <string_view>

#include "link_state.h"

void note_asked(LinkMachine *m, std::string_view command);
// Was something asked before that has this name? Then a line with the name is an answer, and not an unsolicited result
// code that the daemon does not know.
bool was_asked(const LinkMachine *m, std::string_view name);
// Was the name of the command under way asked in another form before, as "AT+CSIM?" before "AT+CSIM=1"?
bool other_form_asked(const LinkMachine *m);
// Remembers how long an answer took that certainly belongs to `command`.
void note_latency(LinkMachine *m, std::string_view command, int64_t took);
// As far as is known, does the modem answer the command under way with a line that carries its name?
bool answered_by_name(const LinkMachine *m);
// Did the answer come sooner than the recent answers of this modem? `own` tells that it has the command's name.
bool came_early(const LinkMachine *m, bool own, int64_t now);
// Remembers that the command under way is answered sooner than others.
void note_quick(LinkMachine *m);
