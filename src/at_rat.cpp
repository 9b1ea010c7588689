#include "at_rat.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "at_text.h"
#include "log.h"
#include "result.h"

constexpr struct {
    const char *numeral;
    int32_t value;
} roman_numerals[] = {
    {"I", 1},   {"IV", 4},   {"V", 5},   {"IX", 9},   {"X", 10},   {"XL", 40},     {"L", 50},    {"XC", 90},
    {"C", 100}, {"CD", 400}, {"D", 500}, {"CM", 900}, {"M", 1000}, {"MMMM", 4000}, {"V'", 5000},
};

static int32_t roman_letter(char letter)
{
    switch (letter) {
    case 'I':
        return 1;
    case 'V':
        return 5;
    case 'X':
        return 10;
    case 'L':
        return 50;
    case 'C':
        return 100;
    case 'D':
        return 500;
    case 'M':
        return 1000;
    default:
        return 0;
    }
}

int32_t roman_to_int(std::string_view numeral)
{
    int64_t sum = 0;
    for (size_t i = 0; i < numeral.size(); i++) {
        sum += roman_letter(numeral[i]);
        std::string_view pair = behind(numeral, i).substr(0, 2);
        if (pair == "IV" || pair == "IX")
            sum -= 2;
        else if (pair == "XL" || pair == "XC")
            sum -= 20;
        else if (pair == "CD" || pair == "CM")
            sum -= 200;
    }
    return static_cast<int32_t>(std::clamp<int64_t>(sum, INT32_MIN, INT32_MAX));
}

// Appends to the `used` characters in `text`; false, and nothing changed, when it does not fit.
static bool append_text(std::span<char> text, size_t *used, std::string_view more)
{
    if (!copy_text(text.subspan(*used), more))
        return false;
    *used += more.size();
    return true;
}

bool int_to_roman(int32_t number, std::span<char> text)
{
    size_t start = strnlen(text.data(), text.size());
    size_t used = start;
    while (number >= 1) {
        const auto *row = std::end(roman_numerals) - 1;
        while (row->value > number)
            row--;
        if (!append_text(text, &used, row->numeral)) {
            if (start < text.size())
                text[start] = '\0';
            return false;
        }
        number -= row->value;
    }
    return true;
}

static bool letters_and_digits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    });
}

