// Takes PDUs apart: reads the octets in order and fills a record, which becomes the outputs only when it is whole.

#include "address.h"
#include "data_coding.h"
#include "hexadecimal.h"
#include "septets.h"
#include "sms.h"
#include "timestamp.h"
#include "user_data_header.h"

#include <cstring>
#include <span>
#include <string_view>

namespace sms {

namespace {

// Service-centre address, then an SMS-SUBMIT, the longest of the messages.
constexpr std::size_t longest_pdu = 12 + (1 + 1 + 12 + 1 + 1 + 7 + 1 + 140);
constexpr std::size_t most_user_data_octets = 140;
constexpr std::size_t most_user_data_septets = 160;
constexpr std::size_t longest_smsc_octets = 1 + longest_address_octets;

// TS 23.040 9.2.3: bits of the first octet.
enum : std::uint8_t { type_mask = 0x03, type_submit = 0x01, type_report = 0x02, header_indicator = 0x40 };

struct Message {
    int alphabet = SMS_ALPHABET_GSM;
    char sender[SMS_SENDER_SIZE] = {};
    char date[SMS_DATE_SIZE] = {};
    char time[SMS_TIME_SIZE] = {};
    std::uint8_t user_data[SMS_USER_DATA_SIZE] = {};
    std::size_t user_data_length = 0;
    char smsc[SMS_SMSC_SIZE] = {};
    char header_text[SMS_HEADER_TEXT_SIZE] = {};
    bool with_header = false;
    std::uint8_t type_of_address = 0;
};

// Takes octets off the front; once they have run out, everything that it gives is zero or empty.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> octets) : rest(octets) {}
    std::span<const std::uint8_t> take(std::size_t count)
    {
        if (count > rest.size()) {
            failed = true;
        }
        if (failed) {
            return {};
        }
        const auto taken = rest.first(count);
        rest = rest.subspan(count);
        return taken;
    }
    std::uint8_t octet()
    {
        const auto taken = take(1);
        return taken.empty() ? 0 : taken[0];
    }
    bool ran_out() const
    {
        return failed;
    }

private:
    std::span<const std::uint8_t> rest;
    bool failed = false;
};

int read_smsc(Reader &reader, Message &message)
{
    const std::size_t length = reader.octet();
    if (reader.ran_out() || length == 0) {
        return reader.ran_out() ? SMS_ERROR_TRUNCATED : 0;
    }
    if (length > longest_smsc_octets) {
        return SMS_ERROR_ADDRESS;
    }
    const std::uint8_t type = reader.octet();
    const auto octets = reader.take(length - 1);
    return reader.ran_out() ? SMS_ERROR_TRUNCATED : read_address(type, 2 * octets.size(), octets, message.smsc);
}

int read_sender(Reader &reader, Message &message)
{
    const std::size_t semi_octets = reader.octet();
    message.type_of_address = reader.octet();
    if (semi_octets > 2 * longest_address_octets) {
        return SMS_ERROR_ADDRESS;
    }
    const auto octets = reader.take((semi_octets + 1) / 2);
    return reader.ran_out() ? SMS_ERROR_TRUNCATED
                            : read_address(message.type_of_address, semi_octets, octets, message.sender);
}

int read_stamp(Reader &reader, Message &message)
{
    const auto octets = reader.take(timestamp_octets);
    if (reader.ran_out()) {
        return SMS_ERROR_TRUNCATED;
    }
    read_timestamp(octets.first<timestamp_octets>(), message.date, message.time);
    return 0;
}

// `length` counts septets or octets, as the alphabet goes.
int read_user_data(std::span<const std::uint8_t> octets, std::size_t length, bool with_header, Message &message)
{
    std::size_t header = 0;
    if (with_header) {
        header = octets.empty() ? 1 : octets[0] + 1u;
        if (header > octets.size()) {
            return SMS_ERROR_HEADER;
        }
    }
    const bool septets = message.alphabet == SMS_ALPHABET_GSM;
    // Septets go on at the next boundary of their own, behind fill bits (9.2.3.24).
    const std::size_t first = septets ? septets_for_octets(header) : header;
    if (first > length) {
        return SMS_ERROR_HEADER;
    }
    message.user_data_length = length - first;
    if (septets) {
        unpack_septets(octets, first, std::span(message.user_data).first(message.user_data_length));
    } else if (message.user_data_length > 0) {
        std::memcpy(message.user_data, octets.data() + first, message.user_data_length);
    }
    if (with_header) {
        message.with_header = true;
        text_from_octets(octets.first(header), ' ', message.header_text);
    }
    return 0;
}

int take_user_data(Reader &reader, std::uint8_t data_coding, bool with_header, Message &message)
{
    message.alphabet = alphabet_of(data_coding);
    const std::size_t length = reader.octet();
    const bool septets = message.alphabet == SMS_ALPHABET_GSM;
    if (length > (septets ? most_user_data_septets : most_user_data_octets)) {
        return SMS_ERROR_LENGTH;
    }
    const auto octets = reader.take(septets ? octets_for_septets(length) : length);
    return reader.ran_out() ? SMS_ERROR_TRUNCATED : read_user_data(octets, length, with_header, message);
}

int read_deliver(Reader &reader, std::uint8_t first_octet, Message &message)
{
    if (const int error = read_sender(reader, message); error < 0) {
        return error;
    }
    reader.octet(); // protocol identifier
    const std::uint8_t data_coding = reader.octet();
    if (const int error = read_stamp(reader, message); error < 0) {
        return error;
    }
    return take_user_data(reader, data_coding, first_octet & header_indicator, message);
}

int read_submit(Reader &reader, std::uint8_t first_octet, Message &message)
{
    // Validity period by its format, 9.2.3.3: none, enhanced, relative, absolute.
    constexpr std::uint8_t validity_octets[] = {0, 7, 1, 7};
    reader.octet(); // message reference
    if (const int error = read_sender(reader, message); error < 0) {
        return error;
    }
    reader.octet(); // protocol identifier
    const std::uint8_t data_coding = reader.octet();
    reader.take(validity_octets[first_octet >> 3 & 3]);
    return take_user_data(reader, data_coding, first_octet & header_indicator, message);
}

int read_report(Reader &reader, Message &message)
{
    reader.octet(); // message reference
    if (const int error = read_sender(reader, message); error < 0) {
        return error;
    }
    if (const int error = read_stamp(reader, message); error < 0) {
        return error;
    }
    reader.take(timestamp_octets); // discharge time
    reader.octet();                // status
    return reader.ran_out() ? SMS_ERROR_TRUNCATED : 0;
}

int read_message(std::string_view line, Message &message)
{
    std::uint8_t octets[longest_pdu];
    const int count = octets_from_text(line, octets);
    if (count < 0) {
        return count;
    }
    const std::span<const std::uint8_t> whole(octets, static_cast<std::size_t>(count));
    Reader reader(whole);
    if (const int error = read_smsc(reader, message); error < 0) {
        return error;
    }
    const std::uint8_t first_octet = reader.octet();
    switch (first_octet & type_mask) {
    case type_submit:
        return read_submit(reader, first_octet, message);
    case type_report:
        return read_report(reader, message);
    default:
        return read_deliver(reader, first_octet, message);
    }
}

template<std::size_t size> void give(char *output, const char (&text)[size])
{
    if (output) {
        std::memcpy(output, text, size);
    }
}

void give(int *output, int value)
{
    if (output) {
        *output = value;
    }
}

} // namespace

} // namespace sms

