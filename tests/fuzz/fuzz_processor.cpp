// The response processor with indications, message store and queues on a stream of bursts, parted by zero bytes. Its
// thread function runs here until nothing is left: instead of waiting for the next burst, it stops.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <cjson/cJSON.h>

#include "config.h"
#include "fake_files.h"
#include "fake_shell.h"
#include "final_results.h"
#include "link.h"
#include "message_index.h"
#include "message_store.h"
#include "queues.h"
#include "request.h"
#include "resp_processor.h"
#include "uci_access.h"
#include "waiting.h"

static int64_t now_ms = 1000000;

std::atomic<uint8_t> running{1};
std::atomic<uint8_t> t_processor_ready{0};
std::atomic<uint8_t> t_listener_ready{0};
std::atomic<uint8_t> t_sender_ready{0};
std::atomic<uint8_t> t_requester_ready{0};

int64_t monotonic_ms()
{
    return now_ms;
}

timespec monotonic_now()
{
    return {static_cast<time_t>(now_ms / 1000), 0};
}

void wait_word(std::atomic<uint32_t> *, uint32_t, uint32_t timeout_ms)
{
    now_ms += timeout_ms;
    running.store(0);
}

void wake_word(std::atomic<uint32_t> *) {}

bool sleep_while_running(uint32_t ms)
{
    now_ms += ms;
    return running.load();
}

void set_ready(std::atomic<uint8_t> *) {}

void end_sleeps() {}

int stop_event_fd()
{
    return -1;
}

int init_stop_event()
{
    return 0;
}

bool wait_ready(std::atomic<uint8_t> *const[], unsigned)
{
    return true;
}

static bool prepare()
{
    uci_access_set_folders("/nowhere", "/nowhere");
    pool_queue_init(&at_tx_queue, sizeof(TextElem), 32);
    pool_queue_init(&at_rx_queue, sizeof(TextElem), 32);
    pool_queue_init(&resp_queue, sizeof(TextElem), 32);
    pool_queue_init(&incomming_sms_queue, sizeof(int32_t), 127);
    json_g = cJSON_Parse(R"({"results": ["OK", "ERROR", "+CME ERROR", "+CMS ERROR", "NO CARRIER"]})");
    return json_g;
}

static bool push_burst(const uint8_t *data, size_t size)
{
    TextElem *element = static_cast<TextElem *>(pool_queue_try_alloc(&at_rx_queue));
    if (!element)
        return false;
    *element = {static_cast<char *>(malloc(size + 1)), static_cast<uint32_t>(size + 1)};
    memcpy(element->text, data, size);
    element->text[size] = '\0';
    pool_queue_push(&at_rx_queue, element);
    return true;
}

static void drain(PoolQueue *queue, bool commands)
{
    while (TextElem *element = static_cast<TextElem *>(pool_queue_try_pop(queue))) {
        // What goes to the modem is whole commands of this daemon, whatever the modem said.
        if (commands && (element->size != strlen(element->text) || element->text[element->size - 1] != '\r' ||
                         (strncmp(element->text, "AT+", 3) != 0 && strcmp(element->text, LINK_ESCAPE) != 0)))
            abort();
        free(element->text);
        pool_queue_release(queue, element);
    }
}

static void drain_indexes()
{
    while (void *element = pool_queue_try_pop(&incomming_sms_queue)) {
        int32_t index;
        memcpy(&index, element, sizeof index);
        if (index < 0)
            abort();
        pool_queue_release(&incomming_sms_queue, element);
        sms_index_done(index);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool prepared = prepare();
    if (!prepared)
        abort();
    fake_files.reset();
    fake_shell.reset();
    array_clear(&message_array);
    end_scan();
    link_free();
    link_init(false);
    running.store(1);
    for (size_t from = 0; from < size;) {
        const void *zero = memchr(data + from, 0, size - from);
        const size_t end = zero ? static_cast<size_t>(static_cast<const uint8_t *>(zero) - data) : size;
        if (!push_burst(data + from, end - from))
            break;
        from = end + 1;
    }
    resp_processor(nullptr);
    free_results();
    drain(&at_rx_queue, false);
    drain(&resp_queue, false);
    drain(&at_tx_queue, true);
    drain_indexes();
    for (const std::string &command : fake_shell.commands) {
        if (!command.starts_with("uci "))
            abort();
    }
    return 0;
}
