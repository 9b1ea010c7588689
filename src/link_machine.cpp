// Callers, the port and time. What has come is read in link_bytes.cpp and judged in link_judge.cpp.

#include "link_machine.h"

#include <cstdlib>
#include <cstring>

#include "link_bytes.h"
#include "link_exchange.h"
#include "link_judge.h"
#include "link_queue.h"
#include "link_step.h"
#include "log.h"

constexpr int64_t LINE_END_PATIENCE = 20 * MS; // for the LF behind a CR, and for text behind what looks like a prompt
constexpr int64_t RESULT_PATIENCE = 100 * MS;  // for the line end behind a final result code
constexpr int64_t HEADER_PATIENCE = 1000 * MS; // for the second line of a report
constexpr int64_t OWED_PATIENCE = 1000 * MS;   // for an answer that no caller waits for, while others wait for the link
constexpr int64_t OWED_LIMIT = 10000 * MS;     // the same, while nobody does
constexpr int64_t SCAN_LIMIT = 300000 * MS;
constexpr int64_t SCAN_END_PATIENCE = 2000 * MS; // for the final result code behind the operators

void machine_init(LinkMachine *m, bool probed, bool (*send)(const char *text, size_t length, uint32_t number))
{
    *m = {};
    m->send = send;
    m->escape = true;
    for (const char *asked : {"AT+CGSN=1", "AT+GMM?", "AT+CGMI?"}) {
        if (probed)
            owe_answers(m, asked);
    }
}

void machine_free(LinkMachine *m)
{
    for (unsigned i = 0; i < m->waiting_count; i++)
        free(m->waiting[i].text);
    free(m->due.text);
    free(m->candidate);
    free(m->text);
    *m = {};
}

uint32_t machine_submit(LinkMachine *m, char *text, const char *expected, LinkCaller caller, int64_t now)
{
    // The last place is for a caller.
    if (m->waiting_count >= (caller == LinkCaller::nobody ? LINK_WAITING_MAX - 1 : LINK_WAITING_MAX)) {
        free(text);
        return 0;
    }
    uint32_t number = next_number(m);
    m->waiting[m->waiting_count++] = {text, expected, number, caller, kind_of_command(text)};
    pump(m, now);
    return number;
}

static bool tail_is_prompt(const LinkMachine *m)
{
    std::string_view tail = view(m).substr(m->line);
    return (tail == ">" || tail == "> ") && !in_text_listing(m);
}

static bool tail_is_result(const LinkMachine *m)
{
    std::string_view tail = view(m).substr(m->line);
    return !tail.empty() && is_final_result(tail, in_exchange(m) ? m->due.kind : CommandKind::plain);
}

bool machine_may_write(LinkMachine *m, uint32_t number, int64_t now)
{
    if (number == 0)
        return true;
    if (m->mark_out && number == m->mark_number) {
        m->mark_written = true;
        m->mark_at = now;
        return true;
    }
    if (m->phase == LinkPhase::sent && m->message_sent && number == m->due.number)
        return true;
    if (m->phase != LinkPhase::queued || number != m->due.number) {
        pump(m, now); // there is room again
        return false;
    }
    // What came before cannot be its answer, nor a final result code whose line end is missing yet.
    if (m->result_open || tail_is_result(m)) {
        m->result_open = false;
        m->line = m->length;
        drop_late(m, take_text(m));
    }
    m->phase = LinkPhase::sent;
    m->message_sent = false;
    m->sent_at = now;
    m->overflow = false;
    return true;
}

void machine_write_failed(LinkMachine *m, uint32_t number, int64_t now, LinkItem *item)
{
    *item = {};
    m->not_before = now + MARK_RENEWAL;
    if (m->mark_out && number == m->mark_number) {
        m->mark_out = false;
    } else if (m->phase == LinkPhase::sent && number == m->due.number) {
        out_of_step(m); // some of it may have been written
        m->escape = m->escape || m->due.caller == LinkCaller::sends;
        finish(m, nullptr, item);
    }
}

size_t machine_take(LinkMachine *m, const char *data, size_t size, int64_t now, LinkItem *item)
{
    return take_bytes(m, data, size, now, item);
}

bool machine_send_message(LinkMachine *m, uint32_t number, const char *pdu)
{
    if (m->phase != LinkPhase::prompted || m->due.number != number)
        return false;
    m->phase = LinkPhase::sent;
    m->message_sent = true;
    return m->send(pdu, strlen(pdu), number) && m->send("\x1a", 1, number);
}

// The answer to the command under way is owed from now on.
static void give_up_due(LinkMachine *m, int64_t now)
{
    out_of_step(m);
    if (m->due.caller == LinkCaller::sends)
        leave_message(m);
    owe_answers(m, m->due.text);
    if (!m->silent_since)
        m->silent_since = now;
    m->timeouts++;
    m->header_open = false;
    if (!m->result_open) // a result whose line end is missing ends what is dropped
        drop_text(m);
}

