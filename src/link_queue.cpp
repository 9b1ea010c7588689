#include "link_queue.h"

#include <cstring>

#include "link_exchange.h"
#include "link_memory.h"
#include "link_step.h"

void put_first(LinkMachine *m, const LinkCommand &command)
{
    memmove(m->waiting + 1, m->waiting, m->waiting_count * sizeof m->waiting[0]);
    m->waiting[0] = command;
    m->waiting_count++;
}

static void start_exchange(LinkMachine *m, int64_t now)
{
    LinkCommand next = m->waiting[0];
    if (now < m->not_before)
        return;
    if (m->escape)
        (void)m->send(LINK_ESCAPE, strlen(LINK_ESCAPE), 0);
    if (!m->send(next.text, strlen(next.text), next.number)) {
        m->not_before = now + MARK_RENEWAL;
        return;
    }
    m->waiting_count--;
    memmove(m->waiting, m->waiting + 1, m->waiting_count * sizeof m->waiting[0]);
    m->due = next;
    note_asked(m, next.text);
    m->tells_itself = !m->in_step;
    m->phase = LinkPhase::queued;
    m->commands++;
}

// May the next command be sent out of step, because its own answer cannot be mistaken? Whose answer the maker's name is
// does not matter, it never changes.
static bool tells_itself(const LinkMachine *m)
{
    const LinkCommand &next = m->waiting[0];
    int question = next.expected ? question_of(next.text) : -1;
    return !m->mark_out && question != -1 && (!is_owed(m, question) || question == question_of("AT+CGMI?"));
}

void pump(LinkMachine *m, int64_t now)
{
    if (m->phase == LinkPhase::confirming)
        get_in_step(m, now);
    if (m->phase != LinkPhase::idle || m->waiting_count == 0)
        return;
    if (m->in_step || tells_itself(m))
        start_exchange(m, now);
    else
        get_in_step(m, now);
}
