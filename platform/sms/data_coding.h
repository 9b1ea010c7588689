// The data coding scheme, TS 23.038 4.
#ifndef SMS_DATA_CODING_H
#define SMS_DATA_CODING_H

#include "sms.h"

#include <cstdint>

namespace sms {

constexpr std::uint8_t data_coding_default = 0x00;
constexpr std::uint8_t data_coding_ucs2 = 0x08;

// How user data is to be read: as septets, octets or UCS2 units. Compressed data (TS 23.042) counts in octets and
// cannot be read as anything else, reserved codings are the default alphabet.
sms_alphabet alphabet_of(std::uint8_t data_coding);

} // namespace sms

#endif
