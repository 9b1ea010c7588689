// The text is taken apart element by element: a parsed document takes some 64 bytes for every byte of a message, so
// that the whole of a large file would not fit into a router's memory.

#include "message_json.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <cjson/cJSON.h>
}

#include "log.h"

constexpr size_t LONGEST_ELEMENT = 512 * 1024;         // a message of 255 parts takes less than 250 KiB
constexpr uint32_t MOST_ELEMENTS = 10 * MOST_MESSAGES; // more of them would hold up the start
constexpr unsigned MOST_SKIP_LINES = 10;
constexpr int EXCERPT_LENGTH = 64;
constexpr uint8_t BYTE_ORDER_MARK[3] = {0xEF, 0xBB, 0xBF};

static bool number_in(const cJSON *item, int least, int most, int *value)
{
    if (!cJSON_IsNumber(item) || !(item->valuedouble >= least && item->valuedouble <= most))
        return false;
    *value = static_cast<int>(item->valuedouble);
    return *value == item->valuedouble;
}

static bool member_number(const cJSON *object, const char *name, int least, int most, int *value)
{
    return number_in(cJSON_GetObjectItemCaseSensitive(object, name), least, most, value);
}

static bool member_text(const cJSON *object, const char *name, std::string_view *text)
{
    const char *value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
    if (!value)
        return false;
    *text = value;
    return true;
}

static bool member_bool(const cJSON *object, const char *name, bool *value)
{
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    *value = cJSON_IsTrue(item);
    return cJSON_IsBool(item);
}

// Bytes of number arrays, one behind the other; `next` has room for every number in the element.
static bool take_content(const cJSON *array, uint8_t **next, std::span<const uint8_t> *content)
{
    if (!cJSON_IsArray(array))
        return false;
    uint8_t *start = *next;
    int byte;
    for (const cJSON *item = array->child; item; item = item->next) {
        if (!number_in(item, 0, 255, &byte))
            return false;
        *(*next)++ = static_cast<uint8_t>(byte);
    }
    *content = {start, static_cast<size_t>(*next - start)};
    return true;
}

static bool take_parts(const cJSON *array, uint8_t *bytes, MessagePart parts[MOST_PARTS], unsigned *count)
{
    if (!cJSON_IsArray(array))
        return false;
    *count = 0;
    for (const cJSON *item = array->child; item; item = item->next, ++*count) {
        int index;
        if (*count == MOST_PARTS || !member_number(item, "index", 1, 255, &index) ||
            !take_content(cJSON_GetObjectItemCaseSensitive(item, "content"), &bytes, &parts[*count].content))
            return false;
        parts[*count].index = static_cast<uint8_t>(index);
    }
    return true;
}

static StoredMessage *message_from_json(const cJSON *object, uint8_t *bytes)
{
    MessageFields fields = {};
    MessagePart parts[MOST_PARTS];
    unsigned count = 1;
    int alphabet;
    std::string_view from_toa;
    bool all_present = false;
    if (!member_number(object, "alphabet", INT8_MIN, INT8_MAX, &alphabet) ||
        !member_text(object, "sender", &fields.sender) || !member_text(object, "date", &fields.date) ||
        !member_text(object, "time", &fields.time) || !member_bool(object, "read", &fields.read) ||
        !member_text(object, "smsc", &fields.smsc) || !member_text(object, "from_toa", &from_toa))
        return nullptr;
    const cJSON *info = cJSON_GetObjectItemCaseSensitive(object, "concatenation_info");
    fields.is_long = info != nullptr;
    if (fields.is_long) {
        int ref, total;
        if (!member_number(info, "csms_ref", 0, 65535, &ref) || !member_number(info, "total", 1, 255, &total) ||
            !member_bool(object, "all_parts_present", &all_present) ||
            !take_parts(cJSON_GetObjectItemCaseSensitive(object, "parts"), bytes, parts, &count))
            return nullptr;
        fields.csms_ref = static_cast<uint16_t>(ref);
        fields.total = static_cast<uint8_t>(total);
    } else if (!take_content(cJSON_GetObjectItemCaseSensitive(object, "message"), &bytes, &parts[0].content)) {
        return nullptr;
    }
    fields.alphabet = static_cast<int8_t>(alphabet);
    fields.international = from_toa.find("international") != std::string_view::npos;
    StoredMessage *message = message_new(fields, {parts, count});
    if (message)
        message->all_parts_present = all_present;
    return message;
}

// Finds the end of one JSON value without recursion. It accepts more than JSON; the parser checks the value afterwards.
struct ValueScan {
    unsigned depth;
    bool in_string, escaped;
};

// True when the value ended in front of `c`; *last is set when `c` is its last character.
static bool value_ended(ValueScan *scan, uint8_t c, bool *last)
{
    if (scan->in_string) {
        scan->in_string = scan->escaped || c != '"';
        scan->escaped = !scan->escaped && c == '\\';
        return false;
    }
    if (scan->depth == 0 && (c <= ' ' || c == ',' || c == ']' || c == '}'))
        return true;
    if (c == '"')
        scan->in_string = true;
    if (c == '{' || c == '[')
        scan->depth++;
    if (c == '}' || c == ']')
        *last = --scan->depth == 0;
    return false;
}

enum class Element { none, value, oversize };

// Measures the value at the reader's position. A value that is too large is consumed up to its end.
static Element find_element(MessageReader *reader, size_t *length)
{
    ValueScan scan = {};
    bool last = false;
    bool oversize = false;
    size_t at = 0;
    while (!last && reader_need(reader, at + 1) && !value_ended(&scan, reader_bytes(reader)[at], &last)) {
        if (++at > LONGEST_ELEMENT) {
            reader_skip(reader, at);
            at = 0;
            oversize = true;
        }
    }
    *length = at;
    if (oversize) {
        reader_skip(reader, at);
        return Element::oversize;
    }
    return at > 0 ? Element::value : Element::none;
}

