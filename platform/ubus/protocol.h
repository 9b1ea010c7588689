// What client and broker share of the bus protocol.
#pragma once

extern "C" {
#include <ubusmsg.h>
}

constexpr size_t message_header_size = sizeof(ubus_msghdr);

// Bytes of a message that tell its length: the header and the blob's first word.
constexpr size_t message_prefix_size = message_header_size + sizeof(blob_attr);

struct message_header {
    uint8_t version;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

message_header read_message_header(const uint8_t *bytes);
void write_message_header(uint8_t *bytes, const message_header &header);

// Sets tb[UBUS_ATTR_...] to what the message holds, wrongly typed attributes left out. size: bytes at blob.
void parse_message(blob_attr *blob, size_t size, blob_attr *tb[UBUS_ATTR_MAX]);
