extern "C" {
#include <libubox/blob.h>
}

#include <cstdlib>

namespace {

constexpr size_t header_size = sizeof(blob_attr);
constexpr size_t first_size = 256;

void write_be(void *to, uint64_t value, size_t size)
{
    auto *bytes = static_cast<uint8_t *>(to);
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
}

uint64_t read_be(const blob_attr *attr, size_t size)
{
    return blob_len(attr) < size ? 0 : blob_read_be(blob_data(attr), size);
}

void set_header(blob_attr *attr, unsigned int id, size_t raw_len)
{
    write_be(attr, (static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK) | raw_len, header_size);
}

void set_raw_len(blob_attr *attr, size_t raw_len)
{
    uint32_t word = blob_read_be32(attr) & ~BLOB_ATTR_LEN_MASK;
    write_be(attr, word | raw_len, header_size);
}

bool grow_memory(blob_buf *buf, int minlen)
{
    size_t size = static_cast<size_t>(buf->buflen) + static_cast<size_t>(minlen);
    if (size < first_size)
        size = first_size;
    // Doubling keeps a reply of many members linear; beyond 64 KiB half as much again is enough.
    size_t wanted = static_cast<size_t>(buf->buflen) + static_cast<size_t>(buf->buflen) / (size < 65536 ? 1 : 2);
    if (size < wanted)
        size = wanted;
    void *grown = realloc(buf->buf, size);
    if (!grown)
        return false;
    buf->buf = grown;
    buf->buflen = static_cast<int>(size);
    return true;
}

blob_attr *at(blob_buf *buf, size_t offset)
{
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

size_t offset_of(const blob_buf *buf, const void *pos)
{
    return static_cast<size_t>(static_cast<const char *>(pos) - static_cast<const char *>(buf->buf));
}

// Writes a header with a zeroed payload at the offset; null and nothing changed when there is no room to be had.
blob_attr *place(blob_buf *buf, size_t offset, unsigned int id, size_t payload)
{
    size_t raw = header_size + payload;
    size_t padded = (raw + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
    if (payload > BLOB_ATTR_LEN_MASK || offset + padded > BLOB_ATTR_LEN_MASK)
        return nullptr;
    size_t head = buf->head ? offset_of(buf, buf->head) : 0;
    size_t size = static_cast<size_t>(buf->buflen);
    if (offset + padded > size) {
        if (!buf->grow(buf, static_cast<int>(offset + padded - size)))
            return nullptr;
        buf->head = at(buf, head);
    }
    memset(at(buf, offset), 0, padded);
    set_header(at(buf, offset), id, raw);
    return at(buf, offset);
}

} // namespace

extern "C" {

uint8_t blob_get_u8(const blob_attr *attr)
{
    return static_cast<uint8_t>(read_be(attr, 1));
}

uint32_t blob_get_u32(const blob_attr *attr)
{
    return static_cast<uint32_t>(read_be(attr, 4));
}

const char *blob_get_string(const blob_attr *attr)
{
    return blob_check_type(blob_data(attr), static_cast<unsigned int>(blob_len(attr)), BLOB_ATTR_STRING)
               ? static_cast<const char *>(blob_data(attr))
               : "";
}

int blob_buf_init(blob_buf *buf, int id)
{
    if (!buf->grow)
        buf->grow = grow_memory;
    buf->head = static_cast<blob_attr *>(buf->buf);
    return place(buf, 0, static_cast<unsigned int>(id), 0) ? 0 : -1;
}

void blob_buf_free(blob_buf *buf)
{
    free(buf->buf);
    buf->buf = nullptr;
    buf->head = nullptr;
    buf->buflen = 0;
}

bool blob_buf_grow(blob_buf *buf, int required)
{
    if (required < 0 || static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > BLOB_ATTR_LEN_MASK)
        return false;
    size_t head = buf->head ? offset_of(buf, buf->head) : 0;
    bool had_head = buf->head;
    if (!buf->grow(buf, required))
        return false;
    if (had_head)
        buf->head = at(buf, head);
    return true;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload)
{
    if (!buf->head || payload < 0)
        return nullptr;
    size_t length = blob_pad_len(buf->head);
    blob_attr *attr =
        place(buf, offset_of(buf, buf->head) + length, static_cast<unsigned int>(id), static_cast<size_t>(payload));
    if (attr)
        set_raw_len(buf->head, length + blob_pad_len(attr));
    return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len)
{
    if (len > BLOB_ATTR_LEN_MASK)
        return nullptr;
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr && ptr && len)
        memcpy(blob_data(attr), ptr, len);
    return attr;
}

blob_attr *blob_put_u32(blob_buf *buf, int id, uint32_t val)
{
    uint8_t bytes[4];
    write_be(bytes, val, sizeof bytes);
    return blob_put(buf, id, bytes, sizeof bytes);
}

blob_attr *blob_put_string(blob_buf *buf, int id, const char *str)
{
    size_t size = strlen(str) + 1;
    return size > BLOB_ATTR_LEN_MASK ? nullptr : blob_put(buf, id, str, static_cast<unsigned int>(size));
}

void *blob_nest_start(blob_buf *buf, int id)
{
    if (!buf->head)
        return nullptr;
    size_t outer = offset_of(buf, buf->head);
    blob_attr *attr = blob_new(buf, id, 0);
    if (!attr)
        return nullptr;
    buf->head = attr;
    // An offset outlives the memory's moves; one more than it keeps the outermost apart from null.
    return reinterpret_cast<void *>(static_cast<uintptr_t>(outer + 1));
}

void blob_nest_end(blob_buf *buf, void *cookie)
{
    if (!cookie || !buf->head)
        return;
    blob_attr *outer = at(buf, static_cast<size_t>(reinterpret_cast<uintptr_t>(cookie)) - 1);
    size_t start = offset_of(buf, buf->head) - offset_of(buf, outer);
    set_raw_len(outer, start + blob_pad_len(buf->head));
    buf->head = outer;
}

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
    switch (type) {
    case BLOB_ATTR_STRING:
        return len > 0 && static_cast<const char *>(ptr)[len - 1] == 0;
    case BLOB_ATTR_INT8:
        return len == 1;
    case BLOB_ATTR_INT16:
        return len == 2;
    case BLOB_ATTR_INT32:
        return len == 4;
    case BLOB_ATTR_INT64:
    case BLOB_ATTR_DOUBLE:
        return len == 8;
    case BLOB_ATTR_NESTED:
        return len % BLOB_ATTR_ALIGN == 0;
    default:
        return type >= 0 && type < BLOB_ATTR_LAST;
    }
}

static bool accepts(const blob_attr_info *info, blob_attr *attr)
{
    unsigned int len = static_cast<unsigned int>(blob_len(attr));
    if (info->type != BLOB_ATTR_UNSPEC && !blob_check_type(blob_data(attr), len, static_cast<int>(info->type)))
        return false;
    if (len < info->minlen || (info->maxlen && len > info->maxlen))
        return false;
    return !info->validate || info->validate(info, attr);
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data, const blob_attr_info *info, int max)
{
    for (int i = 0; i < max; i++)
        data[i] = nullptr;
    if (!attr || attr_len < header_size || blob_raw_len(attr) > attr_len)
        return 0;
    int found = 0;
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, attr, rem)
    {
        unsigned int id = blob_id(pos);
        if (id >= static_cast<unsigned int>(max) || (info && !accepts(&info[id], pos)))
            continue;
        if (!data[id])
            found++;
        data[id] = pos;
    }
    return found;
}
}
