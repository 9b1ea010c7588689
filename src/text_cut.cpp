#include "text_cut.h"

#include <climits>
#include <cstring>

Cut after_marker(std::string_view text, std::string_view marker)
{
    size_t at = text.find(marker);
    if (at == std::string_view::npos)
        return {{}, false};
    return {text.substr(at + marker.size()), true};
}

Cut until_any(std::string_view text, std::string_view ends)
{
    size_t end = text.find_first_of(ends);
    if (end == std::string_view::npos)
        return {{}, false};
    return {text.substr(0, end), true};
}

bool next_own_line(std::string_view *rest, std::string_view prefix, std::string_view *line)
{
    while (next_line(rest, line)) {
        size_t start = 0;
        while (start < line->size() && ((*line)[start] <= ' ' || (*line)[start] > '~'))
            start++;
        line->remove_prefix(start);
        if (line->starts_with(prefix)) {
            line->remove_prefix(prefix.size());
            return true;
        }
    }
    return false;
}

Cut own_line(std::string_view answer, std::string_view prefix)
{
    std::string_view line;
    bool found = next_own_line(&answer, prefix, &line);
    return {found ? line : std::string_view(), found};
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view AROUND = " \t\r\n";
    size_t first = text.find_first_not_of(AROUND);
    if (first == std::string_view::npos)
        return text.substr(0, 0);
    return behind(text.substr(0, text.find_last_not_of(AROUND) + 1), first);
}

std::string_view unquoted(std::string_view text)
{
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        return text.substr(1, text.size() - 2);
    return text;
}

bool next_field(std::string_view *rest, std::string_view *field)
{
    // A null view marks the end: an empty one that is not null still is a last, empty field.
    if (rest->data() == nullptr)
        return false;
    size_t start = rest->find_first_not_of(" \t");
    bool quoted = start != std::string_view::npos && (*rest)[start] == '"';
    size_t closing = quoted ? rest->find('"', start + 1) : std::string_view::npos;
    size_t comma = rest->find(',', closing == std::string_view::npos ? 0 : closing);
    *field = rest->substr(0, comma);
    *rest = comma == std::string_view::npos ? std::string_view() : rest->substr(comma + 1);
    return true;
}

bool next_line(std::string_view *rest, std::string_view *line)
{
    size_t start = rest->find_first_not_of("\r\n");
    if (start == std::string_view::npos)
        return false;
    *rest = rest->substr(start);
    *line = rest->substr(0, rest->find_first_of("\r\n"));
    *rest = rest->substr(line->size());
    return true;
}

int32_t leading_int(std::string_view text)
{
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string_view::npos)
        return 0;
    bool negative = text[at] == '-';
    if (negative || text[at] == '+')
        at++;
    int64_t value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++) {
        value = value * 10 + (text[at] - '0');
        if (value > INT32_MAX)
            return negative ? INT32_MIN : INT32_MAX;
    }
    return static_cast<int32_t>(negative ? -value : value);
}

uint8_t byte_figure(std::string_view field, uint8_t max)
{
    field = trimmed(field);
    if (field.empty() || field.front() < '0' || field.front() > '9')
        return BYTE_ABSENT;
    int32_t value = leading_int(field);
    return value <= max ? static_cast<uint8_t>(value) : BYTE_ABSENT;
}

void take_figures(std::string_view *rest, std::initializer_list<int32_t *> numbers)
{
    std::string_view field;
    for (int32_t *number : numbers) {
        const uint8_t figure = next_field(rest, &field) ? byte_figure(field) : BYTE_ABSENT;
        if (figure != BYTE_ABSENT)
            *number = figure;
    }
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool parse_hex(std::string_view text, uint64_t *value)
{
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string_view::npos || hex_digit(text[at]) < 0)
        return false;
    uint64_t sum = 0;
    for (; at < text.size() && hex_digit(text[at]) >= 0; at++) {
        if (sum >> 60)
            return false;
        sum = sum << 4 | static_cast<uint64_t>(hex_digit(text[at]));
    }
    *value = sum;
    return true;
}

bool copy_text(std::span<char> out, std::string_view value)
{
    if (value.size() >= out.size())
        return false;
    if (!value.empty())
        memcpy(out.data(), value.data(), value.size());
    out[value.size()] = '\0';
    return true;
}

void copy_cut(std::span<char> out, std::string_view value)
{
    if (!out.empty())
        (void)copy_text(out, value.substr(0, out.size() - 1)); // fits by construction
}
