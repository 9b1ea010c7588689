#include "radio_figures.h"

#include <cstring>

// The value of a digit, or a large one.
static unsigned digit_value(char digit)
{
    if (digit >= '0' && digit <= '9')
        return static_cast<unsigned>(digit - '0');
    unsigned letter = static_cast<unsigned>(digit | 0x20);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : 16;
}

std::optional<int64_t> whole_number(std::string_view text, int base)
{
    int64_t value = 0;
    bool negative = text.starts_with('-');
    if (negative)
        text.remove_prefix(1);
    if (text.empty() || text.size() > 15) // no overflow
        return std::nullopt;
    for (char digit : text) {
        unsigned more = digit_value(digit);
        if (more >= static_cast<unsigned>(base))
            return std::nullopt;
        value = value * base + more;
    }
    return negative ? -value : value;
}

std::optional<int32_t> figure_tenths(const char *text)
{
    constexpr int64_t MOST = 10000;
    size_t end = text ? strcspn(text, ". ") : 0;
    std::optional<int64_t> whole = whole_number({text, end});
    if (!whole || *whole < -MOST || *whole > MOST)
        return std::nullopt;
    int32_t tenths = static_cast<int32_t>(*whole * 10);
    if (text[end] == '.' && digit_value(text[end + 1]) < 10)
        tenths += (*text == '-' ? -1 : 1) * static_cast<int32_t>(digit_value(text[end + 1])); // "-0.5" is not below 0
    return tenths;
}

bool next_field(std::string_view &rest, std::string_view &field)
{
    if (!rest.data())
        return false;
    size_t comma = rest.find(',');
    field = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    while (!field.empty() && (field.front() == ' ' || field.front() == '"'))
        field.remove_prefix(1);
    while (!field.empty() && (field.back() == ' ' || field.back() == '"'))
        field.remove_suffix(1);
    return true;
}

struct NamedNumber {
    int8_t number;
    char name[22];
};

template<size_t count> static const char *name_of(const NamedNumber (&names)[count], int number)
{
    for (const NamedNumber &row : names)
        if (row.number == number)
            return row.name;
    return nullptr;
}

const char *rat_name(int rat)
{
    static const NamedNumber names[] = {{RAT_UMTS, "UMTS"}, {RAT_LTE, "LTE"}, {RAT_NR, "NR"}};
    return name_of(names, rat);
}

const char *act_name(int act)
{
    static const NamedNumber names[] = {
        {0, "GSM"},         {1, "GSM"},
        {2, "UMTS"},        {3, "GSM (EDGE)"},
        {4, "UMTS (HSPA)"}, {5, "UMTS (HSPA)"},
        {6, "UMTS (HSPA)"}, {7, "LTE"},
        {8, "GSM"},         {9, "NB-IoT"},
        {10, "LTE (5GC)"},  {11, "NR"},
        {12, "NR"},         {13, "LTE and NR (EN-DC)"},
    };
    return name_of(names, act);
}

const char *registration_name(int state)
{
    static const NamedNumber names[] = {
        {0, "not registered"}, {1, "home network"}, {2, "searching"}, {3, "denied by the network"},
        {5, "roaming"},        {6, "home network"}, {7, "roaming"},   {8, "emergency calls only"},
        {9, "home network"},   {10, "roaming"},
    };
    return name_of(names, state);
}

// Where a figure stands in a line, and what its index means: tenths = index * step + offset.
struct FigureField {
    size_t place; // 0 for none
    int32_t step;
    int32_t offset;
};

struct CellForm {
    int rat;
    bool serving;
    FigureField rsrp;
    FigureField rsrq;
    FigureField sinr;
};

