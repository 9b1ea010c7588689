#include "link_exchange.h"

#include <cstdlib>
#include <cstring>

std::string_view view(const LinkMachine *m)
{
    return {m->text ? m->text : "", m->length};
}

uint32_t next_number(LinkMachine *m)
{
    if (++m->last_number == 0)
        m->last_number = 1;
    return m->last_number;
}

bool in_exchange(const LinkMachine *m)
{
    return m->phase == LinkPhase::sent || m->phase == LinkPhase::confirming;
}

char *take_text(LinkMachine *m)
{
    char *text = m->text;
    if (m->line == m->length) {
        m->text = nullptr;
        m->length = m->capacity = m->line = 0;
        return text;
    }
    char *copy = static_cast<char *>(malloc(m->line + 1));
    if (copy) {
        memcpy(copy, text, m->line);
        copy[m->line] = '\0';
    }
    m->length -= m->line;
    memmove(text, text + m->line, m->length + 1);
    m->line = 0;
    return copy;
}

void drop_text(LinkMachine *m)
{
    free(take_text(m));
    m->header_open = false;
    m->overflow = false;
}

char *take_candidate(LinkMachine *m)
{
    char *text = m->candidate;
    m->candidate = nullptr;
    if (m->spoiled) {
        free(text);
        text = nullptr;
    }
    return text;
}

void finish(LinkMachine *m, char *text, LinkItem *item)
{
    bool awaited = m->due.caller != LinkCaller::nobody;
    *item = {LinkItem::Kind::answer, m->due.number, awaited, m->due.kind == CommandKind::scan, text};
    free(m->candidate);
    m->candidate = nullptr;
    free(m->due.text);
    m->due = {};
    m->phase = LinkPhase::idle;
}
