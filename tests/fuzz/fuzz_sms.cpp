// libFuzzer target: the input is a PDU as octets, as a line of text, or user data with a header in text form.
#include "sms.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

void require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

// Sequences must be whole and no longer than they need be; enough to keep JSON and terminals valid.
void require_utf8(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size()) {
        const auto first = static_cast<unsigned char>(text[i]);
        require(first < 0x80 || (first >= 0xC2 && first <= 0xF4));
        const std::size_t count = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
        require(i + count <= text.size());
        for (std::size_t k = 1; k < count; ++k) {
            require((static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80);
        }
        i += count;
    }
}

void convert(const unsigned char *data, std::size_t length, int alphabet, const char *header, std::size_t room)
{
    const auto text = std::make_unique<char[]>(room);
    const int written = sms_text(data, length, alphabet, header, text.get(), room);
    require(std::strlen(text.get()) < room);
    if (written >= 0) {
        require(static_cast<std::size_t>(written) < room);
        require_utf8({text.get(), static_cast<std::size_t>(written)});
    } else {
        require(text[0] == 0);
    }
}

void split(const std::string &line)
{
    const auto sender = std::make_unique<char[]>(SMS_SENDER_SIZE);
    const auto date = std::make_unique<char[]>(SMS_DATE_SIZE);
    const auto time = std::make_unique<char[]>(SMS_TIME_SIZE);
    const auto data = std::make_unique<unsigned char[]>(SMS_USER_DATA_SIZE);
    const auto smsc = std::make_unique<char[]>(SMS_SMSC_SIZE);
    const auto header = std::make_unique<char[]>(SMS_HEADER_TEXT_SIZE);
    const auto type = std::make_unique<char[]>(SMS_TYPE_OF_ADDRESS_SIZE);
    int alphabet = 0;
    int with_header = 0;
    int unused[5];
    const int length = splitpdu(line.c_str(), "old", &alphabet, sender.get(), date.get(), time.get(), data.get(),
                                smsc.get(), &with_header, header.get(), nullptr, &unused[0], &unused[1], type.get(),
                                &unused[2], &unused[3], nullptr, &unused[4], 1);
    require(length <= SMS_USER_DATA_SIZE);
    require_utf8(sender.get());
    require_utf8(smsc.get());
    if (length < 0) {
        require(sender[0] == 0 && date[0] == 0 && header[0] == 0 && type[0] == 0);
        return;
    }
    require(with_header == (header[0] != 0));
    convert(data.get(), static_cast<std::size_t>(length), alphabet, header.get(), SMS_TEXT_SIZE);
}

void send(const std::string &destination, std::string_view text)
{
    sms_pdu *head = nullptr;
    const int error = encode_pdu(destination.c_str(), 0, text.data(), static_cast<int>(text.size()), &head, 0);
    require((error == 0) == (head != nullptr));
    for (const sms_pdu *element = head; element; element = element->next) {
        split(element->pdu);
    }
    free_list(&head);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    if (data[0] % 4 == 0) {
        std::string line;
        for (std::size_t i = 1; i < size; ++i) {
            line += "0123456789abcdef"[data[i] >> 4];
            line += "0123456789ABCDEF"[data[i] & 0x0F];
        }
        split(line);
    } else if (data[0] % 4 == 1) {
        split(rest);
    } else if (data[0] % 4 == 2) {
        const std::size_t end = rest.find('\n');
        const std::string header = rest.substr(0, end);
        const std::string user_data = end == std::string::npos ? "" : rest.substr(end + 1);
        const auto *octets = reinterpret_cast<const unsigned char *>(user_data.data());
        const auto exact = std::make_unique<unsigned char[]>(user_data.size());
        std::memcpy(exact.get(), octets, user_data.size());
        for (int alphabet = -2; alphabet <= 4; ++alphabet) {
            convert(exact.get(), user_data.size(), alphabet, header.c_str(), 3 * user_data.size() + 1);
            convert(exact.get(), user_data.size(), alphabet, header.c_str(), 1 + user_data.size() / 2);
        }
    } else {
        const std::size_t end = rest.find('\n');
        send(rest.substr(0, end), end == std::string::npos ? "" : std::string_view(rest).substr(end + 1));
    }
    return 0;
}
