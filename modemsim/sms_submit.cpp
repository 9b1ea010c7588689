#include "sms_submit.h"

#include "sms_deliver.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <vector>

namespace modemsim {

namespace {

using Octets = std::vector<uint8_t>;

std::optional<Octets> octets_of(std::string_view hex)
{
    Octets octets;
    if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789ABCDEF") != hex.npos)
        return std::nullopt;
    for (size_t i = 0; i < hex.size(); i += 2)
        octets.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    return octets;
}

/// Takes octets off the front; throws std::out_of_range behind the end.
struct Reader {
    const Octets &octets;
    size_t at = 0;

    uint8_t one()
    {
        return octets.at(at++);
    }
    Octets several(size_t count)
    {
        if (count > octets.size() - at)
            throw std::out_of_range("PDU too short");
        at += count;
        return {octets.begin() + static_cast<std::ptrdiff_t>(at - count),
                octets.begin() + static_cast<std::ptrdiff_t>(at)};
    }
};

std::string address(Reader &reader)
{
    size_t digits = reader.one();
    std::string number = reader.one() == 0x91 ? "+" : "";
    for (uint8_t octet : reader.several((digits + 1) / 2)) {
        number += "0123456789*#abc"[octet & 0x0F];
        if (octet >> 4 != 0x0F)
            number += "0123456789*#abc"[octet >> 4];
    }
    return number;
}

void append_utf8(std::string &text, uint32_t point)
{
    auto add = [&](uint32_t byte) { text += static_cast<char>(byte); };
    if (point < 0x80) {
        add(point);
    } else if (point < 0x800) {
        add(0xC0 | point >> 6);
        add(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        add(0xE0 | point >> 12);
        add(0x80 | (point >> 6 & 0x3F));
        add(0x80 | (point & 0x3F));
    } else {
        add(0xF0 | point >> 18);
        add(0x80 | (point >> 12 & 0x3F));
        add(0x80 | (point >> 6 & 0x3F));
        add(0x80 | (point & 0x3F));
    }
}

/// A surrogate without its pair becomes "?".
std::string ucs2_text(const Octets &data)
{
    auto unit_at = [&](size_t at) {
        return at + 1 < data.size() ? static_cast<uint32_t>(data[at]) << 8 | data[at + 1] : 0;
    };
    std::string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        uint32_t unit = unit_at(i), next = unit_at(i + 2);
        if (unit >> 10 == 0x36 && next >> 10 == 0x37) {
            append_utf8(text, 0x10000 + ((unit & 0x3FF) << 10) + (next & 0x3FF));
            i += 2;
        } else {
            append_utf8(text, unit >> 11 == 0x1B ? '?' : unit);
        }
    }
    return text;
}

std::string default_alphabet_text(const Octets &data, size_t septets, size_t skipped)
{
    std::vector<uint8_t> values;
    for (size_t i = skipped; i < septets; i++) {
        size_t bit = i * 7;
        unsigned pair = data.at(bit / 8) | (bit / 8 + 1 < data.size() ? data[bit / 8 + 1] << 8 : 0);
        values.push_back(pair >> bit % 8 & 0x7F);
    }
    std::string text;
    for (uint32_t point : default_alphabet_points(values))
        append_utf8(text, point);
    return text;
}

/// Finds the concatenation element (3GPP TS 23.040 9.2.3.24.1 and 9.2.3.24.8) of a header without its length octet.
void take_header(const Octets &header, Submit &submit)
{
    for (Reader reader{header}; reader.at < header.size();) {
        uint8_t name = reader.one();
        Octets value = reader.several(reader.one());
        size_t wide = name == 0x08 ? 1 : 0;
        if ((name != 0x00 && name != 0x08) || value.size() != 3 + wide)
            continue;
        submit.reference = wide ? value[0] << 8 | value[1] : value[0];
        submit.parts = value[1 + wide];
        submit.part = value[2 + wide];
    }
}

Submit decode(const Octets &octets)
{
    Submit submit;
    Reader reader{octets};
    (void)reader.several(reader.one()); // service centre
    uint8_t first = reader.one();
    (void)reader.one(); // message reference
    submit.to = address(reader);
    (void)reader.one(); // protocol identifier
    uint8_t coding = reader.one();
    constexpr size_t validity_octets[] = {0, 7, 1, 7};
    (void)reader.several(validity_octets[first >> 3 & 3]);
    size_t length = reader.one();
    bool septets = coding == 0x00;
    if ((first & 3) != 1 || (!septets && coding != 0x08))
        throw std::invalid_argument("no SMS-SUBMIT in a known alphabet");
    Octets data = reader.several(septets ? (length * 7 + 7) / 8 : length);
    size_t header = first & 0x40 ? data.at(0) + 1U : 0;
    if (header > 0) {
        Reader inside{data, 1};
        take_header(inside.several(header - 1), submit);
    }
    submit.text = septets ? default_alphabet_text(data, length, (header * 8 + 6) / 7)
                          : ucs2_text({data.begin() + static_cast<std::ptrdiff_t>(header), data.end()});
    submit.valid = reader.at == octets.size();
    return submit;
}

} // namespace

Submit decode_submit(std::string_view hex)
{
    std::optional<Octets> octets = octets_of(hex);
    if (!octets)
        return {};
    try {
        Submit submit = decode(*octets);
        return submit.valid ? submit : Submit();
    } catch (const std::logic_error &) {
        return {};
    }
}

} // namespace modemsim
