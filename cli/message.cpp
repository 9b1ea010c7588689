#include "message.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sms.h>

#include "json.h"

enum { INDEX, ALPHABET, SENDER, DATE, TIME, READ, COUNTRY_CODE, CONTENT, MEMBERS };

static const blobmsg_policy policy[MEMBERS] = {
    {"index", BLOBMSG_TYPE_INT32},        {"alphabet", BLOBMSG_TYPE_STRING}, {"sender", BLOBMSG_TYPE_STRING},
    {"date", BLOBMSG_TYPE_STRING},        {"time", BLOBMSG_TYPE_STRING},     {"read", BLOBMSG_TYPE_BOOL},
    {"country_code", BLOBMSG_TYPE_INT32}, {"message", BLOBMSG_TYPE_ARRAY},
};

struct AlphabetName {
    char name[5];
    int alphabet;
};

static const AlphabetName alphabets[] = {
    {"GSM", SMS_ALPHABET_GSM}, {"UCS2", SMS_ALPHABET_UCS2}, {"ISO", SMS_ALPHABET_ISO}, {"UTF8", SMS_ALPHABET_UTF8}};

// ---- from the bus

static bool is_byte(blob_attr *element)
{
    return blobmsg_check_attr(element, false) && blobmsg_type(element) == BLOBMSG_TYPE_INT16;
}

static size_t count_bytes(blob_attr *content)
{
    blob_attr *element;
    size_t left;
    size_t count = 0;
    blobmsg_for_each_attr(element, content, left)
    {
        count += is_byte(element);
    }
    return count;
}

static const char *text_of(blob_attr *member)
{
    return member ? blobmsg_get_string(member) : "";
}

static Message read_message(void *members, size_t size)
{
    blob_attr *found[MEMBERS];
    blobmsg_parse(policy, MEMBERS, found, members, static_cast<unsigned int>(size));
    Message message = {};
    message.index = found[INDEX] ? static_cast<int32_t>(blobmsg_get_u32(found[INDEX])) : 0;
    message.alphabet = text_of(found[ALPHABET]);
    message.sender = text_of(found[SENDER]);
    message.date = text_of(found[DATE]);
    message.time = text_of(found[TIME]);
    message.read = found[READ] && blobmsg_get_bool(found[READ]);
    message.international = found[COUNTRY_CODE] && blobmsg_get_u32(found[COUNTRY_CODE]) == 1;
    message.content = found[CONTENT];
    message.bytes = message.content ? count_bytes(message.content) : 0;
    return message;
}

static void find_parts(PartsFile &file, Message *message)
{
    file.next({message->sender, message->date, message->time, message->bytes}, &message->parts);
}

static bool call_get_message(int32_t index, Reply &reply, Message *message)
{
    CallArguments arguments;
    arguments.number("index", index);
    if (!bus_call("get_message", &arguments, reply))
        return false;
    *message = read_message(blob_data(reply.data), blob_len(reply.data));
    message->index = index;
    return true;
}

bool fetch_message(int32_t index, Reply &reply, Message *message)
{
    if (!call_get_message(index, reply, message))
        return false;
    PartsFile file;
    file.skip(index - 1);
    find_parts(file, message);
    return true;
}

bool fetch_messages(Reply &reply)
{
    return bus_call("get_all_messages", nullptr, reply);
}

void visit_messages(const Reply &reply, MessageVisitor visitor, void *priv)
{
    PartsFile file;
    blob_attr *list = reply.member("messages");
    blob_attr *element;
    size_t left;
    int32_t last = 0;
    blobmsg_for_each_attr(element, list, left)
    {
        if (!blobmsg_check_attr(element, false) || blobmsg_type(element) != BLOBMSG_TYPE_TABLE)
            continue;
        Message message = read_message(blobmsg_data(element), blobmsg_data_len(element));
        last = message.index;
        find_parts(file, &message);
        if (!visitor(message, priv))
            return;
    }
    bool more = reply.number("truncated") == 1;
    while (more) {
        Reply one;
        Message message;
        more = call_get_message(++last, one, &message);
        if (!more)
            return;
        find_parts(file, &message);
        more = visitor(message, priv);
    }
}

uint64_t message_fingerprint(const Message &message)
{
    uint64_t hash = 0xCBF29CE484222325; // FNV-1a
    auto add = [&hash](unsigned value) { hash = (hash ^ value) * 0x100000001B3; };
    for (const char *text : {message.alphabet, message.sender, message.date, message.time}) {
        for (; *text; text++)
            add(static_cast<unsigned char>(*text));
        add(0x100);
    }
    blob_attr *element;
    size_t left;
    blobmsg_for_each_attr(element, message.content, left)
    {
        if (is_byte(element))
            add(blobmsg_get_u16(element));
    }
    return hash;
}

// ---- as text

// A text that grows.
struct Writer {
    char *text = nullptr;
    size_t used = 0;
    size_t size = 0;

    bool reserve(size_t more)
    {
        if (used + more < size)
            return true;
        size_t larger = std::max(size * 2, used + more + 1);
        char *moved = static_cast<char *>(realloc(text, larger));
        if (!moved)
            return false;
        text = moved;
        size = larger;
        return true;
    }
};

