// A final result code has come: is what stands before it the answer to the command under way?

#include "link_judge.h"

#include <cstdlib>
#include <cstring>

#include "at_mask.h"
#include "link_exchange.h"
#include "link_memory.h"
#include "link_queue.h"
#include "link_step.h"
#include "log.h"
#include "text_cut.h"

// What the lines of an answer tell.
struct Traits {
    bool own;     // a line carries the command's name, or the expected text is there
    bool foreign; // a line carries another command's name
    bool stale;   // and that command was asked before
    bool bare;    // there is nothing but the final result code
    bool error;
    bool reason; // the error tells why
    bool echoed;
    bool text_listing;
};

static bool holds(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

static Traits traits_of(const LinkMachine *m, std::string_view answer)
{
    const LinkCommand &due = m->due;
    Traits traits = {};
    traits.bare = true;
    traits.error = holds(answer, "ERROR");
    traits.reason = holds(answer, "+CME ERROR") || holds(answer, "+CMS ERROR");
    std::string_view rest = answer, line;
    while (next_line(&rest, &line)) {
        if (line == command_line(due.text)) {
            traits.echoed = true;
            continue;
        }
        if (is_final_result(line, due.kind) || is_report(line, due.text))
            continue;
        traits.bare = false;
        LineName name = name_of_line(line, due.text);
        traits.own = traits.own || name == LineName::own;
        traits.foreign = traits.foreign || name == LineName::foreign;
        traits.stale = traits.stale || (name == LineName::foreign && was_asked(m, name_in(line)));
        traits.text_listing = traits.text_listing || (name == LineName::own && begins_message_text(line));
    }
    if (due.expected)
        traits.own = holds(answer, due.expected);
    return traits;
}

static bool acceptable(const LinkCommand &due, const Traits &traits)
{
    return (!due.expected && !traits.stale) || traits.own || traits.error;
}

// Does an empty line stand before the last one, as before a final result code but hardly before a message's "OK"?
static bool behind_blank_line(const LinkMachine *m)
{
    std::string_view text = view(m);
    size_t end = text.find_last_not_of("\r\n");
    size_t before = end == std::string_view::npos ? end : text.find_last_of("\r\n", end);
    if (before == std::string_view::npos)
        return false;
    text = text.substr(0, before);
    if (text.ends_with('\r'))
        text.remove_suffix(1);
    return text.ends_with('\n') || text.ends_with('\r');
}

static LinkDoubt doubt_about(const LinkMachine *m, const Traits &traits, int64_t now)
{
    const LinkCommand &due = m->due;
    if (due.kind == CommandKind::dial || due.kind == CommandKind::scan || traits.echoed)
        return LinkDoubt::none;
    if (m->tells_itself && !traits.own)
        return LinkDoubt::foreign;
    if (traits.text_listing && !behind_blank_line(m))
        return LinkDoubt::listing;
    if (came_early(m, traits.own, now))
        return LinkDoubt::early;
    if (m->more)
        return LinkDoubt::crowded;
    if (traits.own && !due.expected && !answered_by_name(m) && other_form_asked(m))
        return LinkDoubt::foreign;
    if (traits.own)
        return LinkDoubt::none;
    if (traits.foreign)
        return LinkDoubt::foreign;
    bool list = name_of_line("+CMGL:", due.text) == LineName::own; // is often empty
    if (traits.bare && !traits.reason && !list && answered_by_name(m))
        return LinkDoubt::bare;
    bool wants_line = due.expected || asks_question(due.text);
    return wants_line && !traits.error && (traits.bare || due.expected) ? LinkDoubt::bare : LinkDoubt::none;
}

// Sends a mark behind the command under way. False when none can be sent whose answer could not be mistaken.
static bool start_confirming(LinkMachine *m, int64_t now)
{
    if (m->due.caller != LinkCaller::waits)
        return false;
    owe_answers(m, m->due.text);
    int question = proven_question(m);
    if (question == -1 || !send_mark(m, question, now))
        return false;
    m->phase = LinkPhase::confirming;
    m->replaced = m->spoiled = false;
    return true;
}

void drop_late(LinkMachine *m, char *text)
{
    m->late_answers++;
    if (text)
        CELMUX_LOG(LOG_INFO, "late answer dropped: %s", "link_machine", Masked(text).text);
    free(text);
}

static void give_late(LinkMachine *m, LinkItem *item)
{
    m->late_answers++;
    m->overflow = false;
    *item = {LinkItem::Kind::late, 0, false, false, take_text(m)};
}

// With echo on, what stands before the command's echo is not its answer.
static void cut_before_echo(char *text, std::string_view command)
{
    std::string_view rest = text, line;
    const char *begin = text;
    while (next_line(&rest, &line)) {
        if (line == command)
            begin = line.data();
    }
    memmove(text, begin, strlen(begin) + 1);
}

// Out of step a command is under way whose answer tells itself. False: what has come is another one's.
static bool told_itself(LinkMachine *m, int64_t now)
{
    int question = question_of(m->due.text);
    if (!holds(view(m), m->due.expected))
        return holds(view(m), "ERROR"); // the modem may refuse the question, or an older command
    m->proven = static_cast<uint8_t>(m->proven | (1u << question));
    if (is_owed(m, question)) {
        answer_came(m, question);
        owe_answers(m, m->due.text);
        return true;
    }
    now_in_step(m);
    note_latency(m, m->due.text, now - m->sent_at);
    return true;
}

static void refuse_long_answer(const LinkMachine *m)
{
    CELMUX_LOG(LOG_ERR, "answer to %s longer than %u bytes, refused", "link_machine", Masked(m->due.text).text,
               LINK_ANSWER_MAX);
}

// A final result code has come while one of a command is due.
static void judge_answer(LinkMachine *m, int64_t now, LinkItem *item)
{
    if (m->tells_itself && !told_itself(m, now)) {
        give_late(m, item);
        return;
    }
    if (m->phase == LinkPhase::prompted) { // the modem may wait for the text still
        out_of_step(m);
        leave_message(m);
    }
    if (m->overflow) {
        refuse_long_answer(m);
        drop_text(m);
        finish(m, nullptr, item);
        return;
    }
    Traits traits = traits_of(m, view(m));
    LinkDoubt doubt = doubt_about(m, traits, now);
    if (doubt == LinkDoubt::none && traits.own)
        note_latency(m, m->due.text, now - m->sent_at);
    if (doubt != LinkDoubt::none && start_confirming(m, now)) {
        m->doubt = doubt;
        free(m->candidate);
        m->candidate = acceptable(m->due, traits) ? take_text(m) : nullptr;
        if (!m->candidate)
            drop_text(m);
        return;
    }
    if (doubt != LinkDoubt::none || (m->due.kind == CommandKind::scan && traits.bare))
        out_of_step(m);
    char *text = take_text(m);
    if (text && traits.echoed)
        cut_before_echo(text, command_line(m->due.text));
    if (!acceptable(m->due, traits)) {
        free(text);
        text = nullptr;
    }
    finish(m, text, item);
}

// More of a text listing: what was taken for its end was a line of a message.
static void join_candidate(LinkMachine *m)
{
    bool cut = m->overflow;
    char *more = take_text(m);
    size_t length = m->candidate ? strlen(m->candidate) : 0, added = more ? strlen(more) : 0;
    bool fits = !m->spoiled && !cut && more && length + added < LINK_ANSWER_MAX;
    char *joined = fits ? static_cast<char *>(realloc(m->candidate, length + added + 1)) : nullptr;
    if (joined) {
        memcpy(joined + length, more, added + 1);
        m->candidate = joined;
    } else if (!m->spoiled) {
        refuse_long_answer(m);
        m->spoiled = true;
    }
    m->overflow = false;
    free(more);
}

// Another final result code has come behind the one in doubt, before the mark's answer: it is the command's own.
static void judge_second(LinkMachine *m, LinkItem *item)
{
    if (m->doubt == LinkDoubt::listing) {
        join_candidate(m);
        return;
    }
    Traits traits = traits_of(m, view(m));
    char *text = take_text(m);
    if (m->overflow || !text || !acceptable(m->due, traits)) {
        m->overflow = false;
        drop_late(m, text);
        return;
    }
    // Of two that came together nothing tells which is the answer, unless only one has the command's name.
    if (m->doubt == LinkDoubt::crowded && m->candidate && !traits.own) {
        drop_late(m, text);
        return;
    }
    if (m->candidate)
        drop_late(m, m->candidate);
    m->candidate = text;
    m->replaced = true;
    if (traits.own && m->doubt != LinkDoubt::early) {
        m->candidate = nullptr;
        out_of_step(m); // until the mark is answered
        finish(m, text, item);
    }
}

// A mark's answer stands at the end of what has come; whatever stands before it is without a final result code.
static void mark_answered(LinkMachine *m, int question, int64_t now, LinkItem *item)
{
    constexpr char ECHO_OFF[] = "ATE0\r";
    bool echo = holds(view(m), mark_command(m));
    drop_text(m);
    m->proven = static_cast<uint8_t>(m->proven | (1u << question));
    answer_came(m, question);
    bool own = m->mark_out && m->mark_written && question == m->mark;
    if (own)
        m->mark_out = false;
    else
        m->late_answers++;
    if (m->owed_count) // the modem is there, but others may still be answered
        return;
    if (own)
        note_latency(m, mark_command(m), now - m->mark_at);
    now_in_step(m);
    if (m->phase == LinkPhase::confirming) {
        char *text = take_candidate(m);
        if (m->doubt == LinkDoubt::early && !m->replaced)
            note_quick(m);
        finish(m, text, item);
    }
    char *echo_off = echo && m->waiting_count < LINK_WAITING_MAX ? strdup(ECHO_OFF) : nullptr;
    if (echo_off)
        put_first(m, {echo_off, nullptr, next_number(m), LinkCaller::nobody, CommandKind::plain});
}

// A final result code has come.
void judge(LinkMachine *m, int64_t now, LinkItem *item)
{
    m->header_open = false;
    m->result_open = false;
    m->silent_since = 0;
    int question = answered_question(m);
    if (m->phase == LinkPhase::confirming && question != m->mark)
        question = -1; // it may be the command's own
    if (m->phase == LinkPhase::sent || m->phase == LinkPhase::prompted) {
        judge_answer(m, now, item);
    } else if ((m->mark_out || !m->in_step) && question != -1) {
        mark_answered(m, question, now, item);
    } else if (may_ask_another(m) && holds(view(m), "ERROR")) {
        m->mark_out = false; // the modem refuses this question
        give_late(m, item);
    } else if (m->phase == LinkPhase::confirming) {
        judge_second(m, item);
    } else {
        give_late(m, item);
    }
    pump(m, now);
}