int splitpdu(const char *pdu, const char *mode, int *alphabet, char *sender, char *date, char *time,
             unsigned char *user_data, char *smsc, int *with_header, char *header_text, char *, int *unused_1,
             int *unused_2, char *type_of_address, int *unused_3, int *unused_4, char *, int *unused_5, int)
{
    using namespace sms;
    int result = SMS_ERROR_ARGUMENT;
    Message message;
    if (pdu && mode && std::string_view(mode) == "old") {
        result = read_message(pdu, message);
    }
    char type[SMS_TYPE_OF_ADDRESS_SIZE] = {};
    if (result < 0) {
        message = {};
        message.alphabet = 0;
    } else {
        result = static_cast<int>(message.user_data_length);
        const std::string_view name = type_name(message.type_of_address);
        std::memcpy(type, name.data(), name.size());
    }
    give(alphabet, message.alphabet);
    give(sender, message.sender);
    give(date, message.date);
    give(time, message.time);
    if (user_data) {
        std::memcpy(user_data, message.user_data, sizeof message.user_data);
    }
    give(smsc, message.smsc);
    give(with_header, message.with_header);
    give(header_text, message.header_text);
    give(type_of_address, type);
    for (int *unused : {unused_1, unused_2, unused_3, unused_4, unused_5}) {
        give(unused, 0);
    }
    return result;
}
