// The user-data header, TS 23.040 9.2.3.24.
#ifndef SMS_USER_DATA_HEADER_H
#define SMS_USER_DATA_HEADER_H

#include "national_tables.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sms {

constexpr std::size_t longest_header = 140;

constexpr std::uint8_t element_concatenation_8_bit = 0x00;
constexpr std::uint8_t element_single_shift = 0x24;
constexpr std::uint8_t element_locking_shift = 0x25;

struct Languages {
    Language locking = 0;
    Language single_shift = 0;
};

// The languages that a header in text form ("03 24 01 01") names; the last element of a kind counts. A header whose
// elements do not add up to its length names none.
Languages languages_of(std::string_view header_text);

} // namespace sms

#endif
