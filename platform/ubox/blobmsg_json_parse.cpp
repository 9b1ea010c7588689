extern "C" {
#include <libubox/blobmsg_json.h>
}

#include <cerrno>
#include <cjson/cJSON.h>
#include <cstdlib>

namespace {

constexpr int depth_max = 256;

/*
 * cJSON keeps numbers as doubles, which loses the low digits of large integers and the difference between 1 and 1.0. So
 * their text is read again: the numbers of a tree in its order are the numbers of the text in its order.
 */
struct number_texts {
    const char *pos;
};

bool is_number_character(char c)
{
    return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

const char *skip_string(const char *pos)
{
    for (pos++; *pos && *pos != '"'; pos++) {
        if (*pos == '\\' && pos[1])
            pos++;
    }
    return *pos ? pos + 1 : pos;
}

const char *next_number(number_texts &numbers)
{
    const char *pos = numbers.pos;
    while (*pos && *pos != '-' && (*pos < '0' || *pos > '9'))
        pos = *pos == '"' ? skip_string(pos) : pos + 1;
    const char *start = pos;
    while (is_number_character(*pos))
        pos++;
    numbers.pos = pos;
    return start;
}

// A string that holds \u0000 would be cut there without a word.
bool has_escaped_zero(const char *text)
{
    for (const char *pos = text; *pos; pos++) {
        if (*pos != '\\')
            continue;
        if (strncmp(pos + 1, "u0000", 5) == 0)
            return true;
        if (pos[1])
            pos++;
    }
    return false;
}

int add_number(blob_buf *buf, const char *name, const cJSON *item, number_texts &numbers)
{
    const char *text = next_number(numbers);
    size_t length = strspn(text, "-0123456789");
    bool integer = !is_number_character(text[length]);
    errno = 0;
    long long number = integer ? strtoll(text, nullptr, 10) : 0;
    if (!integer || errno == ERANGE)
        return blobmsg_add_double(buf, name, item->valuedouble);
    if (number >= INT32_MIN && number <= INT32_MAX)
        return blobmsg_add_u32(buf, name, static_cast<uint32_t>(number));
    return blobmsg_add_u64(buf, name, static_cast<uint64_t>(number));
}

bool add_children(blob_buf *buf, const cJSON *parent, number_texts &numbers, int depth);

bool add_item(blob_buf *buf, const cJSON *item, number_texts &numbers, int depth)
{
    const char *name = item->string;
    if (cJSON_IsNumber(item))
        return add_number(buf, name, item, numbers) == 0;
    if (cJSON_IsString(item))
        return blobmsg_add_string(buf, name, item->valuestring) == 0;
    if (cJSON_IsBool(item))
        return blobmsg_add_u8(buf, name, cJSON_IsTrue(item)) == 0;
    if (cJSON_IsNull(item))
        return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    void *cookie = blobmsg_open_nested(buf, name, cJSON_IsArray(item));
    if (!cookie)
        return false;
    bool ok = add_children(buf, item, numbers, depth);
    blob_nest_end(buf, cookie);
    return ok;
}

bool add_children(blob_buf *buf, const cJSON *parent, number_texts &numbers, int depth)
{
    if (depth >= depth_max)
        return false;
    for (const cJSON *item = parent->child; item; item = item->next) {
        if (!add_item(buf, item, numbers, depth + 1))
            return false;
    }
    return true;
}

} // namespace

extern "C" bool blobmsg_add_json_from_string(blob_buf *buf, const char *str)
{
    if (!str || has_escaped_zero(str))
        return false;
    cJSON *root = cJSON_ParseWithOpts(str, nullptr, 1);
    number_texts numbers{str};
    bool ok = cJSON_IsObject(root) && add_children(buf, root, numbers, 0);
    cJSON_Delete(root);
    return ok;
}