// RSRP and RSRQ of 3GPP TS 36.133 9.1 and TS 38.133 10.1, RSCP and Ec/Io of TS 25.133 9.1, as this modem offsets them.
static const CellForm forms[] = {
    {RAT_LTE, true, {12, 10, -1410}, {13, 5, -200}, {10, 5, 0}},
    {RAT_LTE, false, {10, 10, -1410}, {11, 5, -200}, {0, 0, 0}},
    {RAT_NR, true, {12, 10, -1560}, {13, 5, -435}, {10, 5, -235}},
    {RAT_NR, false, {10, 10, -1560}, {11, 5, -435}, {8, 5, -235}},
    {RAT_UMTS, true, {10, 10, -1210}, {14, 5, -245}, {0, 0, 0}},
    {RAT_UMTS, false, {14, 10, -1210}, {11, 5, -245}, {0, 0, 0}},
};

constexpr size_t MOST_FIELDS = 16;
constexpr int64_t UNKNOWN_INDEX = 255;

static std::optional<int32_t> figure_of(const FigureField &figure, const std::string_view (&fields)[MOST_FIELDS])
{
    std::optional<int64_t> index = whole_number(fields[figure.place]);
    if (figure.place == 0 || !index || *index < -UNKNOWN_INDEX || *index >= UNKNOWN_INDEX)
        return std::nullopt;
    return static_cast<int32_t>(*index) * figure.step + figure.offset;
}

// "103" is LTE band 3, "5078" NR band 78, "8" UMTS band 8: the first digits stand for the technology.
static std::optional<int64_t> band_of(int rat, std::string_view text)
{
    size_t leading = rat == RAT_UMTS ? 0 : rat == RAT_LTE ? 1 : 2;
    return text.size() > leading ? whole_number(text.substr(leading)) : std::nullopt;
}

// All bits set is what the modem writes for an area or identity that it does not know.
static std::optional<int64_t> identity_of(std::string_view text)
{
    if (text.find_first_not_of("0Ff") == std::string_view::npos)
        return std::nullopt;
    return whole_number(text, 16);
}

static bool parse_cell(std::string_view line, int base, Cell *cell)
{
    std::string_view fields[MOST_FIELDS];
    size_t count = 0;
    while (count < MOST_FIELDS && next_field(line, fields[count]))
        count++;
    std::optional<int64_t> kind = whole_number(fields[0]);
    std::optional<int64_t> rat = whole_number(fields[1]);
    if (count < 12 || !kind || (*kind != 1 && *kind != 2))
        return false;
    for (const CellForm &form : forms) {
        if (form.rat != rat || form.serving != (*kind == 1))
            continue;
        *cell = {form.serving,
                 form.rat,
                 fields[2],
                 fields[3],
                 identity_of(fields[4]),
                 identity_of(fields[5]),
                 whole_number(fields[6], base),
                 whole_number(fields[7], base),
                 form.serving ? band_of(form.rat, fields[8]) : std::nullopt,
                 figure_of(form.rsrp, fields),
                 figure_of(form.rsrq, fields),
                 figure_of(form.sinr, fields)};
        return true;
    }
    return false;
}

bool next_cell(std::string_view &answer, bool *labelled, Cell *cell)
{
    while (!answer.empty()) {
        size_t end = answer.find_first_of("\r\n");
        std::string_view line = answer.substr(0, end);
        answer = end == std::string_view::npos ? std::string_view() : answer.substr(end + 1);
        if (line.find(" cell:") != std::string_view::npos)
            *labelled = true;
        else if (parse_cell(line, *labelled ? 16 : 10, cell))
            return true;
    }
    return false;
}

const char *signal_word(int rat, int32_t tenths)
{
    struct Step {
        int32_t rsrp;
        int32_t ecio;
        char word[10];
    };
    static const Step steps[] = {
        {-800, -60, "excellent"}, {-900, -90, "good"}, {-1000, -120, "fair"}, {-1100, -160, "weak"}};
    for (const Step &step : steps)
        if (tenths >= (rat == RAT_UMTS ? step.ecio : step.rsrp))
            return step.word;
    return "very weak";
}

Limits signal_limits(int rat)
{
    return rat == RAT_UMTS ? Limits{-200, -40} : Limits{-1200, -700};
}
