// What has come: bytes, lines, prompts.
#pragma once

#include "link_state.h"

// As machine_take of link_machine.h.
size_t take_bytes(LinkMachine *m, const char *data, size_t size, int64_t now, LinkItem *item);
bool in_text_listing(const LinkMachine *m); // the text of a message may follow
void take_prompt(LinkMachine *m, int64_t now, LinkItem *item);
void give_out_lines(LinkMachine *m, LinkItem *item);
