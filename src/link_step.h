// Getting in step: marks and the questions that they ask.
#pragma once

#include <string_view>

#include "link_state.h"

int question_of(std::string_view command); // the question that it is, to the letter; -1 when no mark asks that
void owe_answers(LinkMachine *m, std::string_view command); // to the questions that the command names
bool is_owed(const LinkMachine *m, int question);
// The question was answered. Answers come in the order of their questions, so none to an earlier one is owed any more.
void answer_came(LinkMachine *m, int question);
int answered_question(const LinkMachine *m); // the owed one whose answer stands in what has come; -1 for none
bool send_mark(LinkMachine *m, int question, int64_t now);
int proven_question(const LinkMachine *m);  // one that is not owed and that this modem is known to answer; -1 for none
bool may_ask_another(const LinkMachine *m); // than the mark that is out, which the modem does not seem to know
std::string_view mark_command(const LinkMachine *m);
void leave_message(LinkMachine *m);                 // the modem may wait for the text of a message
int64_t renewal(const LinkMachine *m, int64_t now); // so long a mark's answer is waited for
void get_in_step(LinkMachine *m, int64_t now);      // sends or renews a mark when it is time
void now_in_step(LinkMachine *m);
void out_of_step(LinkMachine *m);