bool machine_abandon(LinkMachine *m, uint32_t number, int64_t now, char **answer)
{
    *answer = nullptr;
    for (unsigned i = 0; i < m->waiting_count; i++) {
        if (m->waiting[i].number != number)
            continue;
        free(m->waiting[i].text);
        m->waiting_count--;
        memmove(m->waiting + i, m->waiting + i + 1, (m->waiting_count - i) * sizeof m->waiting[0]);
        return true;
    }
    if (m->phase == LinkPhase::idle || m->due.number != number)
        return false;
    LinkItem item = {};
    if (m->phase == LinkPhase::confirming) {
        // The mark's answer is late too: then an answer that came too early, or another command's, is not this one's.
        bool likely = m->doubt == LinkDoubt::listing || m->doubt == LinkDoubt::bare;
        *answer = likely ? take_candidate(m) : nullptr;
        out_of_step(m);
    } else if (m->phase != LinkPhase::queued) {
        give_up_due(m, now);
    }
    finish(m, nullptr, &item);
    pump(m, now);
    return true;
}

void machine_restarted(LinkMachine *m, int64_t now, LinkItem *item)
{
    *item = {};
    out_of_step(m);
    m->escape = machine_at_prompt(m);
    m->mark_out = false; // it is not answered; another question is asked next
    m->recent_count = 0;
    memset(m->quick, 0, sizeof m->quick);
    m->result_open = false;
    m->not_before = 0;
    m->line = m->length;
    drop_text(m);
    if (m->phase == LinkPhase::queued && m->waiting_count < LINK_WAITING_MAX) {
        put_first(m, m->due);
        m->due = {};
        m->phase = LinkPhase::idle;
    } else if (m->phase != LinkPhase::idle) {
        finish(m, nullptr, item);
    }
    pump(m, now);
}

void machine_doubt(LinkMachine *m, int64_t now)
{
    out_of_step(m);
    if (m->mark_out && m->phase != LinkPhase::confirming)
        m->mark_at = now - renewal(m, now);
    pump(m, now);
}

bool machine_at_prompt(const LinkMachine *m)
{
    bool message = m->due.caller == LinkCaller::sends && m->phase != LinkPhase::idle && m->phase != LinkPhase::queued;
    return message || m->escape;
}

// Until when a command that no caller waits for keeps the link; INT64_MAX for a caller's.
static int64_t owed_until(const LinkMachine *m)
{
    if (m->phase == LinkPhase::idle || m->phase == LinkPhase::queued || m->due.caller != LinkCaller::nobody)
        return INT64_MAX;
    if (m->due.kind != CommandKind::scan)
        return m->sent_at + (m->waiting_count ? OWED_PATIENCE : OWED_LIMIT);
    bool listed = has_line_of(view(m), "+COPS:");
    return listed ? m->last_byte + SCAN_END_PATIENCE : m->sent_at + SCAN_LIMIT;
}

// How long the end of the text may still be followed by more of the same line or report; INT64_MAX: it is not waited
// for.
static int64_t text_until(const LinkMachine *m)
{
    if (m->result_open || tail_is_prompt(m))
        return m->last_byte + LINE_END_PATIENCE;
    if (tail_is_result(m))
        return m->last_byte + RESULT_PATIENCE;
    if (m->header_open)
        return m->last_byte + HEADER_PATIENCE;
    return INT64_MAX;
}

static int64_t mark_due(const LinkMachine *m, int64_t now)
{
    bool wanted = m->phase == LinkPhase::confirming || (m->phase == LinkPhase::idle && m->waiting_count > 0);
    if (!wanted || (m->mark_out && !m->mark_written))
        return INT64_MAX;
    int64_t at = m->mark_out ? m->mark_at + renewal(m, now) : 0;
    return at > m->not_before ? at : m->not_before;
}

int64_t machine_next_tick(const LinkMachine *m, int64_t now)
{
    int64_t next = owed_until(m);
    for (int64_t other : {text_until(m), mark_due(m, now)})
        next = other < next ? other : next;
    return next;
}

static void tick_text(LinkMachine *m, int64_t now, LinkItem *item)
{
    if (m->result_open || tail_is_result(m)) {
        m->line = m->length;
        judge(m, now, item);
    } else if (tail_is_prompt(m)) {
        take_prompt(m, now, item);
    } else {
        m->header_open = false;
        give_out_lines(m, item);
    }
}

static void end_owed(LinkMachine *m, int64_t now, LinkItem *item)
{
    if (m->due.kind == CommandKind::scan && now - m->sent_at >= SCAN_LIMIT)
        CELMUX_LOG(LOG_ERR, "network scan got no answer, given up", "link_machine");
    m->line = m->length;
    char *text = has_line_of(view(m), "+COPS:") ? take_text(m) : nullptr;
    give_up_due(m, now);
    finish(m, text, item);
}

void machine_tick(LinkMachine *m, int64_t now, LinkItem *item)
{
    *item = {};
    if (now >= text_until(m))
        tick_text(m, now, item);
    else if (now >= owed_until(m))
        end_owed(m, now, item);
    pump(m, now);
}
