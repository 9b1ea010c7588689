// What the message store costs by its size: adding one message, listing, saving, loading, memory. Works on a real file
// in the folder given as first argument (default: the temporary folder) and prints JSON: an array with an object for
// each number of messages, times in microseconds.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <nlohmann/json.hpp>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "file_ops.h"
#include "message_merge.h"
#include "message_store.h"

constexpr size_t TEXT_SIZE = 140;

// Best of `rounds`, in microseconds.
static double best_time(int rounds, const std::function<void()> &work)
{
    double best = 1e12;
    for (int i = 0; i < rounds; i++) {
        auto start = std::chrono::steady_clock::now();
        work();
        std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
        best = took.count() < best ? took.count() : best;
    }
    return best;
}

static void add_text(int number)
{
    std::string text(TEXT_SIZE, 'x');
    auto *message = static_cast<DecodedMessage *>(calloc(1, sizeof(DecodedMessage) + text.size()));
    snprintf(message->sender, sizeof message->sender, "49170%07d", number);
    strcpy(message->date, "24-03-15");
    strcpy(message->time, "09:26:53");
    strcpy(message->smsc, "4917227555550");
    strcpy(message->type_of_address, "international");
    message->alphabet = -1;
    message->length = static_cast<uint32_t>(text.size());
    memcpy(message + 1, text.data(), text.size());
    if (add_message(message) != AddResult::added)
        abort();
    free(message);
}

static void empty_store()
{
    MessageArrayLock lock;
    array_clear(&message_array);
    free(message_array.items);
    message_array = {};
}

// The disk's own time for as much as an added message takes.
static double sync_time(const std::string &path)
{
    int fd = file_open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    const std::string record(2 * TEXT_SIZE, 'x');
    double best = best_time(20, [&] {
        if (fd < 0 || file_write(fd, record.data(), record.size()) != 0 || file_sync(fd) != 0)
            abort();
    });
    (void)file_close(fd);
    remove(path.c_str());
    return best;
}

static nlohmann::json measure(int count, const char *path)
{
    empty_store();
    remove(path);
    size_t heap_before = mallinfo2().uordblks;
    load_messages(path);
    for (int i = 0; i < count; i++)
        add_text(i);
    size_t heap = mallinfo2().uordblks - heap_before;

    double rewrite = best_time(5, [&] {
        message_array.file.current = false;
        save_messages(path);
    });
    double load = best_time(5, [&] {
        empty_store();
        load_messages(path);
    });
    struct blob_buf reply = {};
    double list = best_time(20, [&] {
        blob_buf_init(&reply, 0);
        list_messages(&reply);
    });
    int next = count;
    double add = best_time(20, [&] { add_text(next++); });
    double append = best_time(20, [&] {
        add_text(next++);
        save_messages(path);
    });
    blob_buf_free(&reply);
    return {{"messages", count},
            {"add", add},
            {"append", append},
            {"sync", sync_time(std::string(path) + ".sync")},
            {"rewrite", rewrite},
            {"load", load},
            {"list", list},
            {"heap", heap},
            {"per_byte", static_cast<double>(heap) / (static_cast<double>(count) * TEXT_SIZE)}};
}

int main(int argc, char **argv)
{
    std::string path = std::string(argc > 1 ? argv[1] : "/tmp") + "/bench_messages";
    nlohmann::json rows = nlohmann::json::array();
    for (int count : {10, 100, 1000, 5000})
        rows.push_back(measure(count, path.c_str()));
    remove(path.c_str());
    printf("%s\n", rows.dump().c_str());
    return 0;
}
