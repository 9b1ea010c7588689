#include "message_reader.h"

#include <cstdlib>
#include <cstring>

#include "file_ops.h"

constexpr size_t READ_SIZE = 16384;

void reader_start(MessageReader *reader, int fd)
{
    *reader = {};
    reader->fd = fd;
}

void reader_free(MessageReader *reader)
{
    free(reader->buffer);
    reader->buffer = nullptr;
}

// Moves what is left to the front and makes room for a piece of `size` bytes and some reading ahead.
static bool make_room(MessageReader *reader, size_t size)
{
    if (reader->begin > 0 && reader->end > reader->begin)
        memmove(reader->buffer, reader->buffer + reader->begin, reader->end - reader->begin);
    reader->end -= reader->begin;
    reader->begin = 0;
    if (reader->capacity >= size && reader->capacity > reader->end)
        return true;
    size_t capacity = (size / READ_SIZE + 1) * READ_SIZE;
    if (capacity < reader->capacity * 2 && size > READ_SIZE)
        capacity = reader->capacity * 2;
    uint8_t *larger = static_cast<uint8_t *>(realloc(reader->buffer, capacity));
    if (!larger)
        return false;
    reader->buffer = larger;
    reader->capacity = capacity;
    return true;
}

bool reader_need(MessageReader *reader, size_t size)
{
    while (reader_available(reader) < size && !reader->at_end && !reader->failed) {
        if (!make_room(reader, size)) {
            reader->failed = true;
            break;
        }
        ssize_t got = file_read(reader->fd, reader->buffer + reader->end, reader->capacity - reader->end);
        reader->failed = got < 0;
        reader->at_end = got == 0;
        if (got > 0)
            reader->end += static_cast<size_t>(got);
    }
    return reader_available(reader) >= size;
}
