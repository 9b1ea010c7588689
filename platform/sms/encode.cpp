// Builds SMS-SUBMIT PDUs: one pass over the text chooses the alphabet and counts, one more fills each part.

#include "address.h"
#include "data_coding.h"
#include "default_alphabet.h"
#include "hexadecimal.h"
#include "septets.h"
#include "sms.h"
#include "user_data_header.h"
#include "utf8.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>
#include <sys/random.h>

namespace sms {

namespace {

// TS 23.040 9.2.3.12.1: 144 to 167 count half hours beyond twelve hours.
constexpr std::uint8_t validity_one_day = 143 + (24 - 12) * 2;

enum : std::uint8_t { first_octet_submit = 0x01, first_octet_relative_validity = 0x10, first_octet_header = 0x40 };

constexpr std::size_t concatenation_header_octets = 6;
constexpr std::size_t longest_submit = (SMS_PDU_TEXT_SIZE - 1) / 2;

// How much of an alphabet one PDU takes, in septets or UCS2 units.
struct Room {
    std::size_t alone;
    std::size_t part;
};

constexpr Room room_of(int alphabet)
{
    return alphabet == SMS_ALPHABET_GSM ? Room{160, 153} : Room{70, 67};
}

struct Message {
    Number number;
    std::uint8_t type_of_address;
    int alphabet;
    std::string_view text;
};

// What one PDU carries: a septet a byte, or big-endian units.
struct Units {
    std::uint8_t bytes[160];
    std::size_t count; // of septets or units
};

std::size_t units_for(char32_t character, int alphabet)
{
    if (alphabet == SMS_ALPHABET_GSM) {
        return septet_of(character) & extended ? 2 : 1;
    }
    return character > 0xFFFF ? 2 : 1;
}

void append_unit(char32_t unit, Units &units)
{
    units.bytes[2 * units.count] = static_cast<std::uint8_t>(unit >> 8);
    units.bytes[2 * units.count + 1] = static_cast<std::uint8_t>(unit);
    ++units.count;
}

void append(char32_t character, int alphabet, Units &units)
{
    if (alphabet == SMS_ALPHABET_GSM) {
        const int septet = septet_of(character);
        if (septet & extended) {
            units.bytes[units.count++] = escape_septet;
        }
        units.bytes[units.count++] = static_cast<std::uint8_t>(septet & ~extended);
    } else if (character > 0xFFFF) {
        append_unit(0xD800 + ((character - 0x10000) >> 10), units);
        append_unit(0xDC00 + ((character - 0x10000) & 0x3FF), units);
    } else {
        append_unit(character, units);
    }
}

// Takes whole characters off `text` as long as there is room for them.
void take_units(std::string_view &text, int alphabet, std::size_t room, Units &units)
{
    units.count = 0;
    while (!text.empty()) {
        std::string_view rest = text;
        const char32_t character = take_character(rest);
        if (units.count + units_for(character, alphabet) > room) {
            return;
        }
        append(character, alphabet, units);
        text = rest;
    }
}

int choose_alphabet(std::string_view text, int &alphabet)
{
    alphabet = SMS_ALPHABET_GSM;
    while (!text.empty()) {
        const char32_t character = take_character(text);
        if (character == no_character) {
            return SMS_ERROR_TEXT;
        }
        if (septet_of(character) < 0) {
            alphabet = SMS_ALPHABET_UCS2;
        }
    }
    return 0;
}

// The number of PDUs that a text takes, or SMS_ERROR_TOO_LONG.
int count_parts(std::string_view text, int alphabet)
{
    Units units;
    std::string_view rest = text;
    take_units(rest, alphabet, room_of(alphabet).alone, units);
    if (rest.empty()) {
        return 1;
    }
    int parts = 0;
    for (rest = text; !rest.empty(); ++parts) {
        if (parts == SMS_MOST_PARTS) {
            return SMS_ERROR_TOO_LONG;
        }
        take_units(rest, alphabet, room_of(alphabet).part, units);
    }
    return parts;
}

// Counts on from a random start, so that neither the next message nor the first one behind a restart joins itself to
// the parts of another. The bit above the references marks a counter that has its start.
std::uint8_t next_reference()
{
    static std::atomic<std::uint32_t> counter{0};
    constexpr std::uint32_t started = 0x100;
    if (counter.load(std::memory_order_relaxed) == 0) {
        std::uint8_t start = 0;
        if (getrandom(&start, sizeof start, GRND_NONBLOCK) != sizeof start) {
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            start = static_cast<std::uint8_t>(now.tv_nsec >> 10 ^ now.tv_sec);
        }
        std::uint32_t none = 0;
        counter.compare_exchange_strong(none, started | start, std::memory_order_relaxed);
    }
    return static_cast<std::uint8_t>(counter.fetch_add(1, std::memory_order_relaxed));
}

struct Place {
    std::uint8_t reference;
    std::uint8_t parts;
    std::uint8_t index;
};

// Appends length and user data. Returns the octets written.
std::size_t write_user_data(const Units &units, int alphabet, const Place &place, std::span<std::uint8_t> octets)
{
    std::size_t header = 0;
    const std::span data = octets.subspan(1);
    if (place.parts > 1) {
        const std::uint8_t element[concatenation_header_octets] = {
            concatenation_header_octets - 1, element_concatenation_8_bit, 3, place.reference, place.parts, place.index};
        std::memcpy(data.data(), element, sizeof element);
        header = sizeof element;
    }
    if (alphabet != SMS_ALPHABET_GSM) {
        std::memcpy(data.data() + header, units.bytes, 2 * units.count);
        octets[0] = static_cast<std::uint8_t>(header + 2 * units.count);
        return 1u + octets[0];
    }
    const std::size_t first = septets_for_octets(header);
    pack_septets(std::span(units.bytes).first(units.count), first, data);
    octets[0] = static_cast<std::uint8_t>(first + units.count);
    return 1 + octets_for_septets(octets[0]);
}

// Writes a whole PDU. Returns its octets.
std::size_t write_submit(const Message &message, const Units &units, const Place &place,
                         std::span<std::uint8_t, longest_submit> octets)
{
    std::memset(octets.data(), 0, octets.size());
    std::size_t at = 0;
    octets[at++] = 0; // the modem's own service centre
    octets[at++] = static_cast<std::uint8_t>(first_octet_submit | first_octet_relative_validity |
                                             (place.parts > 1 ? first_octet_header : 0));
    octets[at++] = 0; // the modem numbers the message
    octets[at++] = static_cast<std::uint8_t>(message.number.length);
    octets[at++] = message.type_of_address;
    at += write_number(message.number, octets.subspan(at).first<longest_address_octets>());
    octets[at++] = 0; // no protocol but that of short messages
    octets[at++] = message.alphabet == SMS_ALPHABET_GSM ? data_coding_default : data_coding_ucs2;
    octets[at++] = validity_one_day;
    return at + write_user_data(units, message.alphabet, place, octets.subspan(at));
}

sms_pdu *new_element(const Message &message, const Units &units, const Place &place)
{
    auto *element = static_cast<sms_pdu *>(std::malloc(sizeof(sms_pdu)));
    if (!element) {
        return nullptr;
    }
    std::uint8_t octets[longest_submit];
    const std::size_t count = write_submit(message, units, place, octets);
    element->alphabet = message.alphabet;
    text_from_octets(std::span(octets).first(count), 0, element->pdu);
    element->number_type = static_cast<int>(number_type(message.type_of_address));
    std::memcpy(element->number, message.number.digits, sizeof element->number);
    element->length = static_cast<int>(count - 1);
    element->next = nullptr;
    return element;
}

int choose_type(int type, const Number &number, std::uint8_t &type_of_address)
{
    if (type < SMS_NUMBER_BY_PLUS || type > SMS_NUMBER_NATIONAL) {
        return SMS_ERROR_ARGUMENT;
    }
    const int chosen = type == SMS_NUMBER_BY_PLUS && number.plus ? SMS_NUMBER_INTERNATIONAL : type;
    type_of_address = static_cast<std::uint8_t>(type_of_address_number | chosen << 4);
    return 0;
}

// Takes what is to be sent; its text stays where it is. Returns the number of PDUs, or an error.
int plan(const char *destination, int type, const char *text, int text_length, Message &message)
{
    if (!destination || !text || text_length < 0) {
        return SMS_ERROR_ARGUMENT;
    }
    message.text = {text, static_cast<std::size_t>(text_length)};
    int error = parse_number(destination, message.number);
    if (error == 0) {
        error = choose_type(type, message.number, message.type_of_address);
    }
    if (error == 0) {
        error = choose_alphabet(message.text, message.alphabet);
    }
    return error == 0 ? count_parts(message.text, message.alphabet) : error;
}

int build_list(Message &message, int parts, sms_pdu **head)
{
    const Room room = room_of(message.alphabet);
    Place place{0, static_cast<std::uint8_t>(parts), 1};
    if (parts > 1) {
        place.reference = next_reference();
    }
    sms_pdu **end = head;
    for (int i = 0; i < parts; ++i, ++place.index) {
        Units units;
        take_units(message.text, message.alphabet, parts > 1 ? room.part : room.alone, units);
        *end = new_element(message, units, place);
        if (!*end) {
            free_list(head);
            return SMS_ERROR_MEMORY;
        }
        end = &(*end)->next;
    }
    return 0;
}

} // namespace

} // namespace sms

int encode_pdu(const char *destination, int type, const char *text, int text_length, struct sms_pdu **head, int)
{
    if (!head) {
        return SMS_ERROR_ARGUMENT;
    }
    *head = nullptr;
    sms::Message message{};
    const int parts = sms::plan(destination, type, text, text_length, message);
    return parts < 0 ? parts : sms::build_list(message, parts, head);
}

int sms_parts(const char *destination, int type, const char *text, int text_length, int *alphabet)
{
    sms::Message message{};
    const int parts = sms::plan(destination, type, text, text_length, message);
    *alphabet = message.alphabet;
    return parts;
}

void free_list(struct sms_pdu **head)
{
    if (!head) {
        return;
    }
    while (*head) {
        sms_pdu *next = (*head)->next;
        std::free(*head);
        *head = next;
    }
}
