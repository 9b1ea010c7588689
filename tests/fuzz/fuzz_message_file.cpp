// Loads any bytes as a message file, saves what came out and loads that again: the second load must find the same.
// Linked with tests/support/fake_files.cpp, so that no disk slows it down.

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "fake_files.h"
#include "message_file.h"
#include "message_store.h"

static std::string all_records()
{
    std::string bytes;
    for (uint32_t i = 0; i < message_array.count; i++)
        bytes.append(reinterpret_cast<const char *>(record_of(message_array.items[i])), message_array.items[i]->size);
    return bytes;
}

static void empty_store()
{
    array_clear(&message_array);
    free(message_array.items);
    message_array = {};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fake_files.reset();
    fake_files.put(MESSAGE_FILE, {reinterpret_cast<const char *>(data), size});
    empty_store();
    if (load_messages(MESSAGE_FILE) < 0)
        abort();
    struct blob_buf reply = {};
    blob_buf_init(&reply, 0);
    if (list_messages(&reply) != 0 || blob_pad_len(reply.head) > 1u << 20)
        abort();
    blob_buf_free(&reply);
    std::string loaded = all_records();
    if (save_messages(MESSAGE_FILE) != 0)
        abort();
    empty_store();
    if (load_messages(MESSAGE_FILE) != 0 || all_records() != loaded || !message_array.file.current)
        abort();
    empty_store();
    return 0;
}
