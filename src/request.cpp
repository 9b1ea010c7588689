#include "request.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>

#include "at_mask.h"
#include "call_limit.h"
#include "link.h"
#include "link_text.h"
#include "log.h"
#include "queues.h"
#include "waiting.h"

constexpr uint32_t TIMEOUT_MAX_MS = 600000; // a caller's mistake must not hold everybody up for weeks
constexpr int64_t ON_ITS_WAY_MS = 2000;     // for an answer that the response processor has in its hands

// Makes exchanges strictly one at a time.
static pthread_mutex_t request_mutex = PTHREAD_MUTEX_INITIALIZER;

// Takes the next answer off resp_queue, waiting until the deadline. False when none came or the daemon stops.
static bool next_answer(int64_t deadline, TextElem *answer)
{
    while (running.load()) {
        int64_t left = deadline - monotonic_ms();
        TextElem *element = static_cast<TextElem *>(
            left > 0 ? pool_queue_pop_for(&resp_queue, static_cast<uint32_t>(left)) : pool_queue_try_pop(&resp_queue));
        if (element) {
            *answer = *element;
            pool_queue_release(&resp_queue, element);
            return true;
        }
        if (left <= 0)
            break;
    }
    return false;
}

static void drop(const TextElem &answer)
{
    if (answer.text)
        log_info("flushed response: %s", Masked(answer.text).text);
    free(answer.text);
}

// Waits for the answer to a command. 0 with *answer, which is null when the daemon stops; -1 when there is none.
static int wait_for_response(uint32_t number, char **answer, int64_t deadline)
{
    TextElem taken;
    bool on_its_way = false;
    *answer = nullptr;
    for (;;) {
        if (next_answer(deadline, &taken)) {
            if (taken.number != number) {
                drop(taken);
                continue;
            }
            *answer = taken.text;
            return taken.text ? 0 : -1;
        }
        if (!running.load())
            return 0;
        if (on_its_way)
            return -1;
        if (link_abandon(number, answer))
            break;
        deadline = monotonic_ms() + ON_ITS_WAY_MS;
        on_its_way = true;
    }
    if (!*answer)
        CELMUX_LOG(LOG_DEBUG, "wait_for_response timeout\n", "wait_for_response");
    return *answer ? 0 : -1;
}

// 0, or the error number of the wait, on the realtime clock. A caller's own time-out counts in whole seconds; what is
// left of a call that has waited already is `exact`.
static int lock_requests(uint32_t timeout_ms, bool exact)
{
    constexpr long NS_PER_S = 1000000000;
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
    deadline.tv_nsec += exact ? static_cast<long>(timeout_ms % 1000) * 1000000 : 0;
    if (deadline.tv_nsec >= NS_PER_S) {
        deadline.tv_nsec -= NS_PER_S;
        deadline.tv_sec++;
    }
    return pthread_mutex_timedlock(&request_mutex, &deadline);
}

static uint32_t bounded_timeout(uint32_t timeout_ms)
{
    return timeout_ms < TIMEOUT_MAX_MS ? timeout_ms : TIMEOUT_MAX_MS;
}

int request(const char *command, char **answer, const char *expected, int append_cr, uint32_t timeout_ms)
{
    timeout_ms = bounded_timeout(timeout_ms);
    const uint32_t own_ms = timeout_ms;
    if (!limit_to_call(&timeout_ms))
        return -1;
    int64_t deadline = monotonic_ms() + timeout_ms;
    int error = lock_requests(timeout_ms, timeout_ms < own_ms);
    if (error) {
        log_info("acquire request mutex failed with error %d", error);
        return error;
    }
    char *text = nullptr;
    bool time_left = limit_to_call(&timeout_ms); // the wait for the mutex was part of it
    deadline = std::min(deadline, monotonic_ms() + timeout_ms);
    uint32_t number = time_left ? link_submit(command, append_cr, expected, LinkCaller::waits) : 0;
    int result = number ? wait_for_response(number, &text, deadline) : -1;
    pthread_mutex_unlock(&request_mutex);
    if (result == 0)
        *answer = text;
    return result;
}

int at_enqueue(const char *command, int append_cr)
{
    return link_submit(command, append_cr, nullptr, LinkCaller::nobody) ? 0 : -1;
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

// One step of sending a message: waits for the prompt, or for the answer to the text. Returns true when what came holds
// `wanted`.
static bool message_step(uint32_t number, const char *command, const char *wanted, uint32_t timeout_ms)
{
    char *answer = nullptr;
    int result = wait_for_response(number, &answer, monotonic_ms() + timeout_ms);
    if (answer)
        remove_reports(answer, command);
    bool good = result == 0 && answer && strstr(answer, wanted) && !strstr(answer, "ERROR");
    free(answer);
    return good;
}

static bool exchange_message(const char *pdu, int length, uint32_t timeout_ms)
{
    char command[24];
    snprintf(command, sizeof command, "AT+CMGS=%d\r", length);
    uint32_t number = link_submit(command, 0, nullptr, LinkCaller::sends);
    bool sent = number && message_step(number, command, ">", timeout_ms) && link_send_message(number, pdu) &&
                message_step(number, command, "+CMGS:", timeout_ms);
    if (number && !sent) { // the modem must not be left at its prompt
        char *rest = nullptr;
        (void)link_abandon(number, &rest);
        free(rest);
    }
    return sent;
}

int send_message_request(const char *pdu, int length, uint32_t timeout_ms)
{
    timeout_ms = bounded_timeout(timeout_ms);
    const uint32_t own_ms = timeout_ms;
    if (!limit_to_call(&timeout_ms))
        return -1;
    int error = lock_requests(timeout_ms, timeout_ms < own_ms);
    if (error) {
        log_debug("acquire request mutex failed with error %d\n", error);
        return error;
    }
    log_debug("start flush while\n");
    log_debug("stop flush while\n");
    bool sent = exchange_message(pdu, length, timeout_ms);
    if (sent)
        log_debug("send essage ok\n");
    else
        log_debug("send message result fail\n");
    log_debug("exit thread\n");
    pthread_mutex_unlock(&request_mutex);
    return sent ? 0 : -1;
}
