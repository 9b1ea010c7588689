#include "request.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>

#include "at_mask.h"
#include "call_limit.h"
#include "celmux.h"
#include "link.h"
#include "link_step.h"
#include "log.h"
#include "waiting.h"

constexpr uint32_t ALLOC_PATIENCE_MS = 3000; // for a sender that takes nothing off the queue any more
constexpr uint32_t TIMEOUT_MAX_MS = 600000;  // a caller's mistake must not hold everybody up for weeks
constexpr int64_t SCAN_LIMIT_MS = 300000;    // a scan without an answer for so long has none coming

// Makes exchanges strictly one at a time.
static pthread_mutex_t request_mutex = PTHREAD_MUTEX_INITIALIZER;
// Makes numbering a command and queueing it one step, so that answers come in the order of the numbers; guards what
// stands below it. Held for that only.
static pthread_mutex_t order_mutex = PTHREAD_MUTEX_INITIALIZER;
// While an exchange is open, commands without a waiting caller are held back: one would take the place of an answer
// that does not come, or end up in the text of a message.
static bool exchange_open;
constexpr unsigned HELD_MAX = 16; // leaves the exchange room in at_tx_queue
static TextElem *held[HELD_MAX];
static unsigned held_count;
static std::atomic<int64_t> scan_started{0}; // monotonic ms

void end_scan()
{
    g_scanning.store(0);
    g_scan_began.store(0);
}

// Is a scan running? One whose answer is long overdue is over.
static bool scan_runs()
{
    if (!g_scanning.load())
        return false;
    if (monotonic_ms() - scan_started.load() < SCAN_LIMIT_MS)
        return true;
    log_error("network scan got no answer, given up");
    end_scan();
    return false;
}

static bool copy_command(TextElem *element, const char *command, int append_cr)
{
    size_t length = strlen(command);
    element->text = static_cast<char *>(malloc(length + 2));
    if (!element->text)
        return false;
    memcpy(element->text, command, length);
    if (append_cr)
        element->text[length++] = '\r';
    element->text[length] = '\0';
    element->size = static_cast<uint32_t>(length);
    return true;
}

int queue_command(const char *command, int append_cr, uint32_t patience_ms, Owes owes, uint32_t *number)
{
    if (owes != Owes::nothing && scan_runs()) { // what belongs to the command before it is not refused
        CELMUX_LOG(LOG_INFO, "modem busy", "at_enqueue");
        return -1;
    }
    bool scan = strcmp(command, SCAN_COMMAND) == 0;
    if (scan) {
        uint8_t idle = 0;
        scan_started.store(monotonic_ms());
        if (!g_scanning.compare_exchange_strong(idle, 1)) {
            CELMUX_LOG(LOG_INFO, "modem busy", "at_enqueue");
            return -1;
        }
    }
    TextElem *element = static_cast<TextElem *>(pool_queue_alloc_for(&at_tx_queue, patience_ms));
    if (!element || !copy_command(element, command, append_cr)) {
        if (element) {
            CELMUX_LOG(LOG_ERR, "failed to alloc at str", "at_enqueue");
            pool_queue_release(&at_tx_queue, element);
        } else {
            CELMUX_LOG(LOG_ERR, "failed to alloc at", "at_enqueue");
        }
        if (scan)
            end_scan();
        return -1;
    }
    uint32_t order = 0;
    pthread_mutex_lock(&order_mutex);
    bool hold = owes == Owes::unawaited && exchange_open;
    bool room = !hold || held_count < HELD_MAX;
    if (hold && room) {
        held[held_count++] = element;
    } else if (room) {
        if (owes != Owes::nothing)
            order = link_command_queued(command, owes == Owes::awaited);
        pool_queue_push(&at_tx_queue, element);
    }
    pthread_mutex_unlock(&order_mutex);
    if (!room) {
        CELMUX_LOG(LOG_ERR, "too many commands wait, refused: %s", "at_enqueue", Masked(command).text);
        free(element->text);
        element->text = nullptr;
        pool_queue_release(&at_tx_queue, element);
        if (scan)
            end_scan();
        return -1;
    }
    if (number)
        *number = order;
    return 0;
}

