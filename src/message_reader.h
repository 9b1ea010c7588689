// Reads a file piece by piece, so that a file of any size takes no more memory than its largest piece.
#pragma once

#include <cstddef>
#include <cstdint>

struct MessageReader {
    int fd;
    uint8_t *buffer; // heap, grows with the largest piece asked for
    size_t capacity;
    size_t begin; // first byte not yet consumed
    size_t end;
    bool at_end; // the file has no more than what is in the buffer
    bool failed; // a read failed, or there was no memory
};

void reader_start(MessageReader *reader, int fd);
void reader_free(MessageReader *reader); // leaves the descriptor open

// Makes at least `size` bytes available at reader_bytes; false when the file ends before, a read fails or there is no
// memory. Invalidates what reader_bytes returned.
bool reader_need(MessageReader *reader, size_t size);
inline const uint8_t *reader_bytes(const MessageReader *reader)
{
    return reader->buffer + reader->begin;
}
inline size_t reader_available(const MessageReader *reader)
{
    return reader->end - reader->begin;
}
// Consumes bytes that are available.
inline void reader_skip(MessageReader *reader, size_t size)
{
    reader->begin += size;
}
