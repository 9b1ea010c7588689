// The parts, in this order: the port, getting in step, judging what has come, lines and bytes, callers and time.

#include "link_machine.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "at_mask.h"
#include "at_text.h"
#include "log.h"

constexpr int64_t MS = 1000;
constexpr int64_t MARK_RENEWAL = 1000 * MS;       // a mark without an answer is sent again
constexpr int64_t MARK_RENEWAL_LATER = 5000 * MS; // by a modem that has been silent for long
constexpr int64_t LONG_SILENCE = 60000 * MS;
constexpr int64_t LINE_END_PATIENCE = 20 * MS; // for the LF behind a CR, and for text behind what looks like a prompt
constexpr int64_t RESULT_PATIENCE = 100 * MS;  // for the line end behind a final result code
constexpr int64_t HEADER_PATIENCE = 1000 * MS; // for the second line of a report
constexpr int64_t OWED_PATIENCE = 1000 * MS;   // for an answer that no caller waits for, while others wait for the link
constexpr int64_t OWED_LIMIT = 10000 * MS;     // the same, while nobody does
constexpr int64_t SCAN_LIMIT = 300000 * MS;
constexpr int64_t SCAN_END_PATIENCE = 2000 * MS; // for the final result code behind the operators
// An answer is early when it took less than three quarters of the shortest time. With more than one half, of an answer
// that is shifted by one command either this answer is early or the next.
constexpr int64_t EARLY_NUMERATOR = 3, EARLY_DENOMINATOR = 4;
constexpr int64_t EARLY_LEAST = 2 * MS; // a modem that is quicker than this tells nothing by its times

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

static void pump(LinkMachine *m, int64_t now);

static std::string_view view(const LinkMachine *m)
{
    return {m->text ? m->text : "", m->length};
}

static uint32_t next_number(LinkMachine *m)
{
    if (++m->last_number == 0)
        m->last_number = 1;
    return m->last_number;
}

// ---- what the modem was asked

// FNV-1a; tells texts apart, no more.
static uint32_t hash_of(std::string_view text)
{
    uint32_t hash = 0x811c9dc5;
    for (char each : text)
        hash = (hash ^ static_cast<unsigned char>(each)) * 0x01000193;
    return hash;
}

// Of the command's name and form, as "AT+CSIM=".
static uint32_t name_hash(std::string_view command)
{
    size_t end = command.find_first_of("=?\r");
    return hash_of(command.substr(0, end < command.size() ? end + 1 : end));
}

static bool contains(std::span<const uint32_t> hashes, uint32_t hash)
{
    return std::find(hashes.begin(), hashes.end(), hash) != hashes.end();
}

static void note_asked(LinkMachine *m, std::string_view command)
{
    std::string_view name = command.substr(0, command.find_first_of("=?\r"));
    m->asked[m->asked_count++ % LINK_RECENT] = {hash_of(name.substr(name.size() < 2 ? 0 : 2)), name_hash(command)};
}

// Is it the name of something that was asked before? Then a line with it is an answer, not a report that is not known.
static bool was_asked(const LinkMachine *m, std::string_view name)
{
    for (const auto &asked : m->asked) {
        if (asked.name == hash_of(name))
            return true;
    }
    return false;
}

// Was the same name asked in another form before, as "AT+CSIM?" before "AT+CSIM=1"?
static bool other_form_asked(const LinkMachine *m)
{
    const auto &now = m->asked[(m->asked_count - 1) % LINK_RECENT];
    for (const auto &asked : m->asked) {
        if (asked.name == now.name && asked.form != now.form)
            return true;
    }
    return false;
}

// ---- getting in step

static uint8_t question_bit(std::string_view command)
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
static int free_question(const LinkMachine *m)
{
    unsigned unused = static_cast<uint8_t>(~m->busy);
    int question = first_question(unused & m->proven);
    return question == -1 ? first_question(unused) : question;
}

static bool send_mark(LinkMachine *m, int question, int64_t now)
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

