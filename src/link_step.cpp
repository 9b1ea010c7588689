// Getting in step: marks.

#include "link_parts.h"

#include <cstring>

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

uint8_t question_bit(std::string_view command)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if (command_line(QUESTIONS[i].command) == command_line(command))
            return static_cast<uint8_t>(1u << i);
    }
    return 0;
}

static int first_question(unsigned choice)
{
    for (int i = 0; i < QUESTION_COUNT; i++) {
        if (choice & (1u << i))
            return i;
    }
    return -1;
}

// A question to which no answer may come from before, one that this modem is known to answer if possible; -1 for none.
int free_question(const LinkMachine *m)
{
    unsigned unused = static_cast<uint8_t>(~m->busy);
    int question = first_question(unused & m->proven);
    return question == -1 ? first_question(unused) : question;
}

int proven_question(const LinkMachine *m, uint8_t but)
{
    return first_question(m->proven & ~m->busy & ~but);
}

std::string_view mark_command(const LinkMachine *m)
{
    return command_line(QUESTIONS[m->mark].command);
}

std::string_view mark_name(const LinkMachine *m)
{
    return QUESTIONS[m->mark].name;
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
    m->busy = static_cast<uint8_t>(m->busy | (1u << question));
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
    }
    int question = free_question(m);
    m->mark_decisive = question != -1;
    if (question == -1) {
        // Any question shows whether the modem is there; which of several times it was asked it answers cannot be told.
        question = first_question(m->proven);
        if (question == -1)
            question = (m->mark + 1) % QUESTION_COUNT;
    }
    (void)send_mark(m, question, now);
}

void now_in_step(LinkMachine *m, int64_t now)
{
    note_latency(m, QUESTIONS[m->mark].command, now - m->mark_at);
    m->proven = static_cast<uint8_t>(m->proven | (1u << m->mark));
    m->in_step = true;
    m->mark_out = false;
    m->busy = 0;
    m->escape = false;
}

void out_of_step(LinkMachine *m)
{
    m->in_step = false;
}
