#include "timestamp.h"

#include "hexadecimal.h"

namespace sms {

namespace {

void write_triple(const std::uint8_t *octets, char separator, char *text)
{
    for (int i = 0; i < 3; ++i) {
        if (i > 0) {
            *text++ = separator;
        }
        *text++ = digit_of(octets[i]);
        *text++ = digit_of(octets[i] >> 4);
    }
    *text = 0;
}

} // namespace

void read_timestamp(std::span<const std::uint8_t, timestamp_octets> stamp, std::span<char, SMS_DATE_SIZE> date,
                    std::span<char, SMS_TIME_SIZE> time)
{
    write_triple(stamp.data(), '-', date.data());
    write_triple(stamp.data() + 3, ':', time.data());
}

} // namespace sms
