// The service-centre time stamp, TS 23.040 9.2.3.11.
#ifndef SMS_TIMESTAMP_H
#define SMS_TIMESTAMP_H

#include "sms.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace sms {

constexpr std::size_t timestamp_octets = 7;

// Writes "YY-MM-DD" and "HH:MM:SS" from the stamp's digits as they stand. The stamp is in local time, so its zone
// changes neither. A semi-octet that is no decimal digit is written as a hexadecimal one.
void read_timestamp(std::span<const std::uint8_t, timestamp_octets> stamp, std::span<char, SMS_DATE_SIZE> date,
                    std::span<char, SMS_TIME_SIZE> time);

} // namespace sms

#endif