static int64_t renewal(const LinkMachine *m, int64_t now)
{
    return m->silent_since && now - m->silent_since > LONG_SILENCE ? MARK_RENEWAL_LATER : MARK_RENEWAL;
}

static void get_in_step(LinkMachine *m, int64_t now)
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

// An answer that is surely the command's own took so long.
static void note_latency(LinkMachine *m, std::string_view command, int64_t took)
{
    m->recent[m->recent_count++ % LINK_RECENT] = took;
    if (!contains(m->named, name_hash(command)))
        m->named[m->named_count++ % LINK_NAMES] = name_hash(command);
}

// Has the modem lately answered this command with a line of its name?
static bool answered_by_name(const LinkMachine *m)
{
    return contains(m->named, name_hash(m->due.text));
}

// Did the answer come sooner than the modem's recent ones? One with the command's name can only be another one's when
// the same was asked shortly before.
static bool came_early(const LinkMachine *m, bool own, int64_t now)
{
    int64_t shortest = INT64_MAX;
    for (int64_t took : m->recent)
        shortest = took < shortest ? took : shortest;
    if (contains(m->quick, name_hash(m->due.text)))
        return false;
    return m->recent_count >= LINK_RECENT && (answered_by_name(m) || !own) && shortest >= EARLY_LEAST &&
           (now - m->sent_at) * EARLY_DENOMINATOR < shortest * EARLY_NUMERATOR;
}

static void now_in_step(LinkMachine *m, int64_t now)
{
    note_latency(m, QUESTIONS[m->mark].command, now - m->mark_at);
    m->proven = static_cast<uint8_t>(m->proven | (1u << m->mark));
    m->in_step = true;
    m->mark_out = false;
    m->busy = 0;
    m->escape = false;
}

static void out_of_step(LinkMachine *m)
{
    m->in_step = false;
}

// ---- what is sent

// There is room for it.
static void put_first(LinkMachine *m, const LinkCommand &command)
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
    uint8_t question = next.expected ? question_bit(next.text) : 0;
    return !m->mark_out && (question & (~m->busy | question_bit("AT+CGMI?")));
}

// Does what can be done now.
static void pump(LinkMachine *m, int64_t now)
{
    if (m->phase != LinkPhase::idle || m->waiting_count == 0)
        return;
    if (m->in_step || tells_itself(m))
        start_exchange(m, now);
    else
        get_in_step(m, now);
}

// The exchange is over. `text` is its answer or null; taken over.
static void finish(LinkMachine *m, char *text, LinkItem *item)
{
    bool awaited = m->due.caller != LinkCaller::nobody;
    *item = {LinkItem::Kind::answer, m->due.number, awaited, m->due.kind == CommandKind::scan, text};
    free(m->candidate);
    m->candidate = nullptr;
    free(m->due.text);
    m->due = {};
    m->phase = LinkPhase::idle;
}

// ---- judging what has come

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
    int question = first_question(m->proven & ~m->busy & ~question_bit(m->due.text));
    if (m->due.caller != LinkCaller::waits || question == -1)
        return false;
    m->mark_decisive = true;
    if (!send_mark(m, question, now))
        return false;
    m->phase = LinkPhase::confirming;
    m->replaced = false;
    return true;
}

// Takes the text that has come, up to the end of the last complete line, out of the machine. Null without memory.
static char *take_text(LinkMachine *m)
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

static void drop_text(LinkMachine *m)
{
    free(take_text(m));
    m->header_open = false;
    m->overflow = false;
}

static void drop_late(LinkMachine *m, char *text)
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
    uint8_t question = question_bit(m->due.text);
    if (!holds(view(m), m->due.expected))
        return holds(view(m), "ERROR"); // a modem that is busy may say so; the link stays out of step
    if (!(m->busy & question)) {
        m->in_step = true;
        m->busy = 0;
        m->escape = false;
        note_latency(m, m->due.text, now - m->sent_at);
    }
    m->proven = static_cast<uint8_t>(m->proven | question);
    return true;
}