static void open_exchange()
{
    pthread_mutex_lock(&order_mutex);
    exchange_open = true;
    pthread_mutex_unlock(&order_mutex);
}

// Lets the commands go that were held back. `at_prompt`: the modem may still wait for the text of a message.
static void close_exchange(bool at_prompt)
{
    pthread_mutex_lock(&order_mutex);
    bool escape = at_prompt && held_count > 0;
    pthread_mutex_unlock(&order_mutex);
    if (escape)
        (void)queue_command(LINK_ESCAPE, 0, ALLOC_PATIENCE_MS, Owes::nothing,
                            nullptr); // a full queue has been logged there
    pthread_mutex_lock(&order_mutex);
    exchange_open = false;
    for (unsigned i = 0; i < held_count; i++) {
        link_command_queued(held[i]->text, false);
        pool_queue_push(&at_tx_queue, held[i]);
    }
    held_count = 0;
    pthread_mutex_unlock(&order_mutex);
}

int at_enqueue(const char *command, int append_cr)
{
    return queue_command(command, append_cr, ALLOC_PATIENCE_MS, Owes::unawaited, nullptr);
}

int at_enqueue_nowait(const char *command, int append_cr)
{
    return queue_command(command, append_cr, 0, Owes::unawaited, nullptr);
}

int flush_response()
{
    int result = -1;
    TextElem *element;
    while ((element = static_cast<TextElem *>(pool_queue_try_pop(&resp_queue)))) {
        log_info("flushed response: %s", Masked(element->text).text);
        free(element->text);
        element->text = nullptr;
        pool_queue_release(&resp_queue, element);
        result = 0;
    }
    return result;
}

static bool acceptable(const char *text, const char *expected)
{
    return strstr(text, "ERROR") || !expected || strstr(text, expected);
}

// The next answer off resp_queue, a heap text; null when none came until the deadline or the daemon stops.
static char *take_answer(int64_t deadline)
{
    while (running.load()) {
        int64_t left = deadline - monotonic_ms();
        TextElem *element = static_cast<TextElem *>(
            left > 0 ? pool_queue_pop_for(&resp_queue, static_cast<uint32_t>(left)) : pool_queue_try_pop(&resp_queue));
        if (element) {
            char *text = element->text;
            element->text = nullptr;
            pool_queue_release(&resp_queue, element);
            return text;
        }
        if (left <= 0) {
            CELMUX_LOG(LOG_DEBUG, "wait_for_response timeout\n", "wait_for_response");
            break;
        }
    }
    return nullptr;
}

int wait_for_response(char **answer, const char *expected, uint32_t timeout_ms)
{
    int64_t deadline = monotonic_ms() + timeout_ms;
    *answer = nullptr;
    while (char *text = take_answer(deadline)) {
        if (acceptable(text, expected)) {
            *answer = text;
            return 0;
        }
        free(text);
    }
    return running.load() ? -1 : 0;
}

// 0, or the error number of the wait. Whole seconds, on the realtime clock.
static int lock_requests(uint32_t timeout_ms)
{
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
    return pthread_mutex_timedlock(&request_mutex, &deadline);
}

static uint32_t bounded_timeout(uint32_t timeout_ms)
{
    return timeout_ms < TIMEOUT_MAX_MS ? timeout_ms : TIMEOUT_MAX_MS;
}

// One exchange with request_mutex held: in step, nothing stale, the command, its answer.
static int exchange(const char *command, char **answer, const char *expected, int append_cr, int64_t deadline)
{
    if (!link_get_in_step(deadline)) {
        link_silent_stand_in.store(running.load());
        return running.load() ? -1 : 0;
    }
    while (flush_response() == 0) {
    }
    if (queue_command(command, append_cr, ALLOC_PATIENCE_MS, Owes::awaited, nullptr) == -1)
        return -1;
    int64_t left = deadline - monotonic_ms();
    int result = wait_for_response(answer, expected, left > 0 ? static_cast<uint32_t>(left) : 0);
    link_silent_stand_in.store(result == -1);
    if (result == -1)
        link_out_of_step(LinkFault::timeout);
    return result;
}

