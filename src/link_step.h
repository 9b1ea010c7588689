// Getting in step: the marks and the questions that they ask. A question is counted from 0.
#pragma once

#include <string_view>

#include "link_state.h"

// The question whose text `command` is, letter by letter; -1 when no mark asks that.
int question_of(std::string_view command);
// From now on the answers to the questions that `command` contains are owed.
void owe_answers(LinkMachine *m, std::string_view command);
bool is_owed(const LinkMachine *m, int question);
// The question was answered. Answers come in the order of their questions, so no earlier one is owed any more either.
void answer_came(LinkMachine *m, int question);
// The owed question whose answer is part of what has come; -1 when there is none.
int answered_question(const LinkMachine *m);
// Sends a mark that asks the question. Returns false when the port does not take it now.
bool send_mark(LinkMachine *m, int question, int64_t now);
// A question that is not owed and that this modem is known to answer; -1 when there is none.
int proven_question(const LinkMachine *m);
// May the next mark ask another question than the mark that is out, since the modem does not seem to know that one?
bool may_ask_another(const LinkMachine *m);
std::string_view mark_command(const LinkMachine *m);
// Sends LINK_ESCAPE: the modem may wait for the text of a message.
void leave_message(LinkMachine *m);
// For how many microseconds the answer to a mark is waited for.
int64_t renewal(const LinkMachine *m, int64_t now);
// Sends a mark, or sends it again, when it is time.
void get_in_step(LinkMachine *m, int64_t now);
void now_in_step(LinkMachine *m);
void out_of_step(LinkMachine *m);
