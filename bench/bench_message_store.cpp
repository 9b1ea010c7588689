// What the message store costs by its size: adding one message, listing, saving, loading, memory. Works on a real file
// in the folder given as first argument (default: the temporary folder).

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "message_merge.h"
#include "message_store.h"

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
    std::string text(140, 'x');
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

static void measure(int count, const char *path)
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
    printf("%8d %10.1f %14.1f %13.1f %10.1f %10.1f %12zu\n", count, add, append, rewrite, load, list, heap);
    blob_buf_free(&reply);
}

int main(int argc, char **argv)
{
    std::string path = std::string(argc > 1 ? argv[1] : "/tmp") + "/bench_messages";
    printf("messages   add (us) add+save (us)  rewrite (us)  load (us)  list (us)  heap (bytes)\n");
    for (int count : {10, 100, 1000, 5000})
        measure(count, path.c_str());
    remove(path.c_str());
    return 0;
}
