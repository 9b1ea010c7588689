#include "at_cell.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at_text.h"
#include "log.h"

result_t at_get_rssi(uint8_t *rssi)
{
    AtAnswer answer;
    at_exchange("AT+CSQ\r", "+CSQ:", "+CSQ: ", &answer);
    Cut value = after_marker(answer.view(), "+CSQ:");
    if (answer.usable() && value.found)
        *rssi = static_cast<uint8_t>(leading_int(value.text));
    return answer.code;
}

result_t at_get_extended_signal_quality(ExtendedSignalQuality *quality)
{
    AtAnswer answer;
    at_exchange("AT+CESQ\r", "+CESQ:", "+CESQ: ", &answer);
    Cut value = after_marker(answer.view(), "+CESQ:");
    if (!answer.usable() || !value.found)
        return answer.code;
    uint8_t *const figures[] = {&quality->rxlev, &quality->ber,     &quality->rscp,    &quality->ecno,   &quality->rsrq,
                                &quality->rsrp,  &quality->ss_rsrq, &quality->ss_rsrp, &quality->ss_sinr};
    std::string_view rest = first_line(value.text), field;
    for (uint8_t *figure : figures) {
        if (!next_field(&rest, &field))
            break;
        *figure = static_cast<uint8_t>(leading_int(field));
    }
    return answer.code;
}

static bool take_operator_name(OperatorInfo *info, std::string_view field)
{
    std::string_view name = unquoted(trimmed(field));
    if (name.size() > UINT8_MAX) {
        log_error("operator name too long");
        return false;
    }
    info->oper = strndup(name.data(), name.size());
    if (!info->oper)
        return false;
    info->has_oper = 1;
    info->oper_len = static_cast<uint8_t>(name.size());
    return true;
}

result_t at_get_operator_info(OperatorInfo *info)
{
    AtAnswer answer;
    at_exchange("AT+COPS?\r", "+COPS:", "+COPS: ", &answer);
    Cut value = after_marker(answer.view(), "+COPS:");
    if (!answer.usable() || !value.found)
        return answer.code;
    std::string_view rest = first_line(value.text), field;
    if (next_field(&rest, &field))
        info->mode = static_cast<uint8_t>(leading_int(field));
    if (next_field(&rest, &field)) {
        info->has_format = 1;
        info->format = static_cast<uint8_t>(leading_int(field));
    }
    if (next_field(&rest, &field) && !take_operator_name(info, field))
        return RESULT_ERROR;
    if (next_field(&rest, &field)) {
        info->has_act = 1;
        info->act = static_cast<uint8_t>(leading_int(field));
    }
    return answer.code;
}

result_t at_select_operator(const OperatorInfo *info)
{
    AtCommand command;
    at_begin(&command, "AT+COPS=");
    at_append_number(&command, info->mode);
    if (info->has_format) {
        at_append(&command, ",");
        at_append_number(&command, info->format);
    }
    if (info->has_oper && info->oper_len) {
        at_append(&command, ",");
        at_append_raw(&command, info->oper);
    }
    if (info->has_act) {
        at_append(&command, ",");
        at_append_number(&command, info->act);
    }
    return at_send_setter(&command, __func__);
}

static void take_byte(uint8_t *out, std::string_view field)
{
    int32_t value = leading_int(field);
    if (value >= 0 && value <= UINT8_MAX)
        *out = static_cast<uint8_t>(value);
}

// A number that a tracking area cannot be, the sentinel FFFFFFF for one, leaves the text empty.
static void take_area(std::span<char> lac, std::string_view field)
{
    constexpr uint64_t MAX_AREA = 99'999'999;
    uint64_t value;
    if (parse_hex(field, &value) && value <= MAX_AREA)
        snprintf(lac.data(), lac.size(), "%u", static_cast<unsigned>(value));
}

static void take_cell_id(std::span<char> cellid, std::string_view field)
{
    uint64_t value;
    if (parse_hex(field, &value))
        snprintf(cellid.data(), cellid.size(), "%lld", static_cast<long long>(value));
}

static void take_cell_field(ServingCellRecord *cell, unsigned number, std::string_view field)
{
    bool has_rsrq = cell->rat == RAT_LTE || cell->rat == RAT_NR;
    uint64_t value;
    switch (number) {
    case 1:
        take_byte(&cell->rat, field);
        break;
    case 2:
        copy_cut(cell->mcc, field);
        break;
    case 3:
        copy_cut(cell->mnc, field);
        break;
    case 4:
        take_area(cell->lac, field);
        break;
    case 5:
        take_cell_id(cell->cellid, field);
        break;
    case 7:
        if (has_rsrq && parse_hex(field, &value) && value <= INT32_MAX)
            cell->pcellid = static_cast<int32_t>(value);
        break;
    case 8:
        copy_cut(cell->band, field);
        break;
    case 10:
        cell->noise = leading_int(field);
        break;
    case 12:
        if (has_rsrq)
            take_byte(&cell->rsrp, field);
        break;
    case 13:
        if (has_rsrq)
            take_byte(&cell->rsrq, field);
        break;
    case 14:
        if (cell->rat == RAT_UMTS) {
            take_byte(&cell->rsrp, field);
            cell->ecio = cell->rsrp;
        }
        break;
    default:
        break;
    }
}

