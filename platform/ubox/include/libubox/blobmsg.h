/*
 * Named, typed members: a blob attribute with the extended bit, whose id is the type and whose payload begins with the
 * name's length (16 bits big-endian), the name and a zero, padded to 4 bytes; then the value. An array's elements have
 * empty names.
 */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include "blob.h"

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC = 0,
    BLOBMSG_TYPE_ARRAY = 1,
    BLOBMSG_TYPE_TABLE = 2,
    BLOBMSG_TYPE_STRING = 3,
    BLOBMSG_TYPE_INT64 = 4,
    BLOBMSG_TYPE_INT32 = 5,
    BLOBMSG_TYPE_INT16 = 6,
    BLOBMSG_TYPE_INT8 = 7,
    BLOBMSG_TYPE_DOUBLE = 8,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8
};

struct blobmsg_hdr {
    uint16_t namelen;
    uint8_t name[];
} __packed;

struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

/* Bytes of the name header, padding included, for a name of this length. */
static inline size_t blobmsg_hdrlen(unsigned int namelen)
{
    return (sizeof(struct blobmsg_hdr) + namelen + 1 + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline enum blobmsg_type blobmsg_type(const struct blob_attr *attr)
{
    return (enum blobmsg_type)blob_id(attr);
}

/*
 * Parts of a member. They stay inside the attribute whatever its bytes are: a malformed name reads as empty, a value
 * that is not there has length 0.
 */
const char *blobmsg_name(const struct blob_attr *attr);
void *blobmsg_data(const struct blob_attr *attr);
size_t blobmsg_data_len(const struct blob_attr *attr);

/* Values; 0 when the value is too short. A string without its terminating zero reads as empty; null attr gives null. */
uint8_t blobmsg_get_u8(struct blob_attr *attr);
uint16_t blobmsg_get_u16(struct blob_attr *attr);
uint32_t blobmsg_get_u32(struct blob_attr *attr);
uint64_t blobmsg_get_u64(struct blob_attr *attr);
double blobmsg_get_double(struct blob_attr *attr);
bool blobmsg_get_bool(struct blob_attr *attr);
char *blobmsg_get_string(struct blob_attr *attr);

/* Appends a member. 0, or -1 (nothing added) without memory or when name or value pass what their lengths can hold. */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);
int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val);
int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val);
int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val);
int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val);
int blobmsg_add_double(struct blob_buf *buf, const char *name, double val);
int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string);

/* Opens an array or a table; the cookie closes it. Null without memory. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);
static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, true);
}
static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, false);
}
static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}
static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}

/*
 * Whether the attribute is a well-formed member: header, name, a known type, a value of that type's size. With `name`
 * it must also have a non-empty name. len: bytes that are there at attr. The members of arrays and tables are not
 * looked at.
 */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

/*
 * Sets tb[i] to the first well-formed member with the name and type of policy[i] (a policy of type 0 takes any), or to
 * null. data, len: the list of members, such as blob_data and blob_len of a message. A malformed list ends the parse.
 * blobmsg_parse_array gives tb[i] the i-th element if its type agrees, else null. Both return 0, or -1 for a bad
 * element.
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                        unsigned int len);

/* Walks the members of a table, an array or a message; rem is a size_t (or int) of the caller's. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                                          \
    for (rem = attr ? blobmsg_data_len(attr) : 0, pos = (struct blob_attr *)(attr ? blobmsg_data(attr) : NULL);        \
         blob_fits(pos, (size_t)(rem)); rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
