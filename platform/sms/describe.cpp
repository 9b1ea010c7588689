#include "sms.h"

#include <cstdio>
#include <cstring>

namespace {

const char *alphabet_name(int alphabet)
{
    switch (alphabet) {
    case SMS_ALPHABET_GSM:
        return "GSM 7-bit";
    case SMS_ALPHABET_ISO:
        return "ISO 8859-1";
    case SMS_ALPHABET_BINARY:
        return "8-bit data";
    case SMS_ALPHABET_UCS2:
        return "UCS2";
    case SMS_ALPHABET_UTF8:
        return "UTF-8";
    default:
        return "unknown";
    }
}

const char *number_type_name(int type)
{
    switch (type) {
    case SMS_NUMBER_INTERNATIONAL:
        return "international";
    case SMS_NUMBER_NATIONAL:
        return "national";
    default:
        return "unknown";
    }
}

void print_text(const char *name, const char *text, size_t size)
{
    std::printf("%s: ", name);
    for (const char *end = text + strnlen(text, size); text < end; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte >= 0x7F) {
            std::printf("\\x%02X", byte);
        } else {
            std::putchar(byte);
        }
    }
    std::putchar('\n');
}

} // namespace

void print_sms_pdu(const struct sms_pdu *element)
{
    if (!element) {
        std::puts("no PDU");
        return;
    }
    std::printf("Alphabet: %d (%s)\n", element->alphabet, alphabet_name(element->alphabet));
    print_text("PDU", element->pdu, sizeof element->pdu);
    std::printf("Number type: %d (%s)\n", element->number_type, number_type_name(element->number_type));
    print_text("Number", element->number, sizeof element->number);
    std::printf("Length: %d\n", element->length);
}
