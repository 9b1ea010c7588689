#include "protocol.h"

extern "C" {
#include <libubus.h>
}

static const blob_attr_info *attribute_info()
{
    // In the order of the ids; the first has none.
    static const blob_attr_info info[] = {
        {BLOB_ATTR_UNSPEC, 0, 0, nullptr}, // none
        {BLOB_ATTR_INT32, 0, 0, nullptr},  // STATUS
        {BLOB_ATTR_STRING, 0, 0, nullptr}, // OBJPATH
        {BLOB_ATTR_INT32, 0, 0, nullptr},  // OBJID
        {BLOB_ATTR_STRING, 0, 0, nullptr}, // METHOD
        {BLOB_ATTR_INT32, 0, 0, nullptr},  // OBJTYPE
        {BLOB_ATTR_NESTED, 0, 0, nullptr}, // SIGNATURE
        {BLOB_ATTR_NESTED, 0, 0, nullptr}, // DATA
        {BLOB_ATTR_INT32, 0, 0, nullptr},  // TARGET
        {BLOB_ATTR_INT8, 0, 0, nullptr},   // ACTIVE
        {BLOB_ATTR_INT8, 0, 0, nullptr},   // NO_REPLY
        {BLOB_ATTR_NESTED, 0, 0, nullptr}, // SUBSCRIBERS
        {BLOB_ATTR_STRING, 0, 0, nullptr}, // USER
        {BLOB_ATTR_STRING, 0, 0, nullptr}, // GROUP
    };
    static_assert(ARRAY_SIZE(info) == UBUS_ATTR_MAX);
    return info;
}

message_header read_message_header(const uint8_t *bytes)
{
    return {bytes[0], bytes[1], static_cast<uint16_t>(bytes[2] << 8 | bytes[3]), blob_read_be32(bytes + 4)};
}

void write_message_header(uint8_t *bytes, const message_header &header)
{
    bytes[0] = header.version;
    bytes[1] = header.type;
    bytes[2] = static_cast<uint8_t>(header.seq >> 8);
    bytes[3] = static_cast<uint8_t>(header.seq);
    for (int i = 0; i < 4; i++)
        bytes[4 + i] = static_cast<uint8_t>(header.peer >> (24 - 8 * i));
}

void parse_message(blob_attr *blob, size_t size, blob_attr *tb[UBUS_ATTR_MAX])
{
    blob_parse_untrusted(blob, size, tb, attribute_info(), UBUS_ATTR_MAX);
}

extern "C" const char *ubus_strerror(int error)
{
    static const char *const texts[] = {
        "Success",
        "Invalid command",
        "Invalid argument",
        "Method not found",
        "Not found",
        "No response",
        "Permission denied",
        "Request timed out",
        "Operation not supported",
        "Unknown error",
        "Connection failed",
        "Out of memory",
        "Parsing message data failed",
        "System error",
    };
    static_assert(ARRAY_SIZE(texts) == __UBUS_STATUS_LAST);
    bool known = error >= 0 && error < __UBUS_STATUS_LAST;
    return texts[known ? error : UBUS_STATUS_UNKNOWN_ERROR];
}
