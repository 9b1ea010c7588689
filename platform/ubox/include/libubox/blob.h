/*
 * Typed binary attributes. An attribute is a 32-bit big-endian word (bit 31 extended, bits 30..24 id, bits 23..0 length
 * of header and payload) and its payload, padded with zeros to 4 bytes; the padding does not count. Attributes may lie
 * at any address. No function reads past the length that the attribute itself gives; the caller makes sure that this
 * many bytes are there, or uses the functions that are given a length.
 */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include "utils.h"

#include <string.h>

enum {
    BLOB_ATTR_UNSPEC = 0,
    BLOB_ATTR_NESTED = 1,
    BLOB_ATTR_BINARY = 2,
    BLOB_ATTR_STRING = 3,
    BLOB_ATTR_INT8 = 4,
    BLOB_ATTR_INT16 = 5,
    BLOB_ATTR_INT32 = 6,
    BLOB_ATTR_INT64 = 7,
    BLOB_ATTR_DOUBLE = 8,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000u
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffffu
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000u

struct blob_attr {
    uint32_t id_len;
    char data[];
} __packed;

struct blob_attr_info {
    unsigned int type;
    unsigned int minlen;
    unsigned int maxlen;
    bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

/* Zero it before the first blob_buf_init. The memory moves when it grows: pointers into it last until the next
 * addition. */
struct blob_buf {
    struct blob_attr *head;
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline uint64_t blob_read_be(const void *p, size_t size)
{
    const uint8_t *b = (const uint8_t *)p;
    uint64_t value = 0;
    for (size_t i = 0; i < size; i++)
        value = (value << 8) | b[i];
    return value;
}

static inline uint32_t blob_read_be32(const void *p)
{
    return (uint32_t)blob_read_be(p, sizeof(uint32_t));
}

static inline void *blob_data(const struct blob_attr *attr)
{
    return (void *)(uintptr_t)((const char *)attr + sizeof(struct blob_attr));
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
    return (blob_read_be32(attr) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
    return (blob_read_be32(attr) & BLOB_ATTR_EXTENDED) != 0;
}

/* Length of header and payload in bytes, without padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
    return blob_read_be32(attr) & BLOB_ATTR_LEN_MASK;
}

/* Length of the payload in bytes; 0 for an attribute that claims to be shorter than its header. */
static inline size_t blob_len(const struct blob_attr *attr)
{
    size_t len = blob_raw_len(attr);
    return len < sizeof(struct blob_attr) ? 0 : len - sizeof(struct blob_attr);
}

/* Length of header, payload and padding in bytes. */
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
    return (struct blob_attr *)(void *)(uintptr_t)((const char *)attr + blob_pad_len(attr));
}

/* Whether a whole attribute, padding included, lies in the rem bytes at pos. */
static inline bool blob_fits(const struct blob_attr *pos, size_t rem)
{
    return rem >= sizeof(struct blob_attr) && blob_raw_len(pos) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= rem;
}

/* Values of attributes; 0 when the payload is too short. A string without its terminating zero reads as empty. */
uint8_t blob_get_u8(const struct blob_attr *attr);
uint32_t blob_get_u32(const struct blob_attr *attr);
const char *blob_get_string(const struct blob_attr *attr);

/* Starts (or empties) a buffer with one open attribute of this id. 0, or -1 without memory. */
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
/* Makes room for `required` more bytes behind what is there. False without memory or beyond what a length can hold. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/*
 * Appends an attribute to the one that is open; ptr null leaves its payload zeroed.
 * Returns the attribute, or null (buffer unchanged) without memory or when a length would pass 24 bits.
 */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val);
struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str);

#define blob_put_int32 blob_put_u32

/* Opens an attribute that takes what is put next. The cookie closes it; null when there is no memory. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/* Whether the attribute's payload has the form of this BLOB_ATTR_ type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);

/*
 * Sets data[id] to the attribute with that id in attr's payload, for ids below max whose type and length agree with
 * info[id]; the others stay null. The last one of several wins. A malformed list ends it. Returns how many were found.
 * attr_len: bytes that are there at attr.
 */
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

/* Walks the attributes in `attr`'s payload; rem is a size_t or int of the caller's. */
#define blob_for_each_attr(pos, attr, rem)                                                                             \
    for (rem = attr ? blob_len(attr) : 0, pos = (struct blob_attr *)(attr ? blob_data(attr) : NULL);                   \
         blob_fits(pos, (size_t)(rem)); rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
