// Septets packed into octets, TS 23.038 6.1.2.1.
#ifndef SMS_SEPTETS_H
#define SMS_SEPTETS_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace sms {

constexpr std::size_t octets_for_septets(std::size_t septets)
{
    return (septets * 7 + 7) / 8;
}

constexpr std::size_t septets_for_octets(std::size_t octets)
{
    return (octets * 8 + 6) / 7;
}

// Reads as many septets as `septets` has elements, from the septet numbered `first` on. `octets` must hold them all.
void unpack_septets(std::span<const std::uint8_t> octets, std::size_t first, std::span<std::uint8_t> septets);

// Writes septets at the place of the septet numbered `first`. `octets` must hold them all, and be zero from there on.
void pack_septets(std::span<const std::uint8_t> septets, std::size_t first, std::span<std::uint8_t> octets);

} // namespace sms

#endif
