#include "message_merge.h"

#include <cstdlib>
#include <cstring>

#include "log.h"
#include "message_store.h"
#include "shell.h"

// The fields as a restart would bring them back from the file, so that a message compares equal before and after one.
static MessageFields fields_of(const DecodedMessage *message)
{
    int alphabet = message->alphabet >= -1 && message->alphabet <= 3 ? message->alphabet : INT8_MAX;
    return {
        .alphabet = static_cast<int8_t>(alphabet),
        .read = false,
        .is_long = message->is_part,
        .international = strstr(message->type_of_address, "international") != nullptr,
        .csms_ref = message->csms_ref,
        .total = message->total,
        .date = std::string_view(message->date).substr(0, STAMP_SIZE - 1),
        .time = std::string_view(message->time).substr(0, STAMP_SIZE - 1),
        .smsc = message->smsc,
        .sender = message->sender,
    };
}

// Equal but for what a client changed?
static bool same_message(const StoredMessage *stored, StoredMessage *message)
{
    if (stored->size != message->size)
        return false;
    record_of(message)[RECORD_READ] = record_of(stored)[RECORD_READ];
    bool same = memcmp(record_of(stored), record_of(message), message->size) == 0;
    record_of(message)[RECORD_READ] = 0;
    return same;
}

static AddResult add_single(StoredMessage *message)
{
    for (uint32_t i = 0; i < message_array.count; i++) {
        if (!same_message(message_array.items[i], message))
            continue;
        print_out("abandon duplicate message\n");
        free(message);
        return AddResult::duplicate;
    }
    if (array_append(&message_array, message) == 0)
        return AddResult::added;
    free(message);
    return AddResult::refused;
}

// Parts of one message arrive at different times, so the time is none of the anchors.
static bool belongs_to(const MessageFields &stored, const MessageFields &part)
{
    return stored.is_long && stored.csms_ref == part.csms_ref && stored.total == part.total &&
           stored.alphabet == part.alphabet && stored.international == part.international && stored.date == part.date &&
           stored.sender == part.sender;
}

static bool has_part(const StoredMessage *message, uint8_t index)
{
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part)) {
        if (part.index == index)
            return true;
    }
    return false;
}

static bool all_parts_present(const StoredMessage *message, uint8_t total)
{
    uint16_t sum = 0;
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part))
        sum = static_cast<uint16_t>(sum + part.index);
    return sum == static_cast<uint16_t>(total * (total + 1) / 2);
}

static AddResult join_part(uint32_t position, const MessageFields &fields, const MessagePart &part)
{
    const StoredMessage *stored = message_array.items[position];
    if (has_part(stored, part.index)) {
        print_out("abandon duplicate message part\n");
        return AddResult::added;
    }
    if (message_array.bytes + PART_HEADER_SIZE + part.content.size() > MOST_MESSAGE_BYTES)
        return AddResult::refused;
    StoredMessage *joined = message_with_part(stored, part);
    if (!joined) {
        print_out("create part info object failed\n");
        return AddResult::refused;
    }
    if (all_parts_present(joined, fields.total))
        joined->all_parts_present = 1;
    array_replace(&message_array, position, joined);
    return AddResult::added;
}

AddResult add_message(const DecodedMessage *message)
{
    MessageFields fields = fields_of(message);
    MessagePart part = {message->index, {user_data_of(message), message->length}};
    MessageArrayLock lock;
    if (!message_array.present)
        return AddResult::refused;
    for (uint32_t i = 0; fields.is_long && i < message_array.count; i++) {
        if (belongs_to(message_fields(message_array.items[i]), fields))
            return join_part(i, fields, part);
    }
    StoredMessage *created = message_new(fields, {&part, 1});
    if (!created)
        return AddResult::refused;
    if (!fields.is_long)
        return add_single(created);
    if (array_append(&message_array, created) == 0)
        return AddResult::added;
    free(created);
    return AddResult::refused;
}

void set_message_unread()
{
    (void)run_shell("uci set modem.state.message_unread=1"); // a router without that section has no such lamp
}
