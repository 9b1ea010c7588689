// Bytes become lines; reports are given out at once, prompts and final result codes are acted on.

#include "link_bytes.h"

#include <cstdlib>
#include <cstring>

#include "link_exchange.h"
#include "link_judge.h"
#include "link_queue.h"
#include "link_step.h"
#include "text_cut.h"

// Gives a report out at once. In an answer it stays where it stands as well, since some callers want the text as it
// came.
static void give_report(LinkMachine *m, size_t begin, size_t end, LinkItem *item)
{
    size_t length = end - begin;
    char *text = static_cast<char *>(malloc(length + 5));
    if (text) {
        memcpy(text, "\r\n", 2);
        memcpy(text + 2, m->text + begin, length);
        memcpy(text + 2 + length, "\r\n", 3);
        *item = {LinkItem::Kind::report, 0, false, false, text};
    }
    if (!in_exchange(m) && !m->mark_out) {
        m->length = begin;
        m->text[begin] = '\0';
    }
}

static std::string_view due_command(const LinkMachine *m)
{
    return in_exchange(m) ? std::string_view(m->due.text) : std::string_view();
}

bool in_text_listing(const LinkMachine *m)
{
    if (!in_exchange(m) || name_of_line("+CMGL:", m->due.text) != LineName::own)
        if (!in_exchange(m) || name_of_line("+CMGR:", m->due.text) != LineName::own)
            return false;
    std::string_view rest = view(m), line;
    while (next_line(&rest, &line)) {
        if (begins_message_text(line))
            return true;
    }
    return false;
}

static bool is_prompt(std::string_view line)
{
    return line == ">" || line.starts_with("> ");
}

static bool awaits_prompt(const LinkMachine *m)
{
    return m->phase == LinkPhase::sent && m->due.caller == LinkCaller::sends && !m->message_sent;
}

// The line from m->line to the end of the text is complete, but perhaps for the LF behind its CR.
static void line_complete(LinkMachine *m, size_t end, int64_t now, LinkItem *item)
{
    std::string_view line = view(m).substr(m->line, end - m->line);
    if (awaits_prompt(m) && (line == ">" || line == "> ")) { // with a report behind it in the same bytes
        m->line = m->length;
        take_prompt(m, now, item);
        return;
    }
    CommandKind kind = in_exchange(m) ? m->due.kind : CommandKind::plain;
    size_t begin = m->line;
    bool second = m->header_open && !line.starts_with('+');
    m->silent_since = 0;
    if (is_final_result(line, kind)) {
        m->result_open = true;
    } else if (second) {
        m->header_open = false;
        give_report(m, m->header, end, item);
    } else if (is_report(line, due_command(m)) && !in_text_listing(m)) {
        m->header_open = is_report_header(line);
        m->header = begin;
        if (!m->header_open)
            give_report(m, begin, end, item);
    } else {
        m->header_open = false;
    }
}

static bool make_room(LinkMachine *m, size_t more)
{
    size_t needed = m->length + more + 1;
    if (needed <= m->capacity)
        return true;
    size_t capacity = m->capacity ? m->capacity : 1024;
    while (capacity < needed)
        capacity *= 2;
    char *text = needed <= LINK_ANSWER_MAX ? static_cast<char *>(realloc(m->text, capacity)) : nullptr;
    if (!text)
        return false;
    m->text = text;
    m->capacity = capacity;
    return true;
}

// Appends bytes; when there is no room for them, what has come is given up, but for its last line as far as that fits.
static void append(LinkMachine *m, const char *data, size_t size)
{
    if (!make_room(m, size)) {
        m->overflow = true;
        m->header_open = false;
        m->length = m->line = 0;
        if (!make_room(m, size))
            return;
    }
    memcpy(m->text + m->length, data, size);
    m->length += size;
    m->text[m->length] = '\0';
}

// A prompt that no caller waits for: the modem must not take what is sent next for the text of a message.
static void leave_prompt(LinkMachine *m, LinkItem *item)
{
    out_of_step(m);
    leave_message(m);
    m->mark_out = false; // the mark went into the text
    m->line = m->length;
    // A question never ends in a prompt: it is an older command's, and the question may be answered yet.
    bool asks = m->phase == LinkPhase::sent && m->due.expected;
    if (m->phase == LinkPhase::sent && m->due.caller != LinkCaller::sends && !asks) {
        char *text = take_text(m);
        if (m->overflow) {
            free(text);
            text = nullptr;
        }
        finish(m, text, item);
        return;
    }
    if (in_exchange(m) && !asks)
        finish(m, nullptr, item);
    drop_late(m, take_text(m));
}

void take_prompt(LinkMachine *m, int64_t now, LinkItem *item)
{
    m->silent_since = 0;
    m->header_open = false;
    if (awaits_prompt(m)) {
        m->phase = LinkPhase::prompted;
        m->line = m->length;
        *item = {LinkItem::Kind::prompt, m->due.number, true, false, take_text(m)};
        return;
    }
    bool repeated = m->due.caller == LinkCaller::sends &&
                    (m->phase == LinkPhase::prompted || (m->phase == LinkPhase::sent && m->message_sent));
    if (repeated) {
        m->length = m->line;
        m->text[m->length] = '\0';
        return;
    }
    leave_prompt(m, item);
    pump(m, now);
}

// Outside an exchange complete lines are reports, given out as they come.
void give_out_lines(LinkMachine *m, LinkItem *item)
{
    if (in_exchange(m) || m->mark_out || m->header_open || m->line == 0)
        return;
    std::string_view lines = view(m).substr(0, m->line);
    bool blank = lines.find_first_not_of("\r\n") == std::string_view::npos;
    char *text = take_text(m);
    if (blank)
        free(text);
    else
        *item = {LinkItem::Kind::report, 0, false, false, text};
}

// Judges the answer that is complete now, with `behind` still at hand.
static void judge_before(LinkMachine *m, std::string_view behind, int64_t now, LinkItem *item)
{
    std::string_view line;
    while (!m->more && next_line(&behind, &line))
        m->more = is_final_result(line, CommandKind::plain);
    m->line = m->length;
    judge(m, now, item);
    m->more = false;
}

size_t take_bytes(LinkMachine *m, const char *data, size_t size, int64_t now, LinkItem *item)
{
    *item = {};
    for (size_t at = 0; at < size;) {
        m->last_byte = now;
        if (m->result_open) {
            if (data[at] == '\n')
                append(m, data + at++, 1);
            judge_before(m, {data + at, size - at}, now, item);
        } else {
            std::string_view rest(data + at, size - at);
            size_t run = rest.find_first_of("\r\n");
            if (run == std::string_view::npos) {
                append(m, data + at, rest.size());
                at = size;
                break;
            }
            append(m, data + at, run + 1);
            at += run + 1;
            size_t end = m->length - (m->length > m->line ? 1 : 0);
            if (end > m->line)
                line_complete(m, end, now, item);
            if (!m->result_open)
                m->line = m->length;
            else if (rest[run] == '\n')
                judge_before(m, rest.substr(run + 1), now, item);
        }
        if (item->kind != LinkItem::Kind::nothing)
            return at;
    }
    std::string_view tail = view(m).substr(m->line);
    if (!m->result_open && awaits_prompt(m) && is_prompt(tail))
        take_prompt(m, now, item);
    else if (!m->result_open)
        give_out_lines(m, item);
    return size;
}
