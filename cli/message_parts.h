// Which parts of a long message are there. The bus does not tell, but the daemon's message file does
// (docs/message-file.md) to those who may read it: root.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct MessageParts {
    static constexpr unsigned MOST = 255;
    static constexpr int32_t MISSING = -1;

    bool known = false;             // false when the file cannot be read or does not hold this message
    unsigned total = 1;             // of the message in full; 1 for a message that is not long
    unsigned missing = 0;           // how many of them are not there
    int32_t lengths[MOST + 1] = {}; // bytes of each part by its number, from 1 on, or MISSING
};

// The message to look for.
struct MessageKey {
    const char *sender;
    const char *date;
    const char *time;
    size_t bytes; // of its parts together
};

// The file's records in order, which is that of the daemon's indexes.
class PartsFile {
public:
    PartsFile();
    ~PartsFile();
    PartsFile(const PartsFile &) = delete;
    PartsFile &operator=(const PartsFile &) = delete;

    // Takes the next record; parts->known tells whether it is this message's.
    void next(const MessageKey &message, MessageParts *parts);
    // Passes so many records.
    void skip(int32_t records);

private:
    bool read_record(const MessageKey &message, MessageParts *parts);

    FILE *file_ = nullptr;
};
