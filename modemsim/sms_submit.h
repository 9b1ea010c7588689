#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace modemsim {

/// What a network would make of a message that the host sends.
struct Submit {
    bool valid = false; ///< the others are empty otherwise
    std::string to;     ///< digits, with "+" in front of an international number
    std::string text;   ///< UTF-8; without the user-data header
    int reference = 0;  ///< of a message in several parts
    int part = 1;
    int parts = 1;
};

/// Takes an SMS-SUBMIT with service centre address apart (3GPP TS 23.040 9.2.2.2): upper-case hexadecimal text, in the
/// default alphabet or UCS2. Anything else is not valid.
Submit decode_submit(std::string_view hex);

} // namespace modemsim
