// Runs on the thread resp_processor.

#include "message_decode.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <cjson/cJSON.h>
}

#include "text_cut.h"

constexpr size_t LONGEST_LINE = 4096;        // twenty times what a PDU takes
constexpr size_t USER_DATA_ROOM = 32 * 1024; // some libraries write text rather than the octets
constexpr size_t MOST_HEADER_OCTETS = SMS_HEADER_TEXT_SIZE / 3 + 1;
constexpr unsigned IDENTIFIER_8_BIT = 0x00;
constexpr unsigned IDENTIFIER_16_BIT = 0x08;

static size_t header_octets(std::string_view header, uint8_t octets[MOST_HEADER_OCTETS])
{
    size_t count = 0;
    while (count < MOST_HEADER_OCTETS && !header.empty()) {
        size_t end = header.find(' ');
        std::string_view digits = header.substr(0, end);
        header.remove_prefix(end == std::string_view::npos ? header.size() : end + 1);
        uint64_t value;
        if (digits.empty())
            continue;
        if (!parse_hex(digits, &value) || value > 0xFF)
            break;
        octets[count++] = static_cast<uint8_t>(value);
    }
    return count;
}

bool parse_concatenation(std::string_view header, Concatenation *found)
{
    uint8_t octets[MOST_HEADER_OCTETS];
    size_t count = header_octets(header, octets);
    if (count > 0 && octets[0] + size_t{1} < count)
        count = octets[0] + size_t{1};
    bool valid = false;
    size_t at = 1;
    while (at + 2 <= count && at + 2 + octets[at + 1] <= count) {
        unsigned length = octets[at + 1];
        const uint8_t *value = octets + at + 2;
        bool concatenation = octets[at] == IDENTIFIER_8_BIT || octets[at] == IDENTIFIER_16_BIT;
        at += 2 + length;
        if (!concatenation || (length != 3 && length != 4))
            continue;
        uint16_t ref = static_cast<uint16_t>(length == 4 ? value[0] << 8 | value[1] : value[0]);
        uint8_t total = value[length - 2];
        uint8_t index = value[length - 1];
        if (index < 1 || index > total)
            continue; // to be ignored as a whole, TS 23.040 9.2.3.24.1
        *found = {ref, total, index};
        valid = true;
    }
    return valid;
}

// The library's output buffers, each of the size that the library was told.
struct LibraryOutputs {
    DecodedMessage message;
    char line[LONGEST_LINE + 1];
    char header[SMS_HEADER_TEXT_SIZE];
    uint8_t user_data[USER_DATA_ROOM];
};

static int split_line(LibraryOutputs *out, int *with_header)
{
    int unused[5] = {};
    DecodedMessage *message = &out->message;
    int length = splitpdu(out->line, "old", &message->alphabet, message->sender, message->date, message->time,
                          out->user_data, message->smsc, with_header, out->header, nullptr, &unused[0], &unused[1],
                          message->type_of_address, &unused[2], &unused[3], nullptr, &unused[4], 1);
    message->sender[sizeof message->sender - 1] = '\0';
    message->date[sizeof message->date - 1] = '\0';
    message->time[sizeof message->time - 1] = '\0';
    message->smsc[sizeof message->smsc - 1] = '\0';
    message->type_of_address[sizeof message->type_of_address - 1] = '\0';
    out->header[sizeof out->header - 1] = '\0';
    return length;
}

// The store keeps no user-data header. So a text that needs the national language tables which its header names (3GPP
// TS 23.040 9.2.3.24.15 and .16) is stored as UTF-8. Returns the new length.
static int resolve_language(LibraryOutputs *out, int length)
{
    char text[SMS_TEXT_SIZE], plain[SMS_TEXT_SIZE];
    if (out->message.alphabet != SMS_ALPHABET_GSM || length <= 0)
        return length;
    size_t size = static_cast<size_t>(length);
    int written = sms_text(out->user_data, size, SMS_ALPHABET_GSM, out->header, text, sizeof text);
    if (written < 0 || sms_plain_text(out->user_data, size, SMS_ALPHABET_GSM, plain, sizeof plain) < 0 ||
        strcmp(text, plain) == 0)
        return length;
    out->message.alphabet = SMS_ALPHABET_UTF8;
    memcpy(out->user_data, text, static_cast<size_t>(written));
    return written;
}