static const AlphabetName *find_alphabet(const Message &message)
{
    for (const AlphabetName &row : alphabets)
        if (strcmp(row.name, message.alphabet) == 0)
            return &row;
    return nullptr;
}

// The next `count` bytes of a content as UTF-8, behind what is there.
static void write_text(Writer &writer, const uint8_t *bytes, size_t count, int alphabet)
{
    constexpr char SUBSTITUTE = 0x1A; // for a zero, which would end the text
    size_t most = 3 * count + 1;
    if (!writer.reserve(most))
        return;
    char *next = writer.text + writer.used;
    int length = sms_plain_text(bytes, count, alphabet, next, most); // there is room for it
    std::replace(next, next + std::max(length, 0), '\0', SUBSTITUTE);
    writer.used += static_cast<size_t>(std::max(length, 0));
}

static void write_gap(Writer &writer, unsigned first, unsigned last, unsigned total)
{
    constexpr size_t LONGEST = 48;
    if (!writer.reserve(LONGEST))
        return;
    int length =
        first == last
            ? snprintf(writer.text + writer.used, LONGEST, "[part %u of %u is missing]", first, total)
            : snprintf(writer.text + writer.used, LONGEST, "[parts %u to %u of %u are missing]", first, last, total);
    writer.used += static_cast<size_t>(length);
}

// Parts that follow each other are decoded together: one may end within a character.
static char *write_marked(const uint8_t *bytes, const MessageParts &parts, int alphabet)
{
    Writer writer;
    for (unsigned first = 1; first <= parts.total;) {
        bool missing = parts.lengths[first] == MessageParts::MISSING;
        size_t count = 0;
        unsigned next = first;
        for (; next <= parts.total && (parts.lengths[next] == MessageParts::MISSING) == missing; next++)
            count += missing ? 0 : static_cast<size_t>(parts.lengths[next]);
        if (missing)
            write_gap(writer, first, next - 1, parts.total);
        else
            write_text(writer, bytes, count, alphabet);
        bytes += count;
        first = next;
    }
    return writer.text;
}

static char *write_hexadecimal(const uint8_t *bytes, size_t count)
{
    static const char digits[] = "0123456789ABCDEF";
    char *text = static_cast<char *>(malloc(2 * count + 1));
    if (!text)
        return nullptr;
    for (size_t i = 0; i < count; i++) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0xF];
    }
    text[2 * count] = '\0';
    return text;
}

static char *write_from(const Message &message)
{
    bool plus = message.international && isdigit(static_cast<unsigned char>(message.sender[0]));
    char *text = nullptr;
    return asprintf(&text, "%s%s", plus ? "+" : "", message.sender) < 0 ? nullptr : text;
}

static char *write_date(const Message &message)
{
    const char *date = message.date;
    bool usual = strlen(date) == 8 && strspn(date, "0123456789-") == 8 && date[2] == '-' && date[5] == '-';
    char *text = nullptr;
    return asprintf(&text, "%s%s", usual ? "20" : "", date) < 0 ? nullptr : text;
}

MessageText::MessageText(const Message &message)
{
    from = write_from(message);
    date = write_date(message);
    uint8_t *bytes = static_cast<uint8_t *>(malloc(message.bytes + 1));
    if (!bytes)
        return;
    blob_attr *element;
    size_t left;
    size_t count = 0;
    blobmsg_for_each_attr(element, message.content, left)
    {
        if (is_byte(element))
            bytes[count++] = static_cast<uint8_t>(blobmsg_get_u16(element));
    }
    const AlphabetName *alphabet = find_alphabet(message);
    if (!alphabet) {
        data = write_hexadecimal(bytes, count);
        if (asprintf(&marked, "(%zu bytes of data)", count) < 0)
            marked = nullptr;
    } else {
        MessageParts whole;
        whole.lengths[1] = static_cast<int32_t>(count);
        bool gaps = message.parts.known && message.parts.missing > 0;
        text = write_marked(bytes, whole, alphabet->alphabet);
        marked = write_marked(bytes, gaps ? message.parts : whole, alphabet->alphabet);
    }
    free(bytes);
}

MessageText::~MessageText()
{
    for (char *owned : {from, date, text, marked, data})
        free(owned);
}

void json_message(const Message &message, const MessageText &text)
{
    const MessageParts &parts = message.parts;
    json_number("index", message.index);
    json_bool("read", message.read);
    json_text("from", text.from);
    json_text("date", *message.date ? text.date : nullptr);
    json_text("time", *message.time ? message.time : nullptr);
    json_text("alphabet", message.alphabet);
    json_text("text", text.text);
    json_text("data", text.data);
    json_number("parts", parts.known ? std::optional<int64_t>(parts.total) : std::nullopt);
    if (!parts.known) {
        json_text("missing_parts", nullptr);
        return;
    }
    json_open("missing_parts", '[');
    for (unsigned i = 1; i <= parts.total; i++)
        if (parts.lengths[i] == MessageParts::MISSING)
            json_number(nullptr, i);
    json_close();
}