// The scratch memory of one load.
struct JsonLoad {
    MessageReader *reader;
    MessageArray messages; // becomes the store when the text is sound
    char *text;            // LONGEST_ELEMENT and a terminating zero
    uint8_t *bytes;        // message bytes of one element
    uint32_t skipped;
    uint32_t position;
    bool complete;
    bool no_array;
};

static void skip_blanks(MessageReader *reader)
{
    while (reader_need(reader, 1) && reader_bytes(reader)[0] <= ' ')
        reader_skip(reader, 1);
}

static void print_stop(const char *text, size_t available)
{
    char excerpt[EXCERPT_LENGTH + 1];
    size_t length = available < EXCERPT_LENGTH ? available : EXCERPT_LENGTH;
    for (size_t i = 0; i < length; i++)
        excerpt[i] = text[i] >= ' ' && text[i] <= '~' ? text[i] : '?';
    excerpt[length] = '\0';
    if (length > 0)
        print_out("error before: %s\n", excerpt);
}

static void print_stop_at_reader(MessageReader *reader)
{
    (void)reader_need(reader, EXCERPT_LENGTH); // what is left, if it is less
    print_stop(reinterpret_cast<const char *>(reader_bytes(reader)), reader_available(reader));
}

// Parses a value of `length` bytes at the reader's position and consumes it; null, with the reason printed, when it is
// not valid JSON.
static cJSON *parse_element(JsonLoad *load, size_t length)
{
    memcpy(load->text, reader_bytes(load->reader), length);
    load->text[length] = '\0';
    const char *stop = nullptr;
    cJSON *item = cJSON_ParseWithLengthOpts(load->text, length + 1, &stop, false);
    if (item && stop == load->text + length) {
        reader_skip(load->reader, length);
        return item;
    }
    cJSON_Delete(item);
    if (stop)
        print_stop(stop, static_cast<size_t>(load->text + length - stop));
    return nullptr;
}

static void skip_message(JsonLoad *load)
{
    if (++load->skipped <= MOST_SKIP_LINES)
        print_out("message %u of the data file is not a message, skipped\n", load->position);
}

static bool take_element(JsonLoad *load)
{
    size_t length;
    Element element = find_element(load->reader, &length);
    load->position++;
    if (element == Element::none) {
        print_stop_at_reader(load->reader);
        return false;
    }
    if (element == Element::oversize) {
        skip_message(load);
        return true;
    }
    cJSON *item = parse_element(load, length);
    if (!item)
        return false;
    StoredMessage *message = message_from_json(item, load->bytes);
    cJSON_Delete(item);
    if (!message) {
        skip_message(load);
    } else if (array_append(&load->messages, message) != 0) {
        load->complete = false;
        free(message);
    }
    return true;
}

// The elements up to the closing bracket. False when the text is not valid.
static bool take_array(JsonLoad *load)
{
    MessageReader *reader = load->reader;
    reader_skip(reader, 1);
    skip_blanks(reader);
    if (reader_need(reader, 1) && reader_bytes(reader)[0] == ']')
        return true;
    for (;;) {
        skip_blanks(reader);
        if (!take_element(load))
            return false;
        load->complete = load->complete && load->position < MOST_ELEMENTS;
        if (!load->complete)
            return true; // the file is kept, so the rest need not be looked at
        skip_blanks(reader);
        uint8_t next = reader_need(reader, 1) ? reader_bytes(reader)[0] : 0;
        if (next == ']')
            return true;
        if (next != ',') {
            print_stop_at_reader(reader);
            return false;
        }
        reader_skip(reader, 1);
    }
}

static bool take_text(JsonLoad *load)
{
    MessageReader *reader = load->reader;
    if (reader_need(reader, sizeof BYTE_ORDER_MARK) &&
        memcmp(reader_bytes(reader), BYTE_ORDER_MARK, sizeof BYTE_ORDER_MARK) == 0)
        reader_skip(reader, sizeof BYTE_ORDER_MARK);
    skip_blanks(reader);
    if (reader_need(reader, 1) && reader_bytes(reader)[0] == '[')
        return take_array(load);
    size_t length;
    if (find_element(reader, &length) != Element::value) {
        print_stop_at_reader(reader);
        return false;
    }
    cJSON *item = parse_element(load, length);
    if (!item)
        return false;
    cJSON_Delete(item);
    print_out("message data file not json array\n");
    load->no_array = true;
    return true;
}

bool read_message_json(MessageReader *reader, MessageArray *array, bool *complete, bool *intact)
{
    JsonLoad load = {};
    load.reader = reader;
    load.complete = true;
    load.messages.present = true;
    load.text = static_cast<char *>(malloc(LONGEST_ELEMENT + 1));
    load.bytes = static_cast<uint8_t *>(malloc(LONGEST_ELEMENT));
    bool usable = load.text && load.bytes;
    bool sound = usable && take_text(&load);
    *intact = sound && load.skipped == 0 && !load.no_array;
    if (usable && !sound && !reader->failed) {
        print_out("failed to parse messages, file maybe corrupted, using empty data\n");
        array_clear(&load.messages);
        load.complete = true;
    }
    free(load.text);
    free(load.bytes);
    usable = usable && !reader->failed;
    if (load.skipped > MOST_SKIP_LINES)
        print_out("%u messages of the data file skipped\n", load.skipped);
    array_clear(usable ? array : &load.messages);
    if (usable) {
        free(array->items);
        *array = load.messages;
        *complete = load.complete;
    } else {
        free(load.messages.items);
    }
    return usable;
}