int decode_message(std::string_view line, DecodedMessage **message)
{
    if (line.empty() || line.size() > LONGEST_LINE || !message)
        return -1;
    LibraryOutputs *out = static_cast<LibraryOutputs *>(calloc(1, sizeof(LibraryOutputs)));
    if (!out)
        return -2;
    memcpy(out->line, line.data(), line.size());
    int with_header = 0;
    int length = split_line(out, &with_header);
    int result = length == SMS_ERROR_MEMORY ? -2 : -1;
    if (with_header)
        length = resolve_language(out, length);
    DecodedMessage *decoded = nullptr;
    if (length >= 0 && static_cast<size_t>(length) <= USER_DATA_ROOM) {
        result = -2;
        decoded = static_cast<DecodedMessage *>(malloc(sizeof(DecodedMessage) + static_cast<size_t>(length)));
    }
    if (decoded) {
        Concatenation part = {};
        out->message.is_part = with_header && parse_concatenation(out->header, &part);
        out->message.csms_ref = part.csms_ref;
        out->message.total = part.total;
        out->message.index = part.index;
        out->message.length = static_cast<uint32_t>(length);
        *decoded = out->message;
        memcpy(decoded + 1, out->user_data, static_cast<size_t>(length));
        *message = decoded;
        result = 0;
    }
    free(out);
    return result;
}

uint8_t *utf8_of_septets(std::span<const uint8_t> septets, size_t *length)
{
    size_t room = 3 * septets.size() + 1;
    char *text = static_cast<char *>(malloc(room));
    int written = text ? sms_plain_text(septets.data(), septets.size(), SMS_ALPHABET_GSM, text, room) : -1;
    if (written < 0) {
        free(text);
        return nullptr;
    }
    *length = static_cast<size_t>(written);
    return reinterpret_cast<uint8_t *>(text);
}

static bool add_user_data(cJSON *object, const DecodedMessage *message)
{
    cJSON *array = cJSON_AddArrayToObject(object, "message");
    const uint8_t *data = user_data_of(message);
    for (uint32_t i = 0; array && i < message->length; i++) {
        if (!cJSON_AddItemToArray(array, cJSON_CreateNumber(data[i])))
            return false;
    }
    return array;
}

static bool add_concatenation(cJSON *object, const DecodedMessage *message)
{
    if (!message->is_part)
        return true;
    cJSON *info = cJSON_AddObjectToObject(object, "concatenation_info");
    return info && cJSON_AddNumberToObject(info, "csms_ref", message->csms_ref) &&
           cJSON_AddNumberToObject(info, "index", message->index) &&
           cJSON_AddNumberToObject(info, "total", message->total);
}

char *message_json(const DecodedMessage *message, bool indented)
{
    cJSON *object = cJSON_CreateObject();
    bool built = object && cJSON_AddNumberToObject(object, "alphabet", message->alphabet) &&
                 cJSON_AddStringToObject(object, "sender", message->sender) &&
                 cJSON_AddStringToObject(object, "date", message->date) &&
                 cJSON_AddStringToObject(object, "time", message->time) &&
                 cJSON_AddBoolToObject(object, "read", false) && add_user_data(object, message) &&
                 cJSON_AddStringToObject(object, "smsc", message->smsc) && add_concatenation(object, message) &&
                 cJSON_AddStringToObject(object, "from_toa", message->type_of_address);
    char *text = nullptr;
    if (built)
        text = indented ? cJSON_Print(object) : cJSON_PrintUnformatted(object);
    cJSON_Delete(object);
    return text;
}
