extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int depth_max = 256;

// Text that grows; after a failure it stays empty and `failed`.
struct json_text {
    char *data = nullptr;
    size_t size = 0;
    size_t capacity = 0;
    bool failed = false;

    void add(const char *bytes, size_t count)
    {
        if (failed)
            return;
        if (capacity - size <= count) {
            size_t wanted = 2 * (size + count) + 128;
            char *grown = static_cast<char *>(realloc(data, wanted));
            if (!grown) {
                failed = true;
                return;
            }
            data = grown;
            capacity = wanted;
        }
        memcpy(data + size, bytes, count);
        size += count;
        data[size] = 0;
    }

    void add(const char *text)
    {
        add(text, strlen(text));
    }
};

struct formatter {
    json_text out;
    int indent; // below 0: all on one line
    int depth = 0;
};

// Length of the well-formed UTF-8 sequence at the start of the text (RFC 3629), 0 when there is none.
size_t utf8_length(const unsigned char *text, size_t size)
{
    auto continues = [&](size_t i) { return i < size && (text[i] & 0xc0) == 0x80; };
    unsigned char first = text[0];
    if (first < 0x80)
        return 1;
    if (first >= 0xc2 && first <= 0xdf)
        return continues(1) ? 2 : 0;
    if (first >= 0xe0 && first <= 0xef) {
        if (!continues(1) || !continues(2))
            return 0;
        bool overlong = first == 0xe0 && text[1] < 0xa0;
        bool surrogate = first == 0xed && text[1] >= 0xa0;
        return overlong || surrogate ? 0 : 3;
    }
    if (first >= 0xf0 && first <= 0xf4) {
        if (!continues(1) || !continues(2) || !continues(3))
            return 0;
        bool overlong = first == 0xf0 && text[1] < 0x90;
        bool beyond = first == 0xf4 && text[1] >= 0x90;
        return overlong || beyond ? 0 : 4;
    }
    return 0;
}

const char *short_escape(unsigned char c)
{
    switch (c) {
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '\b':
        return "\\b";
    case '\f':
        return "\\f";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return nullptr;
    }
}

void add_string(json_text &out, const char *string, size_t size)
{
    auto *text = reinterpret_cast<const unsigned char *>(string);
    out.add("\"");
    size_t plain = 0; // start of what can be copied as it is
    size_t i = 0;
    while (i < size) {
        const char *escape = short_escape(text[i]);
        size_t length = utf8_length(text + i, size - i);
        if (!escape && length && text[i] >= 0x20) {
            i += length;
            continue;
        }
        out.add(string + plain, i - plain);
        char code[8];
        if (!escape) {
            snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(text[i]));
            escape = length ? code : "\xef\xbf\xbd";
        }
        out.add(escape);
        plain = ++i;
    }
    out.add(string + plain, size - plain);
    out.add("\"");
}

void new_line(formatter &f)
{
    if (f.indent < 0)
        return;
    f.out.add("\n");
    for (int i = 0; i < f.indent + f.depth; i++)
        f.out.add("\t");
}

void add_value(formatter &f, blob_attr *attr);

void add_member(formatter &f, blob_attr *attr, bool named)
{
    if (named) {
        const char *name = blobmsg_name(attr);
        add_string(f.out, name, strlen(name));
        f.out.add(f.indent < 0 ? ":" : ": ");
    }
    add_value(f, attr);
}

void add_list(formatter &f, blob_attr *attr, bool array)
{
    if (++f.depth > depth_max) {
        f.out.failed = true;
        return;
    }
    f.out.add(array ? "[" : "{");
    new_line(f);
    bool first = true;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, attr, rem)
    {
        if (!blobmsg_check_attr_len(pos, false, rem))
            continue;
        if (!first) {
            f.out.add(",");
            new_line(f);
        }
        first = false;
        add_member(f, pos, !array);
        if (f.out.failed)
            return;
    }
    f.depth--;
    new_line(f);
    f.out.add(array ? "]" : "}");
}

void add_number(formatter &f, blob_attr *attr)
{
    char text[400]; // a double of 309 digits, its sign and six decimals
    double number = blobmsg_get_double(attr);
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT16:
        snprintf(text, sizeof text, "%d", static_cast<int16_t>(blobmsg_get_u16(attr)));
        break;
    case BLOBMSG_TYPE_INT32:
        snprintf(text, sizeof text, "%" PRId32, static_cast<int32_t>(blobmsg_get_u32(attr)));
        break;
    case BLOBMSG_TYPE_INT64:
        snprintf(text, sizeof text, "%" PRId64, static_cast<int64_t>(blobmsg_get_u64(attr)));
        break;
    default:
        snprintf(text, sizeof text, std::isfinite(number) ? "%.6f" : "null", number);
    }
    f.out.add(text);
}

void add_value(formatter &f, blob_attr *attr)
{
    const char *text;
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_TABLE:
    case BLOBMSG_TYPE_ARRAY:
        add_list(f, attr, blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
        break;
    case BLOBMSG_TYPE_STRING:
        text = blobmsg_get_string(attr);
        add_string(f.out, text, strlen(text));
        break;
    case BLOBMSG_TYPE_INT8:
        f.out.add(blobmsg_get_bool(attr) ? "true" : "false");
        break;
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_TYPE_DOUBLE:
        add_number(f, attr);
        break;
    default:
        f.out.add("null");
    }
}

} // namespace

extern "C" char *blobmsg_format_json_indent(blob_attr *attr, bool list, int indent)
{
    if (!attr)
        return nullptr;
    formatter f{.out = {}, .indent = indent};
    if (list)
        add_list(f, attr, blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
    else if (blobmsg_check_attr(attr, false))
        add_member(f, attr, *blobmsg_name(attr));
    else
        f.out.failed = true;
    if (!f.out.failed)
        return f.out.data;
    free(f.out.data);
    return nullptr;
}
