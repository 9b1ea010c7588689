#include "message_record.h"

#include <cstdlib>
#include <cstring>

static uint8_t *put_text(uint8_t *to, std::string_view text)
{
    if (!text.empty())
        memcpy(to, text.data(), text.size());
    to[text.size()] = 0;
    return to + text.size() + 1;
}

static uint8_t *put_part(uint8_t *to, uint8_t index, std::span<const uint8_t> content)
{
    to[0] = index;
    to[1] = 0;
    write_u16(to + PART_CONTENT_LENGTH, content.size());
    if (!content.empty())
        memcpy(to + PART_HEADER_SIZE, content.data(), content.size());
    return to + PART_HEADER_SIZE + content.size();
}

static StoredMessage *allocate_message(size_t record_size)
{
    if (record_size > UINT32_MAX)
        return nullptr;
    StoredMessage *message = static_cast<StoredMessage *>(malloc(sizeof(StoredMessage) + record_size));
    if (message)
        *message = {static_cast<uint32_t>(record_size), 0};
    return message;
}

static void put_header(uint8_t *record, const MessageFields &fields, size_t part_count)
{
    memset(record, 0, RECORD_HEADER_SIZE);
    record[RECORD_ALPHABET] = static_cast<uint8_t>(fields.alphabet);
    (void)put_text(record + RECORD_DATE, fields.date.substr(0, STAMP_SIZE - 1));
    (void)put_text(record + RECORD_TIME, fields.time.substr(0, STAMP_SIZE - 1));
    record[RECORD_READ] = fields.read;
    record[RECORD_LONG] = fields.is_long;
    write_u16(record + RECORD_CSMS_REF, fields.is_long ? fields.csms_ref : 0);
    record[RECORD_INTERNATIONAL] = fields.international;
    record[RECORD_TOTAL] = fields.is_long ? fields.total : 0;
    record[RECORD_PART_COUNT] = static_cast<uint8_t>(part_count);
    write_u16(record + RECORD_SMSC_LENGTH, fields.smsc.size() + 1);
    write_u16(record + RECORD_SENDER_LENGTH, fields.sender.size() + 1);
}

StoredMessage *message_new(const MessageFields &fields, std::span<const MessagePart> parts)
{
    size_t size = RECORD_HEADER_SIZE + fields.smsc.size() + 1 + fields.sender.size() + 1;
    bool fits = fields.smsc.size() <= LONGEST_TEXT && fields.sender.size() <= LONGEST_TEXT &&
                parts.size() <= MOST_PARTS && (fields.is_long || parts.size() == 1);
    for (const MessagePart &part : parts) {
        fits = fits && part.content.size() <= LONGEST_CONTENT;
        size += PART_HEADER_SIZE + part.content.size();
    }
    StoredMessage *message = fits ? allocate_message(size) : nullptr;
    if (!message)
        return nullptr;
    uint8_t *record = record_of(message);
    put_header(record, fields, parts.size());
    uint8_t *end = put_text(record + RECORD_HEADER_SIZE, fields.smsc);
    end = put_text(end, fields.sender);
    for (const MessagePart &part : parts)
        end = put_part(end, fields.is_long ? part.index : 1, part.content);
    return message;
}

StoredMessage *message_copy(const StoredMessage *message)
{
    StoredMessage *copy = static_cast<StoredMessage *>(malloc(sizeof(StoredMessage) + message->size));
    if (copy)
        memcpy(static_cast<void *>(copy), message, sizeof(StoredMessage) + message->size);
    return copy;
}

StoredMessage *message_with_part(const StoredMessage *message, const MessagePart &part)
{
    const uint8_t *old = record_of(message);
    unsigned count = old[RECORD_PART_COUNT];
    if (count >= MOST_PARTS || part.content.size() > LONGEST_CONTENT)
        return nullptr;
    StoredMessage *grown = allocate_message(message->size + PART_HEADER_SIZE + part.content.size());
    if (!grown)
        return nullptr;

    PartWalk walk = parts_of(message);
    MessagePart passed;
    for (unsigned position = 0; position < part.index && next_part(&walk, &passed); position++)
        continue;
    size_t before = static_cast<size_t>(walk.next - old);
    uint8_t *record = record_of(grown);
    memcpy(record, old, before);
    uint8_t *end = put_part(record + before, part.index, part.content);
    memcpy(end, old + before, message->size - before);
    record[RECORD_PART_COUNT] = static_cast<uint8_t>(count + 1);
    grown->all_parts_present = message->all_parts_present;
    return grown;
}

static std::string_view text_at(const uint8_t *bytes)
{
    return reinterpret_cast<const char *>(bytes);
}

MessageFields message_fields(const StoredMessage *message)
{
    const uint8_t *record = record_of(message);
    const uint8_t *smsc = record + RECORD_HEADER_SIZE;
    return {
        .alphabet = static_cast<int8_t>(record[RECORD_ALPHABET]),
        .read = record[RECORD_READ] != 0,
        .is_long = record[RECORD_LONG] != 0,
        .international = record[RECORD_INTERNATIONAL] != 0,
        .csms_ref = read_u16(record + RECORD_CSMS_REF),
        .total = record[RECORD_TOTAL],
        .date = text_at(record + RECORD_DATE),
        .time = text_at(record + RECORD_TIME),
        .smsc = text_at(smsc),
        .sender = text_at(smsc + read_u16(record + RECORD_SMSC_LENGTH)),
    };
}

PartWalk parts_of(const StoredMessage *message)
{
    const uint8_t *record = record_of(message);
    size_t texts = size_t{read_u16(record + RECORD_SMSC_LENGTH)} + read_u16(record + RECORD_SENDER_LENGTH);
    return {record + RECORD_HEADER_SIZE + texts, record[RECORD_PART_COUNT]};
}

bool next_part(PartWalk *walk, MessagePart *part)
{
    if (walk->left == 0)
        return false;
    walk->left--;
    uint16_t length = read_u16(walk->next + PART_CONTENT_LENGTH);
    *part = {walk->next[0], {walk->next + PART_HEADER_SIZE, length}};
    walk->next += PART_HEADER_SIZE + length;
    return true;
}
