// Getting in step: marks.

#include "link_step.h"

#include <cstring>

#include "link_exchange.h"
#include "link_memory.h"

constexpr int64_t MARK_RENEWAL_LATER = 5000 * MS; // by a modem that has been silent for long
constexpr int64_t LONG_SILENCE = 60000 * MS;

// Questions for marks. All are asked by the daemon at other times too, so every modem that it serves knows them.
struct Question {
    const char *command;
    std::string_view name;
};
static constexpr Question QUESTIONS[] = {
    {"AT+CGMI?\r", "+CGMI:"}, {"AT+GMM?\r", "+GMM:"},    {"AT+CGMR?\r", "+CGMR:"},
    {"AT+CMGF?\r", "+CMGF:"}, {"AT+CGSN=1\r", "+CGSN:"},
};
constexpr int QUESTION_COUNT = sizeof QUESTIONS / sizeof QUESTIONS[0];

int question_of(std::string_view command)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if (command_line(QUESTIONS[i].command) == command_line(command))
            return i;
    }
    return -1;
}

static void owe(LinkMachine *m, int question)
{
    if (m->owed_count && m->owed[m->owed_count - 1].question == question) {
        m->owed[m->owed_count - 1].many = true;
        return;
    }
    if (m->owed_count == LINK_OWED_MAX) // the oldest is the one most likely lost
        memmove(m->owed, m->owed + 1, --m->owed_count * sizeof m->owed[0]);
    m->owed[m->owed_count++] = {static_cast<uint8_t>(question), false};
}

void owe_answers(LinkMachine *m, std::string_view command)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if (name_of_line(QUESTIONS[i].name, command) == LineName::own)
            owe(m, i);
    }
}

static unsigned place_of(const LinkMachine *m, int question)
{
    unsigned place = 0;
    while (place < m->owed_count && m->owed[place].question != question)
        place++;
    return place;
}

bool is_owed(const LinkMachine *m, int question)
{
    return place_of(m, question) < m->owed_count;
}

void answer_came(LinkMachine *m, int question)
{
    unsigned gone = place_of(m, question);
    if (gone == m->owed_count)
        return;
    gone += m->owed[gone].many ? 0 : 1;
    m->owed_count -= gone;
    memmove(m->owed, m->owed + gone, m->owed_count * sizeof m->owed[0]);
}

int answered_question(const LinkMachine *m)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        bool not_yet = m->mark_out && !m->mark_written && m->mark == i && place_of(m, i) + 1 == m->owed_count &&
                       !m->owed[m->owed_count - 1].many;
        if (is_owed(m, i) && !not_yet && has_line_of(view(m), QUESTIONS[i].name))
            return i;
    }
    return -1;
}

int proven_question(const LinkMachine *m)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if ((m->proven & (1u << i)) && !is_owed(m, i))
            return i;
    }
    return -1;
}

// A question to which no answer may come from before, one that this modem is known to answer if possible; -1 for none.
static int free_question(const LinkMachine *m)
{
    int question = proven_question(m);
    for (int i = 0; i < QUESTION_COUNT && question == -1; i++) {
        if (!is_owed(m, i))
            question = i;
    }
    return question;
}

// The question that is asked again and again when all are owed: every modem that is served answers the first one.
static int repeated_question(const LinkMachine *m)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if (m->proven & (1u << i))
            return i;
    }
    return 0;
}

bool may_ask_another(const LinkMachine *m)
{
    return m->mark_out && m->mark_written && !(m->proven & (1u << m->mark)) && free_question(m) != -1;
}

std::string_view mark_command(const LinkMachine *m)
{
    return command_line(QUESTIONS[m->mark].command);
}

void leave_message(LinkMachine *m)
{
    m->escape = true;
    (void)m->send(LINK_ESCAPE, strlen(LINK_ESCAPE), 0); // sent again with the next mark
}

bool send_mark(LinkMachine *m, int question, int64_t now)
{
    const char *command = QUESTIONS[question].command;
    if (m->escape)
        (void)m->send(LINK_ESCAPE, strlen(LINK_ESCAPE), 0); // sent again with the next mark
    uint32_t number = next_number(m);
    if (!m->send(command, strlen(command), number)) {
        m->not_before = now + MARK_RENEWAL;
        return false;
    }
    m->mark = static_cast<uint8_t>(question);
    owe(m, question);
    m->mark_number = number;
    m->mark_out = true;
    m->mark_written = false;
    m->mark_at = now;
    note_asked(m, command);
    m->marks++;
    return true;
}

int64_t renewal(const LinkMachine *m, int64_t now)
{
    return m->silent_since && now - m->silent_since > LONG_SILENCE ? MARK_RENEWAL_LATER : MARK_RENEWAL;
}

void get_in_step(LinkMachine *m, int64_t now)
{
    if (now < m->not_before)
        return;
    if (m->mark_out) {
        if (!m->mark_written || now - m->mark_at < renewal(m, now))
            return;
        if (!m->silent_since)
            m->silent_since = m->mark_at;
        m->escape = true; // the mark may have become part of a message's text
    }
    int question = free_question(m);
    (void)send_mark(m, question == -1 ? repeated_question(m) : question, now);
}

void now_in_step(LinkMachine *m)
{
    m->in_step = true;
    m->mark_out = false;
    m->owed_count = 0;
    m->escape = false;
}

void out_of_step(LinkMachine *m)
{
    m->in_step = false;
}
