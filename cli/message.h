// Received messages: from the bus, as text, in both forms of output.
#pragma once

#include <cstdint>

#include "bus.h"
#include "message_parts.h"

// One message of an answer, whose memory it points into. Texts are never null and may hold anything.
struct Message {
    int32_t index;
    const char *alphabet;
    const char *sender;
    const char *date;
    const char *time;
    bool read;
    bool international;
    blob_attr *content; // an array of numbers, or null
    size_t bytes;       // how many
    MessageParts parts;
};

// Readable texts of a message, freed with their object; null without memory.
struct MessageText {
    char *from = nullptr;   // with a plus when it is an international number
    char *date = nullptr;   // "2024-03-01", or what stands there when that is no date
    char *text = nullptr;   // UTF-8, a zero as the control character SUB; null for data that is no text
    char *marked = nullptr; // the same with a note where parts are missing; for other data what it is
    char *data = nullptr;   // data that is no text, in hexadecimal, otherwise null

    explicit MessageText(const Message &message);
    ~MessageText();
    MessageText(const MessageText &) = delete;
    MessageText &operator=(const MessageText &) = delete;
};

// What identifies a message while its index changes: equal for the same one, a part that joins it makes it another one.
uint64_t message_fingerprint(const Message &message);

// Tells of one message; false ends the listing.
using MessageVisitor = bool (*)(const Message &message, void *priv);

// Fetches the stored messages; if not done, `reply` says why.
bool fetch_messages(Reply &reply);
// Goes through them, with further calls when they did not all fit into the reply.
void visit_messages(const Reply &reply, MessageVisitor visitor, void *priv);

// One message. `reply` holds it afterwards; if not done, it says why.
bool fetch_message(int32_t index, Reply &reply, Message *message);

// The members of a message, into the open object.
void json_message(const Message &message, const MessageText &text);
