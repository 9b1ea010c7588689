#include "data_coding.h"

namespace sms {

namespace {

constexpr std::uint8_t compressed = 0x20;
constexpr std::uint8_t class_group_8_bit = 0x04;

sms_alphabet general_alphabet(std::uint8_t data_coding)
{
    if (data_coding & compressed) {
        return SMS_ALPHABET_BINARY;
    }
    switch (data_coding >> 2 & 3) {
    case 1:
        return SMS_ALPHABET_BINARY;
    case 2:
        return SMS_ALPHABET_UCS2;
    default:
        return SMS_ALPHABET_GSM;
    }
}

} // namespace

sms_alphabet alphabet_of(std::uint8_t data_coding)
{
    if (data_coding < 0x80) {
        // General coding and, alike, messages marked for automatic deletion.
        return general_alphabet(data_coding);
    }
    switch (data_coding >> 4) {
    case 0xE: // message waiting, store
        return SMS_ALPHABET_UCS2;
    case 0xF:
        return data_coding & class_group_8_bit ? SMS_ALPHABET_BINARY : SMS_ALPHABET_GSM;
    default:
        return SMS_ALPHABET_GSM;
    }
}

} // namespace sms
