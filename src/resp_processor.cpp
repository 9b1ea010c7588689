// Runs on the thread resp_processor, which never waits for a consumer.

#include "resp_processor.h"

#include <cstdlib>
#include <cstring>

#include "at_mask.h"
#include "final_results.h"
#include "indications.h"
#include "link.h"
#include "log.h"
#include "queues.h"
#include "text_cut.h"
#include "waiting.h"

constexpr uint32_t IDLE_MS = 60000; // a push wakes the thread at once

// Passes an answer on to its caller and takes over the text. When the queue is full, its oldest answer is dropped.
static void resp_enqueue(const TextElem *element)
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
        return;
    }
    *answer = *element;
    pool_queue_push(&resp_queue, answer);
}

// A modem that sends this after a silence has just started and may never answer what it was asked before.
static void watch_for_start(const char *text)
{
    constexpr int64_t SILENCE_MS = 3000;
    static int64_t last_text; // only this thread
    int64_t now = monotonic_ms();
    if (now - last_text > SILENCE_MS && strstr(text, "+SIM READY"))
        link_doubt();
    last_text = now;
}

static const char *result_of(const char *text)
{
    std::string_view rest = text, line;
    const char *result = nullptr;
    while (next_line(&rest, &line)) {
        const char *entry = matching_result(line);
        result = entry ? entry : result;
    }
    return result ? result : "";
}

// Acts on what the lines announce; the reports among them have been acted on when they came.
static void scan_lines(const char *text)
{
    char *copy = strdup(text);
    if (!copy)
        return;
    remove_reports(copy, "");
    handle_indications(copy);
    free(copy);
}

// The answer goes to its caller after the daemon has acted on what it says.
static void pass_on(const LinkItem &item)
{
    if (item.text) {
        CELMUX_LOG(LOG_INFO, "Solicited message %s: %s", "resp_processor", result_of(item.text),
                   Masked(item.text).text);
        scan_lines(item.text);
    }
    if (item.scan)
        end_scan();
    TextElem answer = {item.text, item.text ? static_cast<uint32_t>(strlen(item.text) + 1) : 0, item.number};
    if (item.awaited)
        resp_enqueue(&answer);
    else
        free(answer.text);
}

static void act_on(const LinkItem &item)
{
    if (item.text)
        watch_for_start(item.text);
    switch (item.kind) {
    case LinkItem::Kind::nothing:
        break;
    case LinkItem::Kind::answer:
    case LinkItem::Kind::prompt:
        pass_on(item);
        break;
    case LinkItem::Kind::report:
        CELMUX_LOG(LOG_INFO, "Unsolicited message: %s", "resp_processor", Masked(item.text).text);
        handle_indications(item.text);
        free(item.text);
        break;
    case LinkItem::Kind::late:
        if (!item.text)
            break;
        CELMUX_LOG(LOG_INFO, "late answer dropped: %s", "resp_processor", Masked(item.text).text);
        scan_lines(item.text);
        free(item.text);
        break;
    }
}

static void process_bytes(const char *data, size_t size)
{
    LinkItem item;
    do {
        size_t used = link_take(data, size, &item);
        data += used;
        size -= used;
        act_on(item);
    } while (running.load() && (size > 0 || item.kind != LinkItem::Kind::nothing));
}

static void process_time()
{
    LinkItem item;
    do {
        link_tick(&item);
        act_on(item);
    } while (item.kind != LinkItem::Kind::nothing);
}

void *resp_processor(void *)
{
    load_results();
    set_ready(&t_processor_ready);
    while (running.load()) {
        TextElem *burst = static_cast<TextElem *>(pool_queue_pop_for(&at_rx_queue, link_sleep_ms(IDLE_MS)));
        if (burst) {
            TextElem taken = *burst;
            pool_queue_release(&at_rx_queue, burst);
            if (taken.text)
                process_bytes(taken.text, strlen(taken.text));
            free(taken.text);
        }
        process_time();
    }
    log_info("%s thread exit gracefully", __func__);
    return nullptr;
}
