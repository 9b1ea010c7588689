// Reading and filling the message store in tests.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "message_decode.h"
#include "message_merge.h"
#include "message_store.h"

// A message as the PDU library would give it; a part of a long one when total is not 0.
struct Incoming {
    std::string text = "text";
    std::string sender = "491701234567";
    int index = 0;
    int total = 0;
    int ref = 42;
    std::string date = "24-03-15";
    std::string time = "09:26:53";
    std::string toa = "international";
    int alphabet = -1;
    std::string smsc = "4917227555550";
};

inline DecodedMessage *decoded(const Incoming &in)
{
    DecodedMessage *message = static_cast<DecodedMessage *>(calloc(1, sizeof(DecodedMessage) + in.text.size()));
    message->alphabet = in.alphabet;
    strncpy(message->sender, in.sender.c_str(), sizeof message->sender - 1);
    strncpy(message->date, in.date.c_str(), sizeof message->date - 1);
    strncpy(message->time, in.time.c_str(), sizeof message->time - 1);
    strncpy(message->smsc, in.smsc.c_str(), sizeof message->smsc - 1);
    strncpy(message->type_of_address, in.toa.c_str(), sizeof message->type_of_address - 1);
    message->is_part = in.total != 0;
    message->csms_ref = static_cast<uint16_t>(in.total ? in.ref : 0);
    message->total = static_cast<uint8_t>(in.total);
    message->index = static_cast<uint8_t>(in.index);
    message->length = static_cast<uint32_t>(in.text.size());
    memcpy(message + 1, in.text.data(), in.text.size());
    return message;
}

inline AddResult add(const Incoming &in)
{
    DecodedMessage *message = decoded(in);
    AddResult result = add_message(message);
    free(message);
    return result;
}

// One line per message: sender, read, parts as index=content, "+" when all parts are present.
inline std::vector<std::string> stored()
{
    MessageArrayLock lock;
    std::vector<std::string> lines;
    for (uint32_t i = 0; i < message_array.count; i++) {
        const StoredMessage *message = message_array.items[i];
        MessageFields fields = message_fields(message);
        std::string line = std::string(fields.sender) + (fields.read ? " read" : "");
        PartWalk walk = parts_of(message);
        MessagePart part;
        while (next_part(&walk, &part)) {
            line += " ";
            if (fields.is_long)
                line += std::to_string(part.index) + "=";
            line.append(reinterpret_cast<const char *>(part.content.data()), part.content.size());
        }
        lines.push_back(line + (message->all_parts_present ? " +" : ""));
    }
    return lines;
}

// As after the start of the process.
inline void forget_store()
{
    MessageArrayLock lock;
    array_free(&message_array);
}