static bool digits_only(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

constexpr size_t LONGEST_BAND_NAME = 16; // what is longer names no band

static void append_code(AtCommand *command, std::string_view lead, std::string_view rest)
{
    at_append(command, lead);
    at_append(command, rest);
}

// `name` has 1 to 16 letters and digits. The order of the tests is part of the notation.
static void append_band(AtCommand *command, std::string_view name, bool umts_by_number, const char *function)
{
    char first = name.front();
    std::string_view rest = behind(name, 1);
    int rest_length = static_cast<int>(rest.size());
    bool numbered = !rest.empty() && digits_only(rest);
    if (first == 'n' && numbered) {
        append_code(command, ",50", rest);
        CELMUX_LOG(LOG_INFO, "select NR band: 50%.*s", function, rest_length, rest.data());
    } else if (rest.empty() && first >= 'A' && first <= 'F') {
        int place = first - 'A' + 1;
        at_append(command, ",20");
        at_append_number(command, place);
        CELMUX_LOG(LOG_INFO, "select TD-SCDMA band: 20%d", function, place);
    } else if (first == 'I' || first == 'V' || first == 'X') {
        int32_t band = roman_to_int(name);
        at_append(command, ",");
        at_append_number(command, band);
        CELMUX_LOG(LOG_INFO, "select UMTS band: %d", function, band);
    } else if (rest.empty()) {
        return;
    } else if (name == "BC0") {
        at_append(command, ",300");
        CELMUX_LOG(LOG_INFO, "select CDMA/EVDO band: BC0", function);
    } else if (first == 'b' && numbered) {
        append_code(command, rest.size() == 1 ? ",10" : ",1", rest);
        CELMUX_LOG(LOG_INFO, "select LTE band: 1%.2d", function, leading_int(rest));
    } else if (first == 'w' && numbered && umts_by_number) {
        int32_t band = leading_int(rest);
        at_append(command, ",");
        at_append_number(command, band);
        CELMUX_LOG(LOG_INFO, "select UMTS band: %d", function, band);
    } else if (first >= '0' && first <= '9' && name.size() >= 4) {
        append_code(command, ",", name);
        CELMUX_LOG(LOG_INFO, "select GSM band: %.*s", function, rest_length + 1, name.data());
    }
}

static void append_bands(AtCommand *command, std::string_view bands, bool umts_by_number, const char *function)
{
    // A list that holds the end of a command is refused whole, wherever in it that stands.
    if (!at_text_allowed(bands))
        at_refuse(command);
    std::string_view name;
    while (!command->fault && next_field(&bands, &name)) {
        name = trimmed(name);
        if (!name.empty() && name.size() <= LONGEST_BAND_NAME && letters_and_digits(name))
            append_band(command, name, umts_by_number, function);
    }
}

static void append_preference(AtCommand *command, bool given, int32_t value, bool place_needed)
{
    if (given || place_needed)
        at_append(command, ",");
    if (given)
        at_append_number(command, value);
}

// `size` counts a terminating zero, and "\r" is still to come.
static result_t send_bounded(AtCommand *command, size_t size, const char *function)
{
    if (command->length + 2u > size)
        command->fault = 1;
    return at_send_setter(command, function);
}

result_t at_select_rat(const RatSelection *selection)
{
    AtCommand command;
    at_begin(&command, "AT+GTACT=");
    at_append_number(&command, selection->act);
    append_preference(&command, selection->has_pref1, selection->pref1, selection->bands);
    append_preference(&command, selection->has_pref2, selection->pref2, selection->bands);
    if (selection->bands)
        append_bands(&command, selection->bands, true, __func__);
    return send_bounded(&command, 1024, __func__);
}

result_t at_select_rat_and_band(const RatAndBand *selection)
{
    AtCommand command;
    at_begin(&command, "AT+GTACT=");
    at_append_number(&command, selection->rat);
    for (int32_t preferred : {selection->pref_act1, selection->pref_act2}) {
        if (preferred != 0 && preferred != 2 && preferred != 3 && preferred != 6) {
            log_error("invalid preferred act");
            return RESULT_REFUSED;
        }
        append_preference(&command, preferred != 0, preferred, false);
    }
    if (selection->pref_act1 && selection->pref_act2 && selection->bands)
        append_bands(&command, selection->bands, false, __func__);
    return send_bounded(&command, 512, __func__);
}

// The name of one band code of the modem, zero-terminated in `name`; empty for a code that has none.
static void name_of_code(std::string_view code, std::span<char, 16> name)
{
    name[0] = '\0';
    if (!digits_only(code))
        return;
    size_t length = code.size();
    char first = code.front();
    if (length <= 2) {
        (void)int_to_roman(leading_int(code), name); // the longest, LXXXVIII, fits
    } else if (length == 3 && code.starts_with("20")) {
        if (code[2] != '0') {
            name[0] = static_cast<char>('A' + (code[2] - '1'));
            name[1] = '\0';
        }
    } else if (length == 3 && first == '1') {
        snprintf(name.data(), name.size(), "b%d", leading_int(behind(code, 1)));
    } else if (code == "300") {
        copy_cut(name, "BC0");
    } else if (code == "255") {
        return; // no band
    } else if (length <= 5 && first == '5') {
        snprintf(name.data(), name.size(), "n%d", leading_int(behind(code, 1)));
    } else if (length <= 4) {
        copy_cut(name, code);
    }
}

static bool write_bands(std::span<char> bands, std::string_view codes)
{
    size_t used = 0;
    std::string_view code;
    bands[0] = '\0';
    while (next_field(&codes, &code)) {
        char name[16];
        code = trimmed(code);
        if (code.empty())
            continue;
        name_of_code(code, name);
        if (!name[0])
            continue;
        if ((used && !append_text(bands, &used, ",")) || !append_text(bands, &used, name)) {
            bands[0] = '\0';
            return false;
        }
    }
    return true;
}

result_t at_get_current_rat_and_band(RatAndBand *current, std::span<char> bands)
{
    AtAnswer answer;
    std::string_view rest;
    if (!at_ask("AT+GTACT?\r", "+GTACT:", "+GTACT:", &answer, &rest))
        return answer.code;
    take_figures(&rest, {&current->rat, &current->pref_act1, &current->pref_act2});
    if (!bands.empty() && !write_bands(bands, rest)) {
        log_error("band list too long");
        return RESULT_ERROR;
    }
    return answer.code;
}
