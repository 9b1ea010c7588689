// Calls of the SMS library with buffers of exactly the capacities that its header states.
#ifndef CELMUX_TEST_SMS_OUTPUTS_H
#define CELMUX_TEST_SMS_OUTPUTS_H

#include "sms.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

struct Outputs {
    int result;
    int alphabet;
    int with_header;
    std::string sender, date, time, smsc, header_text, type_of_address;
    std::vector<unsigned char> user_data;
    bool all_zero; // every byte of every output
};

// On the heap, each block on its own, so that the address sanitizer sees one byte too far.
struct ExactBuffer {
    explicit ExactBuffer(std::size_t length) : size(length), bytes(std::make_unique<char[]>(length))
    {
        std::fill_n(bytes.get(), size, '\x55');
    }
    bool all_zero() const
    {
        return std::all_of(bytes.get(), bytes.get() + size, [](char byte) { return byte == 0; });
    }
    std::size_t size;
    std::unique_ptr<char[]> bytes;
};

inline Outputs split(const std::string &pdu)
{
    ExactBuffer sender(SMS_SENDER_SIZE), date(SMS_DATE_SIZE), time(SMS_TIME_SIZE), smsc(SMS_SMSC_SIZE);
    ExactBuffer data(SMS_USER_DATA_SIZE), header(SMS_HEADER_TEXT_SIZE), type(SMS_TYPE_OF_ADDRESS_SIZE);
    auto *octets = reinterpret_cast<unsigned char *>(data.bytes.get());
    Outputs out{};
    int unused[5] = {7, 7, 7, 7, 7};
    out.alphabet = out.with_header = 7;
    out.result = splitpdu(pdu.c_str(), "old", &out.alphabet, sender.bytes.get(), date.bytes.get(), time.bytes.get(),
                          octets, smsc.bytes.get(), &out.with_header, header.bytes.get(), nullptr, &unused[0],
                          &unused[1], type.bytes.get(), &unused[2], &unused[3], nullptr, &unused[4], 1);
    out.sender = sender.bytes.get();
    out.date = date.bytes.get();
    out.time = time.bytes.get();
    out.smsc = smsc.bytes.get();
    out.header_text = header.bytes.get();
    out.type_of_address = type.bytes.get();
    out.user_data.assign(octets, octets + std::max(out.result, 0));
    out.all_zero = out.alphabet == 0 && out.with_header == 0 &&
                   std::all_of(unused, unused + 5, [](int value) { return value == 0; });
    for (const ExactBuffer *buffer : {&sender, &date, &time, &smsc, &data, &header, &type}) {
        out.all_zero = out.all_zero && buffer->all_zero();
    }
    return out;
}

inline std::string text_of(const std::vector<unsigned char> &data, int alphabet, const std::string &header_text = "")
{
    std::vector<char> text(3 * data.size() + 1);
    const int length = sms_text(data.data(), data.size(), alphabet, header_text.c_str(), text.data(), text.size());
    if (header_text.empty()) { // then it needs no national language tables
        std::vector<char> plain(text.size());
        EXPECT_EQ(sms_plain_text(data.data(), data.size(), alphabet, plain.data(), plain.size()), length);
        EXPECT_STREQ(plain.data(), text.data());
    }
    return length < 0 ? "error " + std::to_string(length) : std::string(text.data(), static_cast<std::size_t>(length));
}

inline std::string text_of(const Outputs &out)
{
    return text_of(out.user_data, out.alphabet, out.header_text);
}

inline std::string hexadecimal(const std::vector<unsigned char> &bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

struct Parts {
    int error;
    std::vector<sms_pdu> pdus;
};

inline Parts encode(const std::string &destination, int type, const std::string &text)
{
    sms_pdu *head = nullptr;
    Parts parts{};
    parts.error = encode_pdu(destination.c_str(), type, text.data(), static_cast<int>(text.size()), &head, 0);
    for (const sms_pdu *element = head; element; element = element->next) {
        parts.pdus.push_back(*element);
    }
    free_list(&head);
    int alphabet = 0;
    const int count = sms_parts(destination.c_str(), type, text.data(), static_cast<int>(text.size()), &alphabet);
    EXPECT_EQ(count, parts.error ? parts.error : static_cast<int>(parts.pdus.size()));
    if (!parts.pdus.empty()) {
        EXPECT_EQ(alphabet, parts.pdus[0].alphabet);
    }
    return parts;
}

// The parts' own user data joined and turned back into UTF-8.
inline std::string joined_text(const Parts &parts)
{
    std::vector<unsigned char> data;
    for (const sms_pdu &part : parts.pdus) {
        const Outputs out = split(part.pdu);
        data.insert(data.end(), out.user_data.begin(), out.user_data.end());
    }
    return text_of(data, parts.pdus.at(0).alphabet);
}

#endif
