#include "sms.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

// A whole part of a long message, 153 septets behind its header.
const char gsm_pdu[] =
    "07911356131313F64004850120390011609232239180A006080400100201D7327BFD6EB340E2321BF46E83EA7790F59D1E97DBE1341B442F83"
    "C465763D3DA797E56537C81D0ECB41AB59CC1693C16031D96C064241E5656838AF03A96230982A269BCD462917C8FA4E8FCBED709A0D7ABBE9"
    "F6B0FB5C7683D27350984D4FABC9A0B33C4C4FCF5D20EBFB2D079DCB62793DBD06D9C36E50FB2D4E97D9A0B49B5E96BBCB";
const char ucs2_pdu[] = "0891947122575555F0040C919471103254760018423051906235400E041D043E0447044C002000310038";

int split(const char *pdu, int *alphabet, unsigned char *data, char *header)
{
    char sender[SMS_SENDER_SIZE];
    char date[SMS_DATE_SIZE];
    char time[SMS_TIME_SIZE];
    char smsc[SMS_SMSC_SIZE];
    char type[SMS_TYPE_OF_ADDRESS_SIZE];
    int with_header = 0;
    return splitpdu(pdu, "old", alphabet, sender, date, time, data, smsc, &with_header, header, nullptr, nullptr,
                    nullptr, type, nullptr, nullptr, nullptr, nullptr, 1);
}

void sms_decode(benchmark::State &state, const char *pdu)
{
    unsigned char data[SMS_USER_DATA_SIZE];
    char header[SMS_HEADER_TEXT_SIZE];
    int alphabet = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(split(pdu, &alphabet, data, header));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(sms_decode, gsm_160_septets, gsm_pdu);
BENCHMARK_CAPTURE(sms_decode, ucs2_7_units, ucs2_pdu);

void sms_to_text(benchmark::State &state)
{
    unsigned char data[SMS_USER_DATA_SIZE];
    char header[SMS_HEADER_TEXT_SIZE];
    char text[SMS_TEXT_SIZE];
    int alphabet = 0;
    const int length = split(gsm_pdu, &alphabet, data, header);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sms_text(data, static_cast<std::size_t>(length), alphabet, header, text, sizeof text));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(sms_to_text);

void sms_encode(benchmark::State &state, const std::string &text)
{
    for (auto _ : state) {
        sms_pdu *head = nullptr;
        benchmark::DoNotOptimize(encode_pdu("+491701234567", 0, text.data(), static_cast<int>(text.size()), &head, 0));
        free_list(&head);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(sms_encode, gsm_20_septets, std::string(20, 'x'));
BENCHMARK_CAPTURE(sms_encode, gsm_160_septets, std::string(160, 'x'));
BENCHMARK_CAPTURE(sms_encode, gsm_11_parts, std::string(11 * 153, 'x'));
BENCHMARK_CAPTURE(sms_encode, ucs2_8_units, std::string("Ночь 18!"));

} // namespace
