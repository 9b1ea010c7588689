#include "message_merge.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "text_cut.h"

// The fields as a restart would bring them back from the file, so that a message compares equal before and after one.
static MessageFields fields_of(const DecodedMessage *message)
{
    int alphabet = message->alphabet >= -1 && message->alphabet <= 3 ? message->alphabet : INT8_MAX;
    return {
        .alphabet = static_cast<int8_t>(alphabet),
        .read = false,
        .is_long = message->is_part,
        .international = strstr(message->type_of_address, "international") != nullptr,
        .csms_ref = message->csms_ref,
        .total = message->total,
        .date = std::string_view(message->date).substr(0, STAMP_SIZE - 1),
        .time = std::string_view(message->time).substr(0, STAMP_SIZE - 1),
        .smsc = message->smsc,
        .sender = message->sender,
    };
}

// Are both equal, apart from what a client may have changed?
static bool same_message(const StoredMessage *stored, const StoredMessage *message)
{
    constexpr size_t BEHIND_READ = RECORD_READ + 1;
    return stored->size == message->size && memcmp(record_of(stored), record_of(message), RECORD_READ) == 0 &&
           memcmp(record_of(stored) + BEHIND_READ, record_of(message) + BEHIND_READ, message->size - BEHIND_READ) == 0;
}

// The message belongs to the array afterwards.
static AddResult add_single(MessageArray *array, StoredMessage *message)
{
    for (uint32_t i = 0; i < array->count; i++) {
        if (!same_message(array->items[i], message))
            continue;
        print_out("abandon duplicate message\n");
        free(message);
        return AddResult::duplicate;
    }
    if (array_append(array, message) == 0)
        return AddResult::added;
    free(message);
    return AddResult::refused;
}

// When a text uses national language tables, only those of its parts that need the tables are stored as UTF-8.
static bool alphabets_match(int8_t stored, int8_t part)
{
    return stored == part || (stored == SMS_ALPHABET_UTF8 && part == SMS_ALPHABET_GSM) ||
           (stored == SMS_ALPHABET_GSM && part == SMS_ALPHABET_UTF8);
}

// The parts of one message arrive at different times, so their times are not compared.
static bool belongs_to(const MessageFields &stored, const MessageFields &part)
{
    return stored.is_long && stored.csms_ref == part.csms_ref && stored.total == part.total &&
           alphabets_match(stored.alphabet, part.alphabet) && stored.international == part.international &&
           stored.date == part.date && stored.sender == part.sender;
}

// The content of a part; null when the message does not hold it.
static const uint8_t *find_part(const StoredMessage *message, uint8_t index, std::span<const uint8_t> *content)
{
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part)) {
        if (part.index == index) {
            *content = part.content;
            return part.content.data();
        }
    }
    return nullptr;
}

static bool all_parts_present(const StoredMessage *message, uint8_t total)
{
    uint16_t sum = 0;
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part))
        sum = static_cast<uint16_t>(sum + part.index);
    return sum == static_cast<uint16_t>(total * (total + 1) / 2);
}

// A part in its own alphabet, and also as UTF-8 once somebody has asked for that.
struct PartForms {
    MessagePart own;
    int8_t alphabet;
    uint8_t *utf8 = nullptr;
    MessagePart converted = {};

    PartForms(const MessagePart &part, int8_t part_alphabet) : own(part), alphabet(part_alphabet) {}
    PartForms(const PartForms &) = delete;
    PartForms &operator=(const PartForms &) = delete;
    ~PartForms()
    {
        free(utf8);
    }
};

// The part as a message of that alphabet holds it; null without memory.
static const MessagePart *part_for(PartForms *forms, int8_t alphabet)
{
    if (alphabet != SMS_ALPHABET_UTF8 || forms->alphabet != SMS_ALPHABET_GSM)
        return &forms->own;
    size_t length = 0;
    if (!forms->utf8) {
        forms->utf8 = utf8_of_septets(forms->own.content, &length);
        forms->converted = {forms->own.index, {forms->utf8, length}};
    }
    return forms->utf8 ? &forms->converted : nullptr;
}

// A copy with all parts as UTF-8; null without memory.
static StoredMessage *message_in_utf8(const StoredMessage *message)
{
    MessageFields fields = message_fields(message);
    fields.alphabet = SMS_ALPHABET_UTF8;
    MessagePart parts[MOST_PARTS];
    unsigned count = 0;
    bool converted = true;
    PartWalk walk = parts_of(message);
    while (converted && next_part(&walk, &parts[count])) {
        size_t length = 0;
        uint8_t *utf8 = utf8_of_septets(parts[count].content, &length);
        parts[count].content = {utf8, length};
        converted = utf8;
        count++;
    }
    StoredMessage *result = converted ? message_new(fields, {parts, count}) : nullptr;
    for (unsigned i = 0; i < count; i++)
        free(const_cast<uint8_t *>(parts[i].content.data()));
    if (result)
        result->all_parts_present = message->all_parts_present;
    return result;
}

