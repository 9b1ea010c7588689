// Septets to characters.
#ifndef SMS_TEXT_H
#define SMS_TEXT_H

#include "user_data_header.h"
#include "utf8.h"

#include <cstdint>
#include <span>

namespace sms {

// Writes septets (one per byte) as characters of the tables that `languages` names.
void write_septets(std::span<const std::uint8_t> septets, Languages languages, Utf8Writer &writer);

} // namespace sms

#endif
