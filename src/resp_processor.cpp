// Runs on the thread resp_processor, which never waits for a consumer.

#include "resp_processor.h"

#include <cstdlib>
#include <cstring>

#include "at_mask.h"
#include "final_results.h"
#include "indications.h"
#include "link_step.h"
#include "log.h"
#include "waiting.h"

constexpr uint32_t IDLE_MS = 60000; // a push wakes the thread at once
constexpr int64_t NO_INDEX = 0;
constexpr unsigned PENDING_MAX = 128; // as many as incomming_sms_queue holds

std::atomic<uint8_t> g_sms_sweep{0};
// Indexes that wait in incomming_sms_queue, each plus 1: filled by this thread, emptied by the requester.
static std::atomic<int64_t> pending_indexes[PENDING_MAX];

int resp_enqueue(TextElem *element)
{
    TextElem *answer = static_cast<TextElem *>(pool_queue_try_alloc(&resp_queue));
    if (!answer) {
        answer = static_cast<TextElem *>(pool_queue_try_pop(&resp_queue));
        if (answer) {
            log_error("response queue full, dropped: %s", Masked(answer->text).text);
            free(answer->text);
        }
    }
    if (!answer) {
        log_error("failed to alloc resp");
        free(element->text);
        element->text = nullptr;
        return -1;
    }
    *answer = *element;
    element->text = nullptr;
    pool_queue_push(&resp_queue, answer);
    return 0;
}

static std::atomic<int64_t> *pending_slot(int64_t wanted)
{
    for (std::atomic<int64_t> &slot : pending_indexes) {
        if (slot.load() == wanted)
            return &slot;
    }
    return nullptr;
}

int sms_index_enqueue(int32_t index)
{
    if (index < 0) {
        log_error("message index %d ignored", index);
        return -1;
    }
    int64_t marked = static_cast<int64_t>(index) + 1;
    if (pending_slot(marked))
        return 0;
    std::atomic<int64_t> *slot = pending_slot(NO_INDEX);
    int32_t *element = slot ? static_cast<int32_t *>(pool_queue_try_alloc(&incomming_sms_queue)) : nullptr;
    if (!element) {
        log_error("failed to alloc sms_index");
        g_sms_sweep.store(1);
        return -1;
    }
    slot->store(marked);
    *element = index;
    pool_queue_push(&incomming_sms_queue, element);
    return 0;
}

void sms_index_done(int32_t index)
{
    std::atomic<int64_t> *slot = pending_slot(static_cast<int64_t>(index) + 1);
    if (slot)
        slot->store(NO_INDEX);
}

// A modem that says so after a silence has restarted, and answers nothing that it was asked before.
static void watch_for_restart(const char *text)
{
    constexpr int64_t SILENCE_MS = 3000;
    static int64_t last_burst; // only this thread
    int64_t now = monotonic_ms();
    if (now - last_burst > SILENCE_MS && strstr(text, "+SIM READY"))
        link_out_of_step(LinkFault::restarted);
    last_burst = now;
}

static void process_text(TextElem *burst)
{
    const char *result = matching_result(last_line(burst->text));
    if (!result) {
        CELMUX_LOG(LOG_INFO, "Unsolicited message: %s", "resp_processor", Masked(burst->text).text);
        handle_indications(burst);
        free(burst->text);
        burst->text = nullptr;
        return;
    }
    if (strstr(result, "ERROR") && g_scan_began.load())
        g_scanning.store(0);
    CELMUX_LOG(LOG_INFO, "Solicited message %s: %s", "resp_processor", result, Masked(burst->text).text);
    handle_indications(burst);
    if (burst->text)
        (void)resp_enqueue(burst); // a failure is logged there and leaves nothing to free
}

// A report may stand right behind an answer, as "+CGEV:" behind that of a data call: the answer is one all the same.
static void process_burst(TextElem *burst)
{
    watch_for_restart(burst->text);
    size_t length = length_to_last_result(burst->text);
    TextElem answer = {length ? static_cast<char *>(malloc(length + 3)) : nullptr, static_cast<uint32_t>(length + 3)};
    if (answer.text) {
        memcpy(answer.text, burst->text, length);
        memcpy(answer.text + length, "\r\n", 3);
        memmove(burst->text, burst->text + length, strlen(burst->text + length) + 1);
        process_text(&answer);
    }
    process_text(burst);
}

void *resp_processor(void *)
{
    load_results();
    set_ready(&t_processor_ready);
    while (running.load()) {
        TextElem *burst = static_cast<TextElem *>(pool_queue_pop_for(&at_rx_queue, IDLE_MS));
        if (!burst)
            continue;
        bool answers = results_in(burst->text) > 0;
        link_strip_repeated(burst->text);
        link_answers_arrived(results_in(burst->text));
        if (!answers || burst->text[strspn(burst->text, "\r\n")]) // more than a repeated answer
            process_burst(burst);
        else
            free(burst->text);
        burst->text = nullptr;
        link_answers_passed_on(); // who sees that nothing is owed finds every answer in the queue
        pool_queue_release(&at_rx_queue, burst);
    }
    log_info("%s thread exit gracefully", __func__);
    return nullptr;
}