// A final result code has come while one of a command is due.
static void judge_answer(LinkMachine *m, int64_t now, LinkItem *item)
{
    if (m->tells_itself && !told_itself(m, now)) {
        give_late(m, item);
        return;
    }
    if (m->overflow) {
        CELMUX_LOG(LOG_ERR, "answer to %s longer than %u bytes, refused", "link_machine", Masked(m->due.text).text,
                   LINK_ANSWER_MAX);
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

static void join_candidate(LinkMachine *m, char *more)
{
    size_t length = m->candidate ? strlen(m->candidate) : 0;
    char *joined = more ? static_cast<char *>(realloc(m->candidate, length + strlen(more) + 1)) : nullptr;
    if (joined) {
        memcpy(joined + length, more, strlen(more) + 1);
        m->candidate = joined;
    }
    free(more);
}

// Another final result code has come behind the one in doubt, before the mark's answer: it is the command's own.
static void judge_second(LinkMachine *m, LinkItem *item)
{
    Traits traits = traits_of(m, view(m));
    char *text = take_text(m);
    if (m->overflow || !text || !acceptable(m->due, traits)) {
        m->overflow = false;
        drop_late(m, text);
        return;
    }
    if (m->doubt == LinkDoubt::listing) {
        join_candidate(m, text);
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

static bool has_line_of(std::string_view text, std::string_view name)
{
    std::string_view rest = text, line;
    while (next_line(&rest, &line)) {
        if (line.starts_with(name))
            return true;
    }
    return false;
}

// The mark's answer stands at the end of what has come; whatever stands before it is without a final result code.
static void mark_answered(LinkMachine *m, int64_t now, LinkItem *item)
{
    constexpr char ECHO_OFF[] = "ATE0\r";
    bool echo = holds(view(m), command_line(QUESTIONS[m->mark].command));
    drop_text(m);
    if (!m->mark_decisive) {
        // The modem is there. Answers come in order, so only to this question another one may still come.
        m->mark_out = false;
        m->proven = static_cast<uint8_t>(m->proven | (1u << m->mark));
        m->busy = static_cast<uint8_t>(1u << m->mark);
        return;
    }
    now_in_step(m, now);
    if (m->phase == LinkPhase::confirming) {
        char *text = m->candidate;
        m->candidate = nullptr;
        if (m->doubt == LinkDoubt::early && !m->replaced)
            m->quick[m->quick_count++ % LINK_RECENT] = name_hash(m->due.text);
        finish(m, text, item);
    }
    char *echo_off = echo && m->waiting_count < LINK_WAITING_MAX ? strdup(ECHO_OFF) : nullptr;
    if (echo_off)
        put_first(m, {echo_off, nullptr, next_number(m), LinkCaller::nobody, CommandKind::plain});
}

// A final result code has come.
static void judge(LinkMachine *m, int64_t now, LinkItem *item)
{
    m->header_open = false;
    m->result_open = false;
    m->silent_since = 0;
    if (m->phase == LinkPhase::sent || m->phase == LinkPhase::prompted) {
        judge_answer(m, now, item);
    } else if (m->mark_out && has_line_of(view(m), QUESTIONS[m->mark].name)) {
        mark_answered(m, now, item);
    } else if (m->phase == LinkPhase::confirming) {
        judge_second(m, item);
    } else {
        // A modem that refuses this question is asked another one.
        bool refused = m->mark_out && m->mark_decisive && !(m->proven & (1u << m->mark)) && holds(view(m), "ERROR");
        if (refused && free_question(m) != -1)
            m->mark_out = false;
        give_late(m, item);
    }
    pump(m, now);
}

// ---- lines and bytes

static bool in_exchange(const LinkMachine *m)
{
    return m->phase == LinkPhase::sent || m->phase == LinkPhase::confirming;
}

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

static bool in_text_listing(const LinkMachine *m)
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

// The line from m->line to the end of the text is complete, but perhaps for the LF behind its CR.
static void line_complete(LinkMachine *m, size_t end, LinkItem *item)
{
    std::string_view line = view(m).substr(m->line, end - m->line);
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

static bool is_prompt(std::string_view line)
{
    return line == ">" || line.starts_with("> ");
}

static bool awaits_prompt(const LinkMachine *m)
{
    return m->phase == LinkPhase::sent && m->due.caller == LinkCaller::sends && !m->message_sent;
}

// A prompt that no caller waits for: the modem must not take what is sent next for the text of a message.
static void leave_prompt(LinkMachine *m, LinkItem *item)
{
    out_of_step(m);
    m->escape = true;
    m->mark_out = false; // the mark went into the text
    m->line = m->length;
    if (m->phase == LinkPhase::sent && m->due.caller != LinkCaller::sends) {
        (void)m->send(LINK_ESCAPE, strlen(LINK_ESCAPE), 0); // sent again with the next mark
        finish(m, take_text(m), item);
        return;
    }
    if (m->phase == LinkPhase::confirming)
        finish(m, nullptr, item);
    drop_late(m, take_text(m));
}

static void take_prompt(LinkMachine *m, int64_t now, LinkItem *item)
{
    m->silent_since = 0;
    m->header_open = false;
    if (awaits_prompt(m)) {
        m->phase = LinkPhase::prompted;
        m->line = m->length;
        *item = {LinkItem::Kind::prompt, m->due.number, true, false, take_text(m)};
        return;
    }
    leave_prompt(m, item);
    pump(m, now);
}

// Outside an exchange complete lines are reports, given out as they come.
static void give_out_lines(LinkMachine *m, LinkItem *item)
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

size_t machine_take(LinkMachine *m, const char *data, size_t size, int64_t now, LinkItem *item)
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
                line_complete(m, end, item);
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

// ---- callers and time

void machine_init(LinkMachine *m, bool probed, bool (*send)(const char *text, size_t length, uint32_t number))
{
    *m = {};
    m->send = send;
    m->escape = true;
    if (probed)
        m->busy = question_bit("AT+CGMI?") | question_bit("AT+GMM?") | question_bit("AT+CGSN=1");
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

bool machine_may_write(LinkMachine *m, uint32_t number, int64_t now)
{
    if (number == 0)
        return true;
    if (m->mark_out && number == m->mark_number) {
        m->mark_written = true;
        m->mark_at = now;
        return true;
    }
    if (m->phase != LinkPhase::queued || number != m->due.number) {
        pump(m, now); // there is room again
        return false;
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
        finish(m, nullptr, item);
    }
}

bool machine_send_message(LinkMachine *m, uint32_t number, const char *pdu)
{
    if (m->phase != LinkPhase::prompted || m->due.number != number)
        return false;
    m->phase = LinkPhase::sent;
    m->message_sent = true;
    return m->send(pdu, strlen(pdu), 0) && m->send("\x1a", 1, 0);
}

// The answer to the command under way is owed from now on.
static void give_up_due(LinkMachine *m, int64_t now)
{
    out_of_step(m);
    m->escape = m->escape || m->due.caller == LinkCaller::sends;
    m->busy = static_cast<uint8_t>(m->busy | question_bit(m->due.text));
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
        *answer = likely ? m->candidate : nullptr;
        if (likely)
            m->candidate = nullptr;
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
        m->mark_at = now - MARK_RENEWAL_LATER;
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
    std::string_view tail = view(m).substr(m->line);
    if (m->result_open || tail == ">" || tail == "> ")
        return m->last_byte + LINE_END_PATIENCE;
    if (!tail.empty() && is_final_result(tail, in_exchange(m) ? m->due.kind : CommandKind::plain))
        return m->last_byte + RESULT_PATIENCE;
    if (m->header_open)
        return m->last_byte + HEADER_PATIENCE;
    return INT64_MAX;
}

static int64_t mark_due(const LinkMachine *m, int64_t now)
{
    if (m->phase != LinkPhase::idle || m->waiting_count == 0 || (m->mark_out && !m->mark_written))
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
    std::string_view tail = view(m).substr(m->line);
    if (!m->result_open && is_prompt(tail)) {
        take_prompt(m, now, item);
    } else if (m->result_open || !tail.empty()) {
        m->line = m->length;
        judge(m, now, item);
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
