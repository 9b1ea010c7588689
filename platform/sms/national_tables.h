// The national language tables, TS 23.038 annex A.
#ifndef SMS_NATIONAL_TABLES_H
#define SMS_NATIONAL_TABLES_H

#include <cstdint>

namespace sms {

// The national language identifier of TS 23.038 6.2.1.2.4: 0 is none, a reserved one means the default tables.
using Language = std::uint8_t;

// The character of a language's locking shift table; empty_position for the escape. `septet` is below 0x80.
char16_t locking_character(Language language, std::uint8_t septet);

// The character that a language's single shift table has behind the escape, or empty_position.
char16_t single_shift_character(Language language, std::uint8_t septet);

} // namespace sms

#endif
