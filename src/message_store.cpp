// Called on the threads main (start), requester and resp_processor (adding and saving) and ubus_handler (the rest). The
// mutex is held through a save, so that the file always holds a state that the array had.

#include "message_store.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

extern "C" {
#include <libubox/blobmsg.h>
}

#include "log.h"
#include "message_file.h"
#include "message_merge.h"

// What the daemon may put into a reply: a bus message of 1 MiB less its own attributes, "truncated" and "result".
constexpr size_t REPLY_LIMIT = (1u << 20) - 256;

static std::atomic<uint8_t> last_save_failed{0};

static int save_locked(const char *path)
{
    int result = write_message_file(path, &message_array);
    last_save_failed.store(result != 0);
    return result;
}

int load_messages(const char *path)
{
    MessageArrayLock lock;
    return read_message_file(path, &message_array);
}

int save_messages(const char *path)
{
    MessageArrayLock lock;
    return save_locked(path);
}

int retry_messages(const char *path)
{
    MessageArrayLock lock;
    if (message_array.closed)
        return -1;
    if (!message_array.present)
        (void)read_message_file(path, &message_array); // a failure is printed
    if (message_array.present && (last_save_failed.load() || message_file_appeared(path, &message_array)))
        (void)save_locked(path); // as above
    return message_array.present && !last_save_failed.load() ? 0 : -1;
}

// Takes the older file's messages into the store, in place of `own` where it is JSON text. False, and the store as it
// was, when it tells nothing or something would be lost.
static bool take_older_file(MessageArray *own, int loaded)
{
    if (loaded < 0 || message_array.count == 0)
        return false;
    if (loaded == 1)
        return own->count == 0 || keep_message_file(MESSAGE_FILE, ".replaced", "replaced by the older one");
    for (uint32_t i = 0; i < message_array.count; i++) {
        if (!merge_stored(own, message_array.items[i]))
            return false;
    }
    std::swap(*own, message_array);
    return true;
}

void start_message_store()
{
    if (load_messages(MESSAGE_FILE) == 1)
        (void)save_messages(MESSAGE_FILE); // a failure is printed, the next save tries again
    if (!file_present(LEGACY_MESSAGE_FILE))
        return;
    MessageArray own = message_array;
    FileIdentity identity = own.file.identity;
    message_array = {};
    const int loaded = load_messages(LEGACY_MESSAGE_FILE);
    const bool useful = loaded >= 0 && message_array.count > 0;
    const bool taken = take_older_file(&own, loaded);
    if (!taken)
        std::swap(own, message_array);
    array_free(&own);
    message_array.file = {false, message_array.count, identity}; // the next save replaces that file, not the older one
    // The older file stays when it is the only one that holds these messages; it is read again at the next start.
    if (taken ? save_messages(MESSAGE_FILE) == 0 : loaded >= 0 && !useful)
        (void)file_unlink(LEGACY_MESSAGE_FILE);
}

void save_and_free_messages()
{
    MessageArrayLock lock;
    (void)save_locked(MESSAGE_FILE); // a failure is printed
    array_free(&message_array);
    message_array.closed = true;
}

void save_messages_for_exit()
{
    if (pthread_mutex_trylock(&message_array_mutex) != 0)
        return;
    (void)save_locked(MESSAGE_FILE); // a failure is printed
    pthread_mutex_unlock(&message_array_mutex);
}

bool messages_on_disk()
{
    return !last_save_failed.load();
}

static bool has_index(int32_t index)
{
    return index >= 1 && static_cast<uint32_t>(index) <= message_array.count;
}

int mark_messages_read(const int32_t *indexes, uint32_t count)
{
    MessageArrayLock lock;
    int result = 0;
    bool changed = false;
    for (uint32_t i = 0; i < count; i++) {
        if (!has_index(indexes[i])) {
            result = -1;
            continue;
        }
        uint32_t position = static_cast<uint32_t>(indexes[i]) - 1;
        uint8_t *record = record_of(message_array.items[position]);
        if (record[RECORD_READ])
            continue;
        record[RECORD_READ] = 1;
        changed = true;
        if (position < message_array.file.count)
            message_array.file.current = false;
    }
    if (changed)
        (void)save_locked(MESSAGE_FILE); // clients are not told; the next save tries again
    return result;
}

void delete_messages(const int32_t *indexes, uint32_t count)
{
    MessageArrayLock lock;
    for (uint32_t i = 0; i < count; i++) {
        if (has_index(indexes[i]))
            array_remove(&message_array, static_cast<uint32_t>(indexes[i]) - 1);
    }
    (void)save_locked(MESSAGE_FILE); // as above
}

void delete_all_messages()
{
    MessageArrayLock lock;
    if (!message_array.present)
        return; // what the file holds is not known
    array_clear(&message_array);
    free(message_array.items);
    message_array.items = nullptr;
    message_array.capacity = 0;
    (void)save_locked(MESSAGE_FILE); // as above
}

// The contents of a message in the order in which a client gets them.
struct OrderedContents {
    std::span<const uint8_t> parts[MOST_PARTS + 1]; // by part number
    unsigned last;
};

