#include "at_cell.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at_text.h"
#include "log.h"
#include "result.h"

result_t at_get_rssi(uint8_t *rssi)
{
    AtAnswer answer;
    std::string_view rest;
    if (!at_ask("AT+CSQ\r", "+CSQ:", "+CSQ: ", &answer, &rest))
        return answer.code;
    uint8_t figure = byte_figure(rest);
    *rssi = figure == BYTE_ABSENT ? RSSI_UNKNOWN : figure;
    return answer.code;
}

result_t at_get_extended_signal_quality(ExtendedSignalQuality *quality)
{
    constexpr uint8_t UNKNOWN = 99; // of the first two, beside their range
    AtAnswer answer;
    std::string_view rest;
    if (!at_ask("AT+CESQ\r", "+CESQ:", "+CESQ: ", &answer, &rest))
        return answer.code;
    const struct {
        uint8_t *figure;
        uint8_t max;
    } figures[] = {{&quality->rxlev, 63},
                   {&quality->ber, 7},
                   {&quality->rscp, 96},
                   {&quality->ecno, UMTS_ECIO_MAX},
                   {&quality->rsrq, LTE_RSRQ_MAX},
                   {&quality->rsrp, LTE_RSRP_MAX},
                   {&quality->ss_rsrq, NR_RSRQ_MAX},
                   {&quality->ss_rsrp, NR_RSRP_MAX},
                   {&quality->ss_sinr, 127}};
    for (const auto &[figure, max] : figures) {
        std::string_view field; // empty when the answer has no more
        next_field(&rest, &field);
        bool has_unknown = figure == &quality->rxlev || figure == &quality->ber;
        *figure = has_unknown && byte_figure(field) == UNKNOWN ? UNKNOWN : byte_figure(field, max);
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

static void take_optional(uint8_t *given, uint8_t *value, std::string_view field)
{
    uint8_t figure = byte_figure(field);
    *given = figure != BYTE_ABSENT;
    *value = *given ? figure : 0;
}

result_t at_get_operator_info(OperatorInfo *info)
{
    AtAnswer answer;
    std::string_view rest;
    if (!at_ask("AT+COPS?\r", "+COPS:", "+COPS: ", &answer, &rest))
        return answer.code;
    std::string_view field;
    if (next_field(&rest, &field))
        info->mode = byte_figure(field);
    if (next_field(&rest, &field))
        take_optional(&info->has_format, &info->format, field);
    if (next_field(&rest, &field) && !take_operator_name(info, field))
        return RESULT_ERROR;
    if (next_field(&rest, &field))
        take_optional(&info->has_act, &info->act, field);
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

static bool whole_hex(std::string_view field, uint64_t *value)
{
    field = trimmed(field);
    return field.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos && parse_hex(field, value);
}

// A number whose bits are all ones stands for an unknown area, whatever its width. A number with more bits than areas
// of the RAT have is no area.
static void take_area(ServingCellRecord *cell, std::string_view field)
{
    constexpr uint64_t ONES_16 = 0xFFFF, ONES_24 = 0xFFFFFF;
    uint64_t value;
    bool narrow = cell->rat == RAT_UMTS || cell->rat == RAT_LTE;
    if (!whole_hex(field, &value) || value >= (narrow ? ONES_16 : ONES_24) || (value == ONES_16 && field.size() == 4))
        return;
    snprintf(cell->lac, sizeof cell->lac, "%u", static_cast<unsigned>(value));
}

// All ones of 28 bits stand for an unknown cell in an NR line too.
static void take_cell_id(ServingCellRecord *cell, std::string_view field)
{
    constexpr uint64_t ONES_28 = 0xFFFFFFF, ONES_32 = 0xFFFFFFFF, ONES_36 = 0xFFFFFFFFF;
    uint64_t value;
    uint64_t end = cell->rat == RAT_LTE ? ONES_28 : cell->rat == RAT_UMTS ? ONES_32 : ONES_36;
    if (whole_hex(field, &value) && value < end && value != ONES_28 && value != ONES_32)
        snprintf(cell->cellid, sizeof cell->cellid, "%llu", static_cast<unsigned long long>(value));
}

static void take_noise(ServingCellRecord *cell, std::string_view field)
{
    size_t digit = field.starts_with('-') ? 1 : 0;
    int32_t value = leading_int(field);
    if (digit < field.size() && field[digit] >= '0' && field[digit] <= '9' && value >= NOISE_MIN &&
        value < NOISE_ABSENT)
        cell->noise = value;
}

static void take_cell_field(ServingCellRecord *cell, unsigned number, std::string_view field)
{
    bool has_rsrq = cell->rat == RAT_LTE || cell->rat == RAT_NR;
    uint64_t value;
    switch (number) {
    case 2:
        copy_cut(cell->mcc, field);
        break;
    case 3:
        copy_cut(cell->mnc, field);
        break;
    case 4:
        take_area(cell, field);
        break;
    case 5:
        take_cell_id(cell, field);
        break;
    case 7:
        if (has_rsrq && parse_hex(field, &value) && value <= INT32_MAX)
            cell->pcellid = static_cast<int32_t>(value);
        break;
    case 8:
        copy_cut(cell->band, field);
        break;
    case 10:
        take_noise(cell, field);
        break;
    case 12:
        if (has_rsrq)
            cell->rsrp = byte_figure(field, cell->rat == RAT_LTE ? LTE_RSRP_MAX : NR_RSRP_MAX);
        break;
    case 13:
        if (has_rsrq)
            cell->rsrq = byte_figure(field, cell->rat == RAT_LTE ? LTE_RSRQ_MAX : NR_RSRQ_MAX);
        break;
    case 14:
        if (cell->rat == RAT_UMTS)
            cell->rsrp = cell->ecio = byte_figure(field, UMTS_ECIO_MAX);
        break;
    default:
        break;
    }
}

// False for a line that is no serving cell or does not name its RAT.
static bool take_cell(ServingCellRecord *cell, std::string_view line)
{
    std::string_view field;
    next_field(&line, &field);
    if (field != "1" || !next_field(&line, &field))
        return false;
    uint8_t rat = byte_figure(field);
    if (rat == RAT_NONE || rat == BYTE_ABSENT)
        return false;
    cell->rat = rat;
    cell->noise = NOISE_ABSENT;
    if (rat == RAT_LTE || rat == RAT_NR)
        cell->rsrp = cell->rsrq = BYTE_ABSENT;
    else if (rat == RAT_UMTS)
        cell->rsrp = cell->ecio = BYTE_ABSENT;
    for (unsigned number = 2; next_field(&line, &field); number++) {
        field = trimmed(field);
        if (!field.empty())
            take_cell_field(cell, number, field);
    }
    return true;
}

// The text behind the line that begins with the marker; not found when there is no such line.
static Cut behind_line(std::string_view answer, std::string_view marker)
{
    std::string_view line;
    bool found = next_own_line(&answer, marker, &line);
    return {answer, found};
}

result_t at_get_serving_cells(std::span<ServingCellRecord, SERVING_CELLS> cells)
{
    AtAnswer answer;
    at_exchange("AT+GTCCINFO?\r", "+GTCCINFO:", "+GTCCINFO:", &answer);
    Cut rows = behind_line(answer.view(), "+GTCCINFO:");
    if (!answer.usable() || !rows.found)
        return answer.code;
    size_t filled = 0;
    std::string_view line;
    while (filled < cells.size() && next_line(&rows.text, &line))
        filled += take_cell(&cells[filled], line);
    return answer.code;
}

// Longest part of `text` that fits `room` characters and ends with a line.
static std::string_view whole_lines(std::string_view text, size_t room)
{
    if (text.size() <= room)
        return text;
    size_t end = text.substr(0, room).find_last_of("\r\n");
    return text.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

// Does the line belong to something else? The lines of a cell listing carry no name of their own.
static bool foreign(std::string_view line)
{
    return line.starts_with('+');
}

result_t at_get_gtccinfo(std::span<char> text)
{
    AtAnswer answer;
    at_exchange("AT+GTCCINFO?\r", "+GTCCINFO:", "+GTCCINFO:", &answer);
    Cut rows = behind_line(answer.view(), "+GTCCINFO:");
    if (!answer.usable() || !rows.found)
        return answer.code;
    std::string_view line, rest = rows.text;
    do {
        if (!next_line(&rest, &line))
            return RESULT_REFUSED;
    } while (foreign(line) || line.find("service cell") == std::string_view::npos);
    if (rest.empty())
        return RESULT_REFUSED;
    std::string_view section = rest;
    while (next_line(&rest, &line) && foreign(line))
        section = rest;
    size_t start = section.find_first_not_of("\r\n");
    if (start == std::string_view::npos)
        return RESULT_OK;
    std::string_view lines = whole_lines(behind(section, start), text.size() - 1);
    if (lines.empty())
        return RESULT_REFUSED;
    copy_cut(text, lines);
    return RESULT_OK;
}

// Copies the value of `key` in one line; the value stays "--" when it is empty or no figure.
static void take_figure(std::span<char> out, std::string_view line, std::string_view key)
{
    Cut value = after_marker(behind(line, line.find(key)), ":");
    if (!value.found)
        return;
    std::string_view figure = value.text.starts_with(' ') ? value.text.substr(1) : value.text;
    if (key == "RANK") {
        size_t digit = figure.find_first_of("0123456789");
        if (digit == std::string_view::npos)
            return;
        figure.remove_prefix(digit);
    }
    if (!figure.empty() && trimmed(figure) != "255")
        copy_cut(out, figure);
}

static void take_first_figure(std::span<char> out, std::string_view text, std::string_view key)
{
    std::string_view line;
    copy_cut(out, "--");
    while (next_line(&text, &line)) {
        if (foreign(line) || line.find(key) == std::string_view::npos)
            continue;
        take_figure(out, line, key);
        return;
    }
}

result_t at_get_cell_info(CellInfo *info)
{
    constexpr size_t SHORTEST_BLOCK = 10;
    AtAnswer answer;
    at_exchange("AT+GTCELLINFO?\r", "+GTCELLINFO:", "+GTCELLINFO:", &answer);
    std::string_view text = answer.view(), state, mode;
    if (!answer.usable() || !next_own_line(&text, "+GTCELLINFO:", &state))
        return answer.code;
    if (trimmed(state).starts_with('0')) {
        log_error("GTCCINFO not enabled");
        return RESULT_INCOMPLETE;
    }
    do {
        text = behind(text, text.find_first_not_of("\r\n"));
        if (text.size() < SHORTEST_BLOCK) {
            log_error("maybe no simcard");
            return RESULT_INCOMPLETE;
        }
        next_line(&text, &mode);
    } while (foreign(mode));
    copy_cut(info->Mode, mode.substr(0, mode.find(':')));
    const struct {
        const char *key;
        std::span<char> out;
    } figures[] = {
        {"BeamID", info->BeamID}, {"CQI", info->CQI},     {"Power", info->Power},
        {"RANK", info->RANK},     {"DLMCS", info->DLMCS}, {"ULMCS", info->ULMCS},
    };
    for (const auto &figure : figures)
        take_first_figure(figure.out, text, figure.key);
    return answer.code;
}
