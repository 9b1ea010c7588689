#include "septets.h"

namespace sms {

void unpack_septets(std::span<const std::uint8_t> octets, std::size_t first, std::span<std::uint8_t> septets)
{
    std::size_t bit = first * 7;
    for (std::uint8_t &septet : septets) {
        const std::size_t place = bit / 8;
        const unsigned shift = bit % 8;
        unsigned value = static_cast<unsigned>(octets[place]) >> shift;
        if (shift > 1) {
            value |= static_cast<unsigned>(octets[place + 1]) << (8 - shift);
        }
        septet = value & 0x7F;
        bit += 7;
    }
}

void pack_septets(std::span<const std::uint8_t> septets, std::size_t first, std::span<std::uint8_t> octets)
{
    std::size_t bit = first * 7;
    for (const std::uint8_t septet : septets) {
        const std::size_t place = bit / 8;
        const unsigned shift = bit % 8;
        octets[place] = static_cast<std::uint8_t>(octets[place] | septet << shift);
        if (shift > 1) {
            octets[place + 1] = static_cast<std::uint8_t>(septet >> (8 - shift));
        }
        bit += 7;
    }
}

} // namespace sms
