#include "json.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "text.h"

constexpr size_t DEEPEST = 64;

static bool wanted = false;
static char closing[DEEPEST + 1];
static size_t depth = 0;
static bool first = true; // nothing stands in the innermost bracket yet

void json_start(bool json)
{
    wanted = json;
}

void json_always()
{
    wanted = true;
}

bool json_wanted()
{
    return wanted;
}

static void print_string(const char *value, size_t length)
{
    std::string_view rest(value, length);
    putchar('"');
    while (!rest.empty()) {
        char one[ESCAPED_SIZE];
        escape_character(rest, Escapes::json, one);
        fputs(one, stdout);
    }
    putchar('"');
}

// False when nothing is to be printed.
static bool begin_value(const char *name)
{
    if (!wanted)
        return false;
    if (!first)
        putchar(',');
    first = false;
    if (name) {
        print_string(name, strlen(name));
        putchar(':');
    }
    return true;
}

void json_open(const char *name, char bracket)
{
    if (depth >= DEEPEST || !begin_value(name)) // json_blob() goes no deeper
        return;
    putchar(bracket);
    closing[depth++] = bracket == '{' ? '}' : ']';
    first = true;
}

void json_close()
{
    if (!wanted || depth == 0)
        return;
    putchar(closing[--depth]);
    first = depth == 0;
    if (depth == 0)
        putchar('\n');
}

void json_text(const char *name, const char *value, size_t length)
{
    if (begin_value(name))
        print_string(value, length);
}

static void print_null(const char *name)
{
    if (begin_value(name))
        fputs("null", stdout);
}

void json_text(const char *name, const char *value)
{
    if (value)
        json_text(name, value, strlen(value));
    else
        print_null(name);
}

void json_number(const char *name, std::optional<int64_t> value)
{
    if (!value)
        print_null(name);
    else if (begin_value(name))
        printf("%" PRId64, *value);
}

void json_tenths(const char *name, std::optional<int32_t> tenths)
{
    if (!tenths)
        print_null(name);
    else if (begin_value(name))
        printf("%.1f", *tenths / 10.0);
}

void json_bool(const char *name, std::optional<bool> value)
{
    if (!value)
        print_null(name);
    else if (begin_value(name))
        fputs(*value ? "true" : "false", stdout);
}

static void print_double(const char *name, double value)
{
    if (!std::isfinite(value))
        print_null(name);
    else if (begin_value(name))
        printf("%.17g", value);
}

void json_blob(blob_attr *member, bool in_array)
{
    const char *name = in_array ? nullptr : blobmsg_name(member);
    blob_attr *position;
    size_t left;
    switch (blobmsg_type(member)) {
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        if (depth >= DEEPEST) {
            print_null(name);
            break;
        }
        json_open(name, blobmsg_type(member) == BLOBMSG_TYPE_TABLE ? '{' : '[');
        blobmsg_for_each_attr(position, member, left)
        {
            if (blobmsg_check_attr(position, false))
                json_blob(position, blobmsg_type(member) == BLOBMSG_TYPE_ARRAY);
        }
        json_close();
        break;
    case BLOBMSG_TYPE_STRING:
        json_text(name, blobmsg_get_string(member));
        break;
    case BLOBMSG_TYPE_INT64:
        json_number(name, static_cast<int64_t>(blobmsg_get_u64(member)));
        break;
    case BLOBMSG_TYPE_INT32:
        json_number(name, static_cast<int32_t>(blobmsg_get_u32(member)));
        break;
    case BLOBMSG_TYPE_INT16:
        json_number(name, static_cast<int16_t>(blobmsg_get_u16(member)));
        break;
    case BLOBMSG_TYPE_INT8:
        json_bool(name, blobmsg_get_bool(member));
        break;
    case BLOBMSG_TYPE_DOUBLE:
        print_double(name, blobmsg_get_double(member));
        break;
    default:
        print_null(name);
    }
}

void json_members(blob_attr *message)
{
    blob_attr *position;
    size_t left;
    blob_for_each_attr(position, message, left)
    {
        if (blobmsg_check_attr(position, true))
            json_blob(position);
    }
}
