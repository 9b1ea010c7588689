// One received message, held in memory as the very bytes of its record in the message file (docs/message-file.md): a
// save writes them as they stand, and a message costs little more than its text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Offsets within a record; integers are little-endian.
constexpr size_t RECORD_ALPHABET = 0;
constexpr size_t RECORD_DATE = 1;
constexpr size_t RECORD_TIME = 10;
constexpr size_t RECORD_READ = 19;
constexpr size_t RECORD_LONG = 20;
constexpr size_t RECORD_CSMS_REF = 22;
constexpr size_t RECORD_INTERNATIONAL = 24;
constexpr size_t RECORD_TOTAL = 25;
constexpr size_t RECORD_PART_COUNT = 26;
constexpr size_t RECORD_SMSC_LENGTH = 28;
constexpr size_t RECORD_SENDER_LENGTH = 30;
constexpr size_t RECORD_HEADER_SIZE = 32;
constexpr size_t PART_CONTENT_LENGTH = 2;
constexpr size_t PART_HEADER_SIZE = 4;

constexpr size_t STAMP_SIZE = 9; // date and time with their terminating zero
constexpr size_t LONGEST_TEXT = 65534;
constexpr size_t LONGEST_CONTENT = 65535;
constexpr unsigned MOST_PARTS = 255;

inline uint16_t read_u16(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

inline void write_u16(uint8_t *bytes, size_t value)
{
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
}

struct MessageFields {
    int8_t alphabet = 0; // -1 GSM, 0 ISO, 1 binary, 2 UCS2, 3 UTF8
    bool read = false;
    bool is_long = false; // kept in parts, concatenated by csms_ref and total (3GPP TS 23.040 9.2.3.24.1, .8)
    bool international = false;
    uint16_t csms_ref = 0;
    uint8_t total = 0;
    std::string_view date = {}; // at most 8 characters are kept of each
    std::string_view time = {};
    std::string_view smsc = {};
    std::string_view sender = {};
};

struct MessagePart {
    uint8_t index;
    std::span<const uint8_t> content;
};

// Heap memory (malloc) with the record behind it.
struct StoredMessage {
    uint32_t size;             // of the record in bytes
    uint8_t all_parts_present; // of a long message
};

inline uint8_t *record_of(StoredMessage *message)
{
    return reinterpret_cast<uint8_t *>(message + 1);
}

inline const uint8_t *record_of(const StoredMessage *message)
{
    return reinterpret_cast<const uint8_t *>(message + 1);
}

// A new message, freed by the caller; null without memory or when a text, a content or the number of parts is larger
// than a record can hold. A single-part message has exactly one part, whose index becomes 1.
StoredMessage *message_new(const MessageFields &fields, std::span<const MessagePart> parts);

// Null without memory.
StoredMessage *message_copy(const StoredMessage *message);

// A copy of a long message with one more part in front of the part at the 0-based position `part.index`, or as the last
// one when there is none. Null without memory or room for a part; the message itself stays as it is.
StoredMessage *message_with_part(const StoredMessage *message, const MessagePart &part);

// The views point into the message; each is followed by a zero.
MessageFields message_fields(const StoredMessage *message);

// Walks the parts in record order.
struct PartWalk {
    const uint8_t *next;
    unsigned left;
};
PartWalk parts_of(const StoredMessage *message);
bool next_part(PartWalk *walk, MessagePart *part);
