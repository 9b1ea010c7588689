// Messages as the broker takes and makes them. No sockets here.
#pragma once

#include "protocol.h"

#include <cstdint>
#include <span>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
}

struct bus_message {
    message_header header = {};
    std::vector<uint8_t> blob; // one whole attribute

    blob_attr *attr()
    {
        return reinterpret_cast<blob_attr *>(blob.data());
    }
};

// Cuts one client's stream into messages. Holds no more than has arrived of one message.
class message_reader {
public:
    enum class outcome {
        incomplete, // all input taken
        complete,
        malformed, // what follows cannot be understood either
    };

    // Takes from the front of input what belongs to the next message.
    outcome take(std::span<const uint8_t> &input, bus_message &message);

private:
    std::vector<uint8_t> bytes;
};

// Builds a message's blob. Additions that fail leave `ok` false.
class blob_builder {
public:
    blob_builder();
    ~blob_builder();
    blob_builder(const blob_builder &) = delete;
    blob_builder &operator=(const blob_builder &) = delete;

    blob_builder &put_u32(ubus_msg_attr id, uint32_t value);
    blob_builder &put_string(ubus_msg_attr id, const char *text);
    blob_builder &put(ubus_msg_attr id, const void *data, size_t size);

    // The blob's bytes, empty after a failure or when the message would be too large to send.
    std::span<const uint8_t> bytes() const;

    blob_buf buf = {};
    bool ok = true;
};

std::vector<uint8_t> make_message(const message_header &header, std::span<const uint8_t> blob);
