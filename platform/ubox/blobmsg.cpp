extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstdint>

namespace {

constexpr size_t name_max = 0xffff;

size_t name_length(const blob_attr *attr)
{
    auto *bytes = static_cast<const uint8_t *>(blob_data(attr));
    return static_cast<size_t>(bytes[0]) << 8 | bytes[1];
}

// The name header's size, or 0 when the attribute has none that is well formed.
size_t header_length(const blob_attr *attr)
{
    if (!blob_is_extended(attr) || blob_len(attr) < sizeof(blobmsg_hdr) + 1)
        return 0;
    size_t length = name_length(attr);
    size_t size = blobmsg_hdrlen(static_cast<unsigned int>(length));
    if (size > blob_len(attr))
        return 0;
    return static_cast<const char *>(blob_data(attr))[sizeof(blobmsg_hdr) + length] == 0 ? size : 0;
}

int blob_type_of(int type)
{
    switch (type) {
    case BLOBMSG_TYPE_STRING:
        return BLOB_ATTR_STRING;
    case BLOBMSG_TYPE_INT64:
        return BLOB_ATTR_INT64;
    case BLOBMSG_TYPE_INT32:
        return BLOB_ATTR_INT32;
    case BLOBMSG_TYPE_INT16:
        return BLOB_ATTR_INT16;
    case BLOBMSG_TYPE_INT8:
        return BLOB_ATTR_INT8;
    case BLOBMSG_TYPE_DOUBLE:
        return BLOB_ATTR_DOUBLE;
    default:
        return BLOB_ATTR_UNSPEC;
    }
}

uint64_t value(const blob_attr *attr, size_t size)
{
    return blobmsg_data_len(attr) < size ? 0 : blob_read_be(blobmsg_data(attr), size);
}

// Appends the attribute with its name; null and nothing added when it does not fit.
blob_attr *add_named(blob_buf *buf, int type, const char *name, size_t size)
{
    if (!name)
        name = "";
    size_t length = strlen(name);
    if (length > name_max || size > BLOB_ATTR_LEN_MASK)
        return nullptr;
    size_t head = blobmsg_hdrlen(static_cast<unsigned int>(length));
    blob_attr *attr = blob_new(buf, type, static_cast<int>(head + size));
    if (!attr)
        return nullptr;
    *reinterpret_cast<uint8_t *>(attr) |= 0x80;
    auto *bytes = static_cast<uint8_t *>(blob_data(attr));
    bytes[0] = static_cast<uint8_t>(length >> 8);
    bytes[1] = static_cast<uint8_t>(length);
    memcpy(bytes + sizeof(blobmsg_hdr), name, length);
    return attr;
}

int add_number(blob_buf *buf, int type, const char *name, uint64_t number, size_t size)
{
    uint8_t bytes[8];
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<uint8_t>(number >> (8 * (size - 1 - i)));
    return blobmsg_add_field(buf, type, name, bytes, static_cast<unsigned int>(size));
}

bool type_agrees(const blobmsg_policy &policy, const blob_attr *attr)
{
    return policy.type == BLOBMSG_TYPE_UNSPEC || policy.type == blobmsg_type(attr);
}

} // namespace

