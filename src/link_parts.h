// What the parts of the link's state machine (link_machine.h) offer each other; nobody else includes this. The lower
// ones first.
#pragma once

#include <string_view>

#include "link_state.h"

constexpr int64_t MS = 1000;                // times are in microseconds
constexpr int64_t MARK_RENEWAL = 1000 * MS; // a mark without an answer is sent again

// link_memory.cpp: how this modem answers.
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

// link_step.cpp: getting in step.
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

// link_bytes.cpp: what has come.
bool in_exchange(const LinkMachine *m); // a command has been written and is not over
char *take_text(LinkMachine *m); // up to the end of the last complete line, for the caller to free; null without memory
void drop_text(LinkMachine *m);
bool is_prompt(std::string_view line);
bool in_text_listing(const LinkMachine *m);
void take_prompt(LinkMachine *m, int64_t now, LinkItem *item);
void give_out_lines(LinkMachine *m, LinkItem *item);

// link_judge.cpp: whose answer it is.
bool holds(std::string_view text, std::string_view part);
bool has_line_of(std::string_view text, std::string_view name);
void drop_late(LinkMachine *m, char *text);
char *take_candidate(LinkMachine *m); // what is taken for the answer, for the caller to free; null for none
void judge(LinkMachine *m, int64_t now, LinkItem *item);

// link_machine.cpp: what is sent.
std::string_view view(const LinkMachine *m); // of what has come
uint32_t next_number(LinkMachine *m);
void put_first(LinkMachine *m, const LinkCommand &command); // there is room for it
void pump(LinkMachine *m, int64_t now);                     // sends what can be sent now
// The exchange is over. `text` is its answer or null; taken over.
void finish(LinkMachine *m, char *text, LinkItem *item);