static AddResult join_part(MessageArray *array, uint32_t position, const MessageFields &fields, const MessagePart &part)
{
    bool converts =
        message_fields(array->items[position]).alphabet == SMS_ALPHABET_GSM && fields.alphabet == SMS_ALPHABET_UTF8;
    StoredMessage *converted = converts ? message_in_utf8(array->items[position]) : nullptr;
    if (converts && !converted)
        return AddResult::refused;
    if (converted)
        array_replace(array, position, converted);
    if (array->bytes + PART_HEADER_SIZE + part.content.size() > MOST_MESSAGE_BYTES)
        return AddResult::refused;
    StoredMessage *joined = message_with_part(array->items[position], part);
    if (!joined) {
        print_out("create part info object failed\n");
        return AddResult::refused;
    }
    if (all_parts_present(joined, fields.total))
        joined->all_parts_present = 1;
    array_replace(array, position, joined);
    return AddResult::added;
}

// Seconds since midnight; 0 for a text that is not "HH:MM:SS".
static int32_t seconds_of(std::string_view time)
{
    if (time.size() < STAMP_SIZE - 1)
        return 0;
    return leading_int(time) * 3600 + leading_int(time.substr(3)) * 60 + leading_int(time.substr(6));
}

// A stored message that an arriving part may belong to.
struct Candidate {
    bool found;
    uint32_t position;
    int32_t distance; // s between the time stamps
};

static void consider(Candidate *best, uint32_t position, int32_t distance)
{
    if (!best->found || distance <= best->distance) // of equal ones the latest
        *best = {true, position, distance};
}

// Some services send every long message with the same reference: the stored part tells a repetition (same bytes) from
// the next message (other bytes). Where both are possible, or several messages lack the part, the time stamps decide.
static AddResult add_part(MessageArray *array, const MessageFields &fields, const MessagePart &part)
{
    Candidate lacking = {}, repeated = {};
    PartForms forms(part, fields.alphabet);
    for (uint32_t i = 0; i < array->count; i++) {
        MessageFields stored = message_fields(array->items[i]);
        if (!belongs_to(stored, fields))
            continue;
        std::span<const uint8_t> content;
        int32_t distance = abs(seconds_of(stored.time) - seconds_of(fields.time));
        const MessagePart *form = part_for(&forms, stored.alphabet);
        if (!form)
            return AddResult::refused;
        if (!find_part(array->items[i], part.index, &content))
            consider(&lacking, i, distance);
        else if (std::ranges::equal(content, form->content))
            consider(&repeated, i, distance);
    }
    if (repeated.found && (!lacking.found || repeated.distance < lacking.distance)) {
        print_out("abandon duplicate message part\n");
        return AddResult::added;
    }
    if (lacking.found)
        return join_part(array, lacking.position, fields,
                         *part_for(&forms, message_fields(array->items[lacking.position]).alphabet));
    StoredMessage *created = message_new(fields, {&part, 1});
    if (created && array_append(array, created) == 0)
        return AddResult::added;
    free(created);
    return AddResult::refused;
}

AddResult add_message(const DecodedMessage *message)
{
    MessageFields fields = fields_of(message);
    MessagePart part = {message->index, {user_data_of(message), message->length}};
    MessageArrayLock lock;
    if (!message_array.present)
        return AddResult::refused;
    if (fields.is_long)
        return add_part(&message_array, fields, part);
    StoredMessage *created = message_new(fields, {&part, 1});
    return created ? add_single(&message_array, created) : AddResult::refused;
}

static bool merge_long(MessageArray *array, const StoredMessage *message)
{
    MessageFields fields = message_fields(message);
    PartWalk walk = parts_of(message);
    MessagePart part;
    while (next_part(&walk, &part)) {
        if (add_part(array, fields, part) == AddResult::refused)
            return false;
    }
    return true;
}

bool merge_stored(MessageArray *array, const StoredMessage *message)
{
    MessageFields fields = message_fields(message);
    if (fields.is_long)
        return merge_long(array, message);
    for (uint32_t i = 0; i < array->count; i++) {
        if (same_message(array->items[i], message)) {
            record_of(array->items[i])[RECORD_READ] |= record_of(message)[RECORD_READ];
            return true;
        }
    }
    StoredMessage *copy = message_copy(message);
    if (copy && array_append(array, copy) == 0)
        return true;
    free(copy);
    return false;
}

bool message_is_stored(const DecodedMessage *message)
{
    MessageFields fields = fields_of(message);
    MessagePart part = {message->index, {user_data_of(message), message->length}};
    StoredMessage *wanted = message_new(fields, {&part, 1});
    if (!wanted)
        return true; // not known: the careful answer
    PartForms forms(part, fields.alphabet);
    MessageArrayLock lock;
    bool found = false;
    for (uint32_t i = 0; i < message_array.count && !found; i++) {
        const StoredMessage *stored = message_array.items[i];
        std::span<const uint8_t> content;
        if (!fields.is_long) {
            found = same_message(stored, wanted);
        } else if (belongs_to(message_fields(stored), fields) && find_part(stored, part.index, &content)) {
            const MessagePart *form = part_for(&forms, message_fields(stored).alphabet);
            found = !form || std::ranges::equal(content, form->content);
        }
    }
    free(wanted);
    return found;
}

AddResult offer_message(const DecodedMessage *message, bool log_refusal)
{
    char *text = message_json(message, true);
    if (text)
        log_info("%s", text);
    free(text);
    AddResult result = add_message(message);
    if (result == AddResult::refused && log_refusal) {
        text = message_json(message, false);
        log_error("Append failed: %s", text ? text : "no memory");
        free(text);
    }
    return result;
}
