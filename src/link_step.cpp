#include "link_step.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

#include "at_mask.h"
#include "celmux.h"
#include "final_results.h"
#include "log.h"
#include "request.h"
#include "waiting.h"

constexpr char MARK[] = "AT+CGMI?\r";
constexpr char MARK_ECHO[] = "AT+CGMI?";
constexpr char MARK_ANSWER[] = "+CGMI:";
constexpr int64_t MARK_RENEWAL_MS = 15000; // a mark without an answer for so long is lost
constexpr int64_t OWED_LIMIT_MS = 10000;   // a command that nobody waits for has been answered by then, or never is
constexpr int64_t OWED_PATIENCE_MS = 200;  // most such answers are just about to come
constexpr int64_t OWED_SLICE_MS = 5;
constexpr int COUNT_LOOKS = 20;
constexpr useconds_t COUNT_PAUSE_US = 50;
constexpr int64_t QUIET_MS = 300;           // after the answer of one of several marks
constexpr uint32_t MARK_PATIENCE_MS = 1000; // for room in the sender's queue

LinkStatistics link_statistics;

static std::atomic<uint32_t> queued{0};  // commands so far; wraps
static std::atomic<uint32_t> arrived{0}; // final results so far, never more than `queued`
static std::atomic<uint32_t> answered{
    0}; // of them those whose answers have been passed on; lags behind `arrived` for a moment
constexpr uint32_t HASHES_KEPT = 64;                      // more than at_tx_queue holds
static std::atomic<uint32_t> command_hashes[HASHES_KEPT]; // by number
static std::atomic<int64_t> last_unawaited{0};            // monotonic ms; 0 none yet
static std::atomic<uint8_t> out_of_step{0};
static std::atomic<uint8_t> escape_wanted{0};  // the modem may sit at the prompt
static std::atomic<uint8_t> mark_forgotten{0}; // the modem cannot be relied on to answer the marks sent so far

// Guarded by request_mutex.
static unsigned marks_out;
static int64_t mark_sent;
static uint32_t mark_number;
static int64_t marks_quiet; // one of several marks has been answered: how long to wait for the others; else 0
static bool mark_echoed;

// FNV-1a; tells texts apart, no more.
static uint32_t hash_text(std::string_view text)
{
    uint32_t hash = 0x811c9dc5;
    for (char each : text)
        hash = (hash ^ static_cast<unsigned char>(each)) * 0x01000193;
    return hash;
}

// The line end may be there or not.
static uint32_t hash_command(std::string_view command)
{
    return hash_text(command.ends_with('\r') ? command.substr(0, command.size() - 1) : command);
}

uint32_t link_command_queued(const char *command, bool awaited)
{
    link_statistics.commands.fetch_add(1);
    if (!awaited)
        last_unawaited.store(monotonic_ms());
    uint32_t number = queued.load() + 1;
    command_hashes[number % HASHES_KEPT].store(hash_command(command));
    queued.store(number);
    return number;
}

// The last answer, as far as it can be told from others: a bare final result cannot. Only the response processor.
static struct {
    uint32_t command; // hashes
    uint32_t text;
    size_t length; // 0 when it cannot be told
} last_answer;

static std::string_view without_line_ends(std::string_view text)
{
    size_t first = text.find_first_not_of("\r\n");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of("\r\n") + 1 - first);
}

