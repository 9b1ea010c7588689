// Divides the bytes from the port into lines and prompts, and gives out the unsolicited result codes among them.
#pragma once

#include "link_state.h"

// As machine_take of link_machine.h.
size_t take_bytes(LinkMachine *m, const char *data, size_t size, int64_t now, LinkItem *item);
// May a line of what has come be the text of a message, as in an answer to AT+CMGL in text mode?
bool in_text_listing(const LinkMachine *m);
// Takes a prompt that stands at the end of what has come.
void take_prompt(LinkMachine *m, int64_t now, LinkItem *item);
// Gives out, as reports, the complete lines that have come while no answer is due.
void give_out_lines(LinkMachine *m, LinkItem *item);
