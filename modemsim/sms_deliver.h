#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

/// A short message on its way to the modem.
struct Deliver {
    std::string from; ///< digits with an optional "+", otherwise an alphanumeric name of at most 11 characters
    std::string text; ///< UTF-8; what is none becomes "?"
    std::string centre = "+8613800100500";
    std::string time = "24-03-15 09:26:53"; ///< "YY-MM-DD hh:mm:ss", sent with time zone 0
    bool ucs2 = false;                      ///< also where the default alphabet would do
    bool wide_reference = false;            ///< 16 bits instead of 8
    int reference = 1;                      ///< of a message in several parts
};

/// The SMS-DELIVER PDUs of a message (3GPP TS 23.040 9.2.2.1, 9.2.3.24.1 and 9.2.3.24.8) in order, each as upper-case
/// hexadecimal text with the service centre address in front. Throws std::invalid_argument for a sender or a time that
/// is none and for a text beyond 255 parts.
std::vector<std::string> deliver_pdus(const Deliver &message);

/// The septets of a text in the default alphabet with its extension table (3GPP TS 23.038 6.2.1); empty when a
/// character is in neither.
std::optional<std::vector<uint8_t>> default_alphabet(std::string_view utf8);

/// The other way: the Unicode code points of septets in the default alphabet. An unknown escape becomes a blank.
std::vector<uint32_t> default_alphabet_points(const std::vector<uint8_t> &septets);

/// Septets packed into octets behind `fill` unused bits (3GPP TS 23.038 6.1.2.1).
std::vector<uint8_t> pack_septets(const std::vector<uint8_t> &septets, unsigned fill);

/// True when `hex` is an SMS-DELIVER with a whole service centre address, so far that a modem would store it.
bool is_deliver_pdu(std::string_view hex);

} // namespace modemsim