result_t at_get_serving_cells(std::span<ServingCellRecord, SERVING_CELLS> cells)
{
    AtAnswer answer;
    at_exchange("AT+GTCCINFO?\r", "+GTCCINFO:", "+GTCCINFO:", &answer);
    Cut value = after_marker(answer.view(), "+GTCCINFO:");
    if (!answer.usable() || !value.found)
        return answer.code;
    size_t filled = 0;
    // What stands on the marker's own line is no cell.
    std::string_view rest = behind(value.text, first_line(value.text).size()), line, field;
    while (filled < cells.size() && next_line(&rest, &line)) {
        if (line.front() != '1')
            continue;
        for (unsigned number = 0; next_field(&line, &field); number++) {
            field = trimmed(field);
            if (!field.empty())
                take_cell_field(&cells[filled], number, field);
        }
        filled++;
    }
    return answer.code;
}

// Index of the line end at or after `from`: of its line feed when it is CR LF; npos without one.
static size_t line_end(std::string_view text, size_t from)
{
    size_t end = text.find_first_of("\r\n", from);
    if (end != std::string_view::npos && text[end] == '\r' && end + 1 < text.size() && text[end + 1] == '\n')
        end++;
    return end;
}

// Longest part of `text` that fits `room` characters and ends with a line.
static std::string_view whole_lines(std::string_view text, size_t room)
{
    if (text.size() <= room)
        return text;
    size_t end = text.substr(0, room).find_last_of("\r\n");
    return text.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

result_t at_get_gtccinfo(std::span<char> text)
{
    // Distances that find the end of the marker's line and then of the label's line, whatever blanks follow the marker.
    constexpr size_t BEHIND_MARKER = 10, INSIDE_LABEL = 13;
    AtAnswer answer;
    at_exchange("AT+GTCCINFO?\r", "+GTCCINFO:", "+GTCCINFO:", &answer);
    Cut value = after_marker(answer.view(), "+GTCCINFO:");
    if (!answer.usable() || !value.found)
        return answer.code;
    std::string_view section = behind(answer.view(), answer.view().find("+GTCCINFO:"));
    if (section.find("service cell") == std::string_view::npos)
        return RESULT_REFUSED;
    size_t end = line_end(section, BEHIND_MARKER);
    if (end != std::string_view::npos)
        end = line_end(section, end + INSIDE_LABEL);
    if (end == std::string_view::npos)
        return RESULT_REFUSED;
    size_t start = section.find_first_not_of("\r\n", end + 1);
    if (start == std::string_view::npos)
        return RESULT_OK;
    std::string_view lines = whole_lines(behind(section, start), text.size() - 1);
    if (lines.empty())
        return RESULT_REFUSED;
    copy_cut(text, lines);
    return RESULT_OK;
}

static void take_figure(std::span<char> out, std::string_view text, std::string_view key)
{
    copy_cut(out, "--");
    size_t at = text.find(key);
    if (at == std::string_view::npos)
        return;
    Cut value = after_marker(first_line(behind(text, at)), ":");
    if (!value.found)
        return;
    if (value.text.starts_with(' '))
        value.text.remove_prefix(1);
    if (key == "RANK") {
        size_t digit = value.text.find_first_of("0123456789");
        if (digit == std::string_view::npos)
            return;
        value.text.remove_prefix(digit);
    }
    copy_cut(out, value.text);
}

result_t at_get_cell_info(CellInfo *info)
{
    constexpr size_t SHORTEST_BLOCK = 10;
    AtAnswer answer;
    at_exchange("AT+GTCELLINFO?\r", "+GTCELLINFO:", "+GTCELLINFO:", &answer);
    Cut value = after_marker(answer.view(), "+GTCELLINFO:");
    if (!answer.usable() || !value.found)
        return answer.code;
    std::string_view text = value.text;
    if (text.starts_with(' '))
        text.remove_prefix(1);
    if (text.starts_with('0')) {
        log_error("GTCCINFO not enabled");
        return RESULT_INCOMPLETE;
    }
    text.remove_prefix(first_line(text).size());
    text.remove_prefix(std::min(text.find_first_not_of("\r\n"), text.size()));
    if (text.size() < SHORTEST_BLOCK) {
        log_error("maybe no simcard");
        return RESULT_INCOMPLETE;
    }
    std::string_view mode = first_line(text);
    copy_cut(info->Mode, mode.substr(0, mode.find(':')));
    text.remove_prefix(mode.size());
    const struct {
        const char *key;
        std::span<char> out;
    } figures[] = {
        {"BeamID", info->BeamID}, {"CQI", info->CQI},     {"Power", info->Power},
        {"RANK", info->RANK},     {"DLMCS", info->DLMCS}, {"ULMCS", info->ULMCS},
    };
    for (const auto &figure : figures)
        take_figure(figure.out, text, figure.key);
    return answer.code;
}