extern "C" {

const char *blobmsg_name(const blob_attr *attr)
{
    return header_length(attr) ? static_cast<const char *>(blob_data(attr)) + sizeof(blobmsg_hdr) : "";
}

void *blobmsg_data(const blob_attr *attr)
{
    return static_cast<char *>(blob_data(attr)) + header_length(attr);
}

size_t blobmsg_data_len(const blob_attr *attr)
{
    size_t header = header_length(attr);
    return blob_is_extended(attr) && !header ? 0 : blob_len(attr) - header;
}

uint8_t blobmsg_get_u8(blob_attr *attr)
{
    return static_cast<uint8_t>(value(attr, 1));
}

uint16_t blobmsg_get_u16(blob_attr *attr)
{
    return static_cast<uint16_t>(value(attr, 2));
}

uint32_t blobmsg_get_u32(blob_attr *attr)
{
    return static_cast<uint32_t>(value(attr, 4));
}

uint64_t blobmsg_get_u64(blob_attr *attr)
{
    return value(attr, 8);
}

double blobmsg_get_double(blob_attr *attr)
{
    uint64_t bits = value(attr, 8);
    double result;
    static_assert(sizeof result == sizeof bits);
    memcpy(&result, &bits, sizeof result);
    return result;
}

bool blobmsg_get_bool(blob_attr *attr)
{
    return blobmsg_get_u8(attr) != 0;
}

char *blobmsg_get_string(blob_attr *attr)
{
    static char empty[1];
    if (!attr)
        return nullptr;
    size_t length = blobmsg_data_len(attr);
    char *text = static_cast<char *>(blobmsg_data(attr));
    return length && text[length - 1] == 0 ? text : empty;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
    blob_attr *attr = add_named(buf, type, name, len);
    if (!attr)
        return -1;
    if (data && len)
        memcpy(blobmsg_data(attr), data, len);
    return 0;
}

int blobmsg_add_u8(blob_buf *buf, const char *name, uint8_t val)
{
    return add_number(buf, BLOBMSG_TYPE_INT8, name, val, 1);
}

int blobmsg_add_u16(blob_buf *buf, const char *name, uint16_t val)
{
    return add_number(buf, BLOBMSG_TYPE_INT16, name, val, 2);
}

int blobmsg_add_u32(blob_buf *buf, const char *name, uint32_t val)
{
    return add_number(buf, BLOBMSG_TYPE_INT32, name, val, 4);
}

int blobmsg_add_u64(blob_buf *buf, const char *name, uint64_t val)
{
    return add_number(buf, BLOBMSG_TYPE_INT64, name, val, 8);
}

int blobmsg_add_double(blob_buf *buf, const char *name, double val)
{
    uint64_t bits;
    memcpy(&bits, &val, sizeof bits);
    return add_number(buf, BLOBMSG_TYPE_DOUBLE, name, bits, 8);
}

int blobmsg_add_string(blob_buf *buf, const char *name, const char *string)
{
    size_t size = strlen(string) + 1;
    if (size > BLOB_ATTR_LEN_MASK)
        return -1;
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, static_cast<unsigned int>(size));
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array)
{
    if (!buf->head)
        return nullptr;
    uintptr_t outer = static_cast<uintptr_t>(reinterpret_cast<char *>(buf->head) - static_cast<char *>(buf->buf));
    blob_attr *attr = add_named(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!attr)
        return nullptr;
    buf->head = attr;
    return reinterpret_cast<void *>(outer + 1); // the form that blob_nest_end takes
}

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len)
{
    if (!blob_fits(attr, len) || !header_length(attr))
        return false;
    if (name && name_length(attr) == 0)
        return false;
    int type = static_cast<int>(blob_id(attr));
    if (type > BLOBMSG_TYPE_LAST)
        return false;
    int form = blob_type_of(type);
    return form == BLOB_ATTR_UNSPEC ||
           blob_check_type(blobmsg_data(attr), static_cast<unsigned int>(blobmsg_data_len(attr)), form);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name)
{
    return blobmsg_check_attr_len(attr, name, blob_pad_len(attr));
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
    for (int i = 0; i < policy_len; i++)
        tb[i] = nullptr;
    if (!data)
        return len ? -1 : 0;
    auto *pos = static_cast<blob_attr *>(data);
    for (size_t rem = len; blob_fits(pos, rem); rem -= blob_pad_len(pos), pos = blob_next(pos)) {
        if (!blobmsg_check_attr_len(pos, false, rem))
            return -1;
        const char *name = blobmsg_name(pos);
        for (int i = 0; i < policy_len; i++) {
            if (!tb[i] && policy[i].name && type_agrees(policy[i], pos) && strcmp(policy[i].name, name) == 0)
                tb[i] = pos;
        }
    }
    return 0;
}

int blobmsg_parse_array(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
    for (int i = 0; i < policy_len; i++)
        tb[i] = nullptr;
    if (!data)
        return len ? -1 : 0;
    auto *pos = static_cast<blob_attr *>(data);
    int i = 0;
    for (size_t rem = len; i < policy_len && blob_fits(pos, rem); rem -= blob_pad_len(pos), pos = blob_next(pos), i++) {
        if (!blobmsg_check_attr_len(pos, false, rem))
            return -1;
        if (type_agrees(policy[i], pos))
            tb[i] = pos;
    }
    return 0;
}
}