static bool has(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

static void remember_answer(std::string_view answer, uint32_t command, bool in_step)
{
    bool mark = has(answer, MARK_ANSWER);
    bool tells = has(answer, "+") && !has(answer, "+CME ERROR") && !has(answer, "+CMS ERROR");
    last_answer.command = mark ? hash_command(MARK) : command;
    last_answer.text = hash_text(answer);
    last_answer.length = mark || (tells && in_step) ? answer.size() : 0; // out of step nobody knows whose it is
}

// Within a burst a report may stand between an answer and its repetition.
static bool repeats_last(std::string_view answer, bool within_burst)
{
    size_t length = last_answer.length;
    if (length == 0 || answer.size() < length || (answer.size() > length && !within_burst))
        return false;
    size_t front = answer.size() - length;
    return (front == 0 || answer[front - 1] == '\n') && last_answer.text == hash_text(answer.substr(front));
}

// Some modems repeat an answer. One that equals the last one, though another command's is due (or none), is that.
void link_strip_repeated(char *text)
{
    uint32_t turn = arrived.load() + 1;
    char *place = text;
    while (const char *end = behind_result(place)) {
        std::string_view answer = without_line_ends({place, static_cast<size_t>(end - place)});
        bool in_step = !out_of_step.load();
        bool due = static_cast<int32_t>(queued.load() - turn) >= 0;
        uint32_t command = due ? command_hashes[turn % HASHES_KEPT].load() : 0;
        bool expected = due && command == last_answer.command;
        if (in_step && !expected && repeats_last(answer, place != text)) {
            memmove(place, end, strlen(end) + 1);
            link_statistics.late_answers.fetch_add(1);
            continue;
        }
        remember_answer(answer, command, in_step);
        turn += due;
        place += end - place;
    }
}

static uint32_t unanswered()
{
    uint32_t so_far = answered.load();
    return queued.load() - so_far;
}

void link_answers_arrived(unsigned count)
{
    uint32_t seen = arrived.load();
    uint32_t owed;
    do {
        owed = queued.load() - seen;
    } while (!arrived.compare_exchange_weak(seen, seen + (count < owed ? count : owed)));
}

static void raise_to(std::atomic<uint32_t> *counter, uint32_t number)
{
    uint32_t seen = counter->load();
    while (static_cast<int32_t>(number - seen) > 0 && !counter->compare_exchange_weak(seen, number)) {
    }
}

void link_answers_passed_on()
{
    raise_to(&answered, arrived.load());
}

// Everything up to that command counts as answered.
static void settle(uint32_t number)
{
    raise_to(&arrived, number);
    raise_to(&answered, number);
}

void link_out_of_step(LinkFault fault)
{
    if (fault == LinkFault::restarted)
        mark_forgotten.store(1);
    else
        link_statistics.timeouts.fetch_add(1);
    if (fault == LinkFault::prompt)
        escape_wanted.store(1);
    out_of_step.store(1);
}

static int64_t until(int64_t deadline_ms)
{
    int64_t left = deadline_ms - monotonic_ms();
    return left > 0 ? left : 0;
}

// The next answer, a heap text for the caller to free; null when none came until the deadline.
static char *next_answer(int64_t deadline_ms)
{
    while (running.load()) {
        int64_t left = until(deadline_ms);
        TextElem *element = static_cast<TextElem *>(
            left > 0 ? pool_queue_pop_for(&resp_queue, static_cast<uint32_t>(left)) : pool_queue_try_pop(&resp_queue));
        if (element) {
            char *text = element->text;
            element->text = nullptr;
            pool_queue_release(&resp_queue, element);
            return text;
        }
        if (left == 0)
            break;
    }
    return nullptr;
}

static void drop_late(char *text)
{
    link_statistics.late_answers.fetch_add(1);
    log_info("late answer dropped: %s", Masked(text).text);
    free(text);
}

// Gives the answers that are owed a short while to come. True when none is owed any more.
static bool take_owed_answers(int64_t deadline_ms)
{
    if (monotonic_ms() - last_unawaited.load() > OWED_LIMIT_MS)
        settle(queued.load());
    int64_t patience = monotonic_ms() + OWED_PATIENCE_MS;
    if (patience > deadline_ms)
        patience = deadline_ms;
    // The last answer is counted a moment after it was passed on.
    for (int looks = 0; looks < COUNT_LOOKS && unanswered() > 0; looks++)
        usleep(COUNT_PAUSE_US);
    while (unanswered() > 0) {
        int64_t slice = monotonic_ms() + OWED_SLICE_MS; // an answer that was only counted wakes nobody
        char *text = next_answer(slice < patience ? slice : patience);
        if (text)
            drop_late(text);
        else if (unanswered() > 0 && (!running.load() || monotonic_ms() >= patience))
            return false;
    }
    return true;
}

static bool send_mark()
{
    if (escape_wanted.load() && queue_command(LINK_ESCAPE, 0, MARK_PATIENCE_MS, Owes::nothing, nullptr) == -1)
        return false;
    if (queue_command(MARK, 0, MARK_PATIENCE_MS, Owes::awaited, &mark_number) == -1)
        return false;
    link_statistics.marks.fetch_add(1);
    mark_forgotten.store(0);
    marks_out++;
    mark_sent = monotonic_ms();
    return true;
}

static bool at_prompt(const char *text)
{
    const char *line = strrchr(text, '\n');
    return (line ? line[1] : text[0]) == '>';
}

// Drops answers until the marks are answered. What a call leaves unfinished the next one goes on with.
static bool wait_for_mark(int64_t deadline_ms)
{
    for (;;) {
        if (marks_quiet == 0 &&
            (marks_out == 0 || mark_forgotten.load() || monotonic_ms() - mark_sent >= MARK_RENEWAL_MS) && !send_mark())
            return false;
        int64_t limit = marks_quiet ? marks_quiet : mark_sent + MARK_RENEWAL_MS;
        char *text = next_answer(limit < deadline_ms ? limit : deadline_ms);
        if (!text) {
            if (!running.load() || (until(deadline_ms) == 0 && !(marks_quiet && until(marks_quiet) == 0)))
                return false;
            if (marks_quiet)
                return true;
            continue;
        }
        if (strstr(text, MARK_ANSWER)) {
            mark_echoed = strstr(text, MARK_ECHO);
            free(text);
            if (--marks_out == 0)
                return true;
            marks_quiet = monotonic_ms() + QUIET_MS;
        } else if (at_prompt(text)) {
            // The prompt came late and takes the mark for the text of the message.
            drop_late(text);
            escape_wanted.store(1);
            marks_out = 0;
            marks_quiet = 0;
        } else {
            drop_late(text);
        }
    }
}

static bool switch_echo_off(int64_t deadline_ms)
{
    uint32_t number;
    if (queue_command("ATE0\r", 0, MARK_PATIENCE_MS, Owes::awaited, &number) == -1)
        return false;
    char *text = next_answer(deadline_ms);
    if (!text) {
        link_out_of_step(LinkFault::timeout);
        return false;
    }
    free(text);
    settle(number);
    return true;
}

bool link_get_in_step(int64_t deadline_ms)
{
    if (g_scanning.load())
        return running.load(); // the command will be refused; the scan's own answer is nothing to get in step with
    if (!out_of_step.load() && (unanswered() == 0 || take_owed_answers(deadline_ms)))
        return running.load();
    out_of_step.store(1);
    if (!wait_for_mark(deadline_ms))
        return false;
    bool echo = mark_echoed;
    marks_out = 0;
    marks_quiet = 0;
    mark_echoed = false;
    settle(mark_number);
    escape_wanted.store(0);
    out_of_step.store(0);
    if (mark_forgotten.load()) // the modem restarted in the meantime
        out_of_step.store(1);
    if (echo && !switch_echo_off(deadline_ms))
        return false;
    return until(deadline_ms) > 0;
}

void log_link_statistics()
{
    static uint32_t last[5];
    const std::atomic<uint32_t> *counters[] = {&link_statistics.commands, &link_statistics.timeouts,
                                               &link_statistics.late_answers, &link_statistics.marks,
                                               &link_statistics.gap_bursts};
    uint32_t since[5];
    bool anything = false;
    for (int i = 0; i < 5; i++) {
        uint32_t now = counters[i]->load();
        since[i] = now - last[i];
        last[i] = now;
        anything = anything || since[i];
    }
    if (anything)
        log_info("link: %u commands, %u time-outs, %u late answers dropped, %u marks, %u bursts ended by gap", since[0],
                 since[1], since[2], since[3], since[4]);
}