static void order_contents(const StoredMessage *message, const MessageFields &fields, OrderedContents *contents)
{
    contents->last = fields.is_long ? fields.total : 1;
    for (unsigned i = 0; i <= contents->last; i++)
        contents->parts[i] = {};
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part)) {
        if (part.index <= contents->last && contents->parts[part.index].data() == nullptr)
            contents->parts[part.index] = part.content;
    }
}

static const char *alphabet_name(int8_t alphabet)
{
    static const char *const names[] = {"GSM", "ISO", "Binary", "UCS2", "UTF8"}; // from -1 on
    return alphabet >= -1 && alphabet <= 3 ? names[alphabet + 1] : "Unknown";
}

static constexpr size_t padded(size_t size)
{
    return (size + 3) & ~size_t{3};
}

// Bytes that a member takes in a reply: attribute header, name, value.
static constexpr size_t member_size(std::string_view name, size_t value_size)
{
    return padded(4 + padded(2 + name.size() + 1) + value_size);
}

static size_t fields_size(const MessageFields &fields, const OrderedContents &contents)
{
    size_t bytes = 0;
    for (unsigned i = 1; i <= contents.last; i++)
        bytes += contents.parts[i].size();
    return member_size("alphabet", strlen(alphabet_name(fields.alphabet)) + 1) +
           member_size("sender", fields.sender.size() + 1) + member_size("date", fields.date.size() + 1) +
           member_size("time", fields.time.size() + 1) + member_size("read", 1) + member_size("country_code", 4) +
           member_size("message", bytes * member_size("", 2));
}

// The buffer has room for everything, so no addition can fail.
static void add_fields(struct blob_buf *reply, const MessageFields &fields, const OrderedContents &contents)
{
    blobmsg_add_string(reply, "alphabet", alphabet_name(fields.alphabet));
    blobmsg_add_string(reply, "sender", fields.sender.data());
    blobmsg_add_string(reply, "date", fields.date.data());
    blobmsg_add_string(reply, "time", fields.time.data());
    blobmsg_add_u8(reply, "read", fields.read);
    blobmsg_add_u32(reply, "country_code", fields.international);
    void *array = blobmsg_open_array(reply, "message");
    for (unsigned i = 1; i <= contents.last; i++) {
        for (uint8_t byte : contents.parts[i])
            blobmsg_add_u16(reply, "", byte);
    }
    blobmsg_close_array(reply, array);
}

// Makes room for the whole list at once. Growing step by step would copy the list again and again.
static bool make_room(struct blob_buf *reply, size_t size)
{
    size_t needed = blob_pad_len(reply->head) + size;
    size_t have = static_cast<size_t>(reply->buflen);
    return needed <= have || blob_buf_grow(reply, static_cast<int>(needed - have));
}

// Adds one table to the list: the index of the message and its fields.
static size_t table_size(const StoredMessage *message)
{
    OrderedContents contents;
    MessageFields fields = message_fields(message);
    order_contents(message, fields, &contents);
    return member_size("", member_size("index", 4) + fields_size(fields, contents));
}

// Logged once, and again only after a list was complete.
static void tell_truncation(uint32_t left_out)
{
    static bool told; // guarded by the mutex
    if (left_out > 0 && !told)
        log_error("listing of messages is full, the oldest %u are left out", left_out);
    told = left_out > 0;
}

int list_messages(struct blob_buf *reply)
{
    MessageArrayLock lock;
    if (!message_array.present)
        return -1;
    size_t size = member_size("messages", 0);
    uint32_t first = message_array.count;
    for (; first > 0; first--) {
        size_t more = table_size(message_array.items[first - 1]);
        if (size + more > REPLY_LIMIT)
            break;
        size += more;
    }
    tell_truncation(first);
    if (!make_room(reply, size + member_size("truncated", 1)))
        return -1;

    void *messages = blobmsg_open_array(reply, "messages");
    for (uint32_t i = first; i < message_array.count; i++) {
        OrderedContents contents;
        MessageFields fields = message_fields(message_array.items[i]);
        order_contents(message_array.items[i], fields, &contents);
        void *table = blobmsg_open_table(reply, "");
        blobmsg_add_u32(reply, "index", i + 1);
        add_fields(reply, fields, contents);
        blobmsg_close_table(reply, table);
    }
    blobmsg_close_array(reply, messages);
    if (first > 0)
        blobmsg_add_u8(reply, "truncated", 1);
    return 0;
}

int get_message(struct blob_buf *reply, int32_t index)
{
    MessageArrayLock lock;
    if (!has_index(index))
        return -1;
    const StoredMessage *message = message_array.items[index - 1];
    OrderedContents contents;
    MessageFields fields = message_fields(message);
    order_contents(message, fields, &contents);
    size_t size = fields_size(fields, contents);
    if (size > REPLY_LIMIT) {
        log_error("message %d does not fit into a bus message", index);
        return -1;
    }
    if (!make_room(reply, size))
        return -1;
    add_fields(reply, fields, contents);
    return 0;
}
