/* Members as JSON text and back. */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include "blobmsg.h"

/*
 * Appends the members of a JSON object (RFC 8259) to the buffer: integers that fit become int32, larger ones int64,
 * numbers with a fraction, an exponent or beyond 64 bits double, booleans int8, null a member of type 0 without a
 * value. False for text that is not one JSON object, nests deeper than 256, holds \u0000, or does not fit; the buffer
 * may then hold a part of the members.
 */
bool blobmsg_add_json_from_string(struct blob_buf *buf, const char *str);

/*
 * JSON text of a message (list true: the members in attr, as an object) or of one member (list false: `"name": value`).
 * indent below 0 gives one line without blanks; otherwise each level begins with one tab more, indent being the
 * first's. int8 is true or false, a double has six decimals (null when it is not finite), type 0 is null. The result is
 * always valid: control characters are escaped and bytes that are not UTF-8 become U+FFFD. The caller frees it. Null
 * without memory or beyond 256 levels.
 */
char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent);
static inline char *blobmsg_format_json(struct blob_attr *attr, bool list)
{
    return blobmsg_format_json_indent(attr, list, -1);
}

#endif
