#include "message_parts.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

constexpr char MESSAGE_FILE[] = "/data/in_messages";
constexpr uint8_t MAGIC[] = {0xAB, 0xCD, 0xEF, 0x00};
constexpr size_t STAMP_SIZE = 8;

// Offsets within a record.
constexpr size_t DATE = 1;
constexpr size_t TIME = 10;
constexpr size_t IS_LONG = 20;
constexpr size_t TOTAL = 25;
constexpr size_t PART_COUNT = 26;
constexpr size_t SMSC_LENGTH = 28;
constexpr size_t SENDER_LENGTH = 30;
constexpr size_t HEADER_SIZE = 32;
constexpr size_t PART_LENGTH = 2;
constexpr size_t PART_HEADER_SIZE = 4;

static size_t read_u16(const uint8_t *bytes)
{
    return static_cast<size_t>(bytes[0] | bytes[1] << 8);
}

template<size_t size> static bool take(FILE *file, uint8_t (&bytes)[size])
{
    return fread(bytes, size, 1, file) == 1;
}

// Takes so many bytes; *same becomes false unless they are the text and a zero. Null for any text.
static bool take_text(FILE *file, size_t length, const char *text, bool *same)
{
    for (; length > 0; length--) {
        int byte = getc(file);
        if (byte == EOF)
            return false;
        if (!text || !*same)
            continue;
        *same = byte == static_cast<unsigned char>(*text) && (*text != '\0') == (length > 1);
        text++;
    }
    return true;
}

static bool same_stamp(const uint8_t *stamp, const char *text)
{
    return strncmp(reinterpret_cast<const char *>(stamp), text, STAMP_SIZE) == 0;
}

PartsFile::PartsFile()
{
    struct stat status;
    if (stat(MESSAGE_FILE, &status) == 0 && S_ISREG(status.st_mode)) // a pipe of that name must not hold anybody up
        file_ = fopen(MESSAGE_FILE, "re");
    uint8_t magic[sizeof(MAGIC)];
    if (file_ && (!take(file_, magic) || memcmp(magic, MAGIC, sizeof(MAGIC)) != 0)) {
        (void)fclose(file_); // it was only read
        file_ = nullptr;
    }
}

PartsFile::~PartsFile()
{
    if (file_)
        (void)fclose(file_); // it was only read
}

bool PartsFile::read_record(const MessageKey &message, MessageParts *parts)
{
    uint8_t header[HEADER_SIZE];
    bool same = true;
    if (!take(file_, header) || !take_text(file_, read_u16(header + SMSC_LENGTH), nullptr, &same) ||
        !take_text(file_, read_u16(header + SENDER_LENGTH), message.sender, &same))
        return false;
    bool is_long = header[IS_LONG] != 0;
    parts->total = is_long ? header[TOTAL] : 1;
    parts->missing = parts->total;
    std::fill(parts->lengths, parts->lengths + MessageParts::MOST + 1, MessageParts::MISSING);
    size_t bytes = 0;
    for (unsigned left = is_long ? header[PART_COUNT] : 1; left > 0; left--) {
        uint8_t part[PART_HEADER_SIZE];
        if (!take(file_, part))
            return false;
        size_t length = read_u16(part + PART_LENGTH);
        if (!take_text(file_, length, nullptr, &same))
            return false;
        int32_t &known = parts->lengths[part[0]];
        if (part[0] < 1 || part[0] > parts->total || known != MessageParts::MISSING)
            continue;
        known = static_cast<int32_t>(length);
        bytes += length;
        parts->missing--;
    }
    parts->known = same && same_stamp(header + DATE, message.date) && same_stamp(header + TIME, message.time) &&
                   bytes == message.bytes;
    return true;
}

void PartsFile::next(const MessageKey &message, MessageParts *parts)
{
    parts->known = false;
    if (file_ && !read_record(message, parts)) {
        (void)fclose(file_); // it was only read
        file_ = nullptr;
    }
}

void PartsFile::skip(int32_t records)
{
    MessageParts parts;
    for (; records > 0 && file_; records--)
        next({"", "", "", 0}, &parts);
}