int request(const char *command, char **answer, const char *expected, int append_cr, uint32_t timeout_ms)
{
    timeout_ms = bounded_timeout(timeout_ms);
    if (!limit_to_call(&timeout_ms))
        return -1;
    int error = lock_requests(timeout_ms);
    if (error) {
        log_info("acquire request mutex failed with error %d", error);
        return error;
    }
    char *text = nullptr;
    bool time_left = limit_to_call(&timeout_ms); // the wait for the mutex was part of it
    open_exchange();
    int result = time_left ? exchange(command, &text, expected, append_cr, monotonic_ms() + timeout_ms) : -1;
    close_exchange(false);
    pthread_mutex_unlock(&request_mutex);
    if (result == 0)
        *answer = text;
    return result;
}

int exec_retry(const char *command, char **answer, int append_cr, int tries)
{
    *answer = nullptr;
    for (int i = 0; i < tries && running.load(); i++) {
        if (request(command, answer, nullptr, append_cr, 3000) != 0 || !*answer)
            continue;
        log_info("Result: %s", Masked(*answer).text);
        if (strstr(*answer, "OK"))
            return 0;
        free(*answer);
        *answer = nullptr;
    }
    return -1;
}

// The exchange proper, with request_mutex held.
static int send_pdu(const char *pdu, int length, uint32_t timeout_ms)
{
    char command[24];
    snprintf(command, sizeof command, "AT+CMGS=%d\r", length);
    char *answer = nullptr;
    if (queue_command(command, 0, ALLOC_PATIENCE_MS, Owes::awaited, nullptr) == -1)
        return -1;
    if (wait_for_response(&answer, ">", timeout_ms) == -1 || !running.load()) {
        free(answer);
        link_out_of_step(LinkFault::prompt);
        return -1;
    }
    free(answer);
    if (queue_command(pdu, 0, ALLOC_PATIENCE_MS, Owes::nothing, nullptr) == -1 ||
        queue_command("\x1a", 0, ALLOC_PATIENCE_MS, Owes::nothing, nullptr) == -1) {
        link_out_of_step(LinkFault::prompt);
        return -1;
    }
    answer = nullptr;
    if (wait_for_response(&answer, "+CMGS:", timeout_ms) == -1 || !answer) {
        link_out_of_step(LinkFault::prompt);
        return -1;
    }
    bool sent = strstr(answer, "OK");
    free(answer);
    if (sent) {
        CELMUX_LOG(LOG_DEBUG, "send essage ok\n", "send_message_request");
        return 0;
    }
    answer = nullptr;
    sent = wait_for_response(&answer, "OK", timeout_ms) == 0 && answer && !strstr(answer, "ERROR");
    free(answer);
    if (sent)
        return 0;
    CELMUX_LOG(LOG_DEBUG, "send message result fail\n", "send_message_request");
    link_out_of_step(LinkFault::prompt);
    return -1;
}

int send_message_request(const char *pdu, int length, uint32_t timeout_ms)
{
    timeout_ms = bounded_timeout(timeout_ms);
    if (!limit_to_call(&timeout_ms))
        return -1;
    int error = lock_requests(timeout_ms);
    if (error) {
        log_debug("acquire request mutex failed with error %d\n", error);
        return error;
    }
    log_debug("start flush while\n");
    open_exchange();
    bool in_step = link_get_in_step(monotonic_ms() + timeout_ms);
    while (flush_response() == 0) {
    }
    log_debug("stop flush while\n");
    int result = in_step ? send_pdu(pdu, length, timeout_ms) : -1;
    log_debug("exit thread\n");
    close_exchange(result == -1);
    pthread_mutex_unlock(&request_mutex);
    return result;
}
