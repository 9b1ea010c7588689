// SMS PDUs as the modem shows them, taken apart by the PDU library.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include <sms.h>

// A received message before it is stored. Heap memory with `length` bytes of user data behind it.
struct DecodedMessage {
    int alphabet; // as the library reports it, but UTF-8 for a text in national language tables
    char sender[SMS_SENDER_SIZE];
    char date[SMS_DATE_SIZE];
    char time[SMS_TIME_SIZE];
    char smsc[SMS_SMSC_SIZE];
    char type_of_address[SMS_TYPE_OF_ADDRESS_SIZE];
    bool is_part; // one of `total` parts of a long message, `index` from 1 on
    uint16_t csms_ref;
    uint8_t total;
    uint8_t index;
    uint32_t length;
};

inline const uint8_t *user_data_of(const DecodedMessage *message)
{
    return reinterpret_cast<const uint8_t *>(message + 1);
}

struct Concatenation {
    uint16_t csms_ref;
    uint8_t total;
    uint8_t index;
};

// Finds the concatenation element (3GPP TS 23.040 9.2.3.24.1 and .8) in a user-data header given as "05 00 03 2A 03
// 01"; the last valid one counts. False when there is none with a part number from 1 to the total.
bool parse_concatenation(std::string_view header, Concatenation *found);

// The part of a text in the default alphabet as UTF-8: heap memory with *length bytes, freed by the caller, or null
// without memory.
uint8_t *utf8_of_septets(std::span<const uint8_t> septets, size_t *length);

// Takes one PDU line apart. 0 with *message to be freed by the caller, -1 when the line is no PDU, -2 without memory.
int decode_message(std::string_view line, DecodedMessage **message);

// The message as JSON text, indented or compact; heap text to be freed, null without memory.
char *message_json(const DecodedMessage *message, bool indented);
