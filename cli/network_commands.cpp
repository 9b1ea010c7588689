#include "network_commands.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "bus.h"
#include "json.h"
#include "output.h"
#include "radio_figures.h"
#include "result_text.h"

constexpr size_t BANDS_SIZE = 512;
constexpr size_t BAND_SIZE = 16;

// The modem's numbers for sets of technologies (AT+GTACT), and how the bus selects them: one of the router's modes, or
// the number with preferences (2 UMTS, 3 LTE, 6 NR) where the modem has none.
struct Selection {
    int8_t rat;
    char mode[8]; // name in `celmux mode`; empty for what only other clients can choose
    char technologies[18];
    int8_t bands_mode; // set_network_mode for bands without preferences; -1 for none
    int8_t preferences[2];
};

static const Selection selections[] = {
    {20, "auto", "UMTS, LTE and NR", -1, {6, 3}},
    {14, "nr", "NR", 2, {0, 0}},
    {2, "lte", "LTE", 3, {0, 0}},
    {1, "umts", "UMTS", 4, {0, 0}},
    {17, "lte-nr", "LTE and NR", -1, {6, 3}},
    {4, "", "UMTS and LTE", -1, {3, 2}},
    {16, "", "UMTS and NR", -1, {6, 2}},
    {10, "", "whatever there is", -1, {6, 3}},
};

struct ModeName {
    char name[11];
    int8_t number; // of set_network_mode
};

static const ModeName mode_names[] = {
    {"auto", 0},   {"auto-nsa", 1},   {"nr", 2}, {"lte", 3}, {"umts", 4},
    {"lte-nr", 5}, {"lte-nr-nsa", 6}, {"5g", 2}, {"4g", 3},  {"3g", 4},
};

static const Selection *find_selection(std::optional<int32_t> rat)
{
    for (const Selection &row : selections)
        if (row.rat == rat)
            return &row;
    return nullptr;
}

// ---- mode

static const char *preference_name(std::optional<int32_t> preference)
{
    switch (preference.value_or(0)) {
    case 2:
        return "UMTS";
    case 3:
        return "LTE";
    case 6:
        return "NR";
    default:
        return nullptr;
    }
}

static int show_mode()
{
    Reply reply;
    if (!bus_call("get_current_rat_and_band", nullptr, reply))
        return explain("mode", reply);
    std::optional<int32_t> rat = reply.number("rat");
    const Selection *selection = find_selection(rat);
    const char *first = preference_name(reply.number("pref_act1"));
    const char *second = preference_name(reply.number("pref_act2"));
    json_open(nullptr, '{');
    json_text("mode", selection && *selection->mode ? selection->mode : nullptr);
    json_number("selection", rat);
    json_open("preferred", '[');
    for (const char *name : {first, second})
        if (name)
            json_text(nullptr, name);
    json_close();
    json_close();
    print_row("Mode", "%s", selection ? selection->mode : "");
    if (selection)
        print_row("Technologies", "%s", selection->technologies);
    else
        print_row("Technologies", "the modem's selection %d", static_cast<int>(rat.value_or(0)));
    if (first)
        print_row("Preferred", "%s%s%s", first, second ? ", then " : "", second ? second : "");
    return EXIT_DONE;
}

int command_mode(const Arguments &arguments)
{
    const char *verb = arguments.at(0);
    if (!verb || (strcmp(verb, "show") == 0 && arguments.count == 1))
        return show_mode();
    const char *wanted = arguments.at(1);
    if (strcmp(verb, "set") != 0 || !wanted)
        return usage_error("mode", "show, or set with a name");
    for (const ModeName &row : mode_names) {
        if (strcasecmp(row.name, wanted) != 0)
            continue;
        CallArguments message;
        message.number("mode", row.number);
        return bus_do("set_network_mode", &message, "mode");
    }
    return usage_error("mode", "there is no mode %s", wanted);
}

// ---- bands

enum class BandKind { lte, nr, umts, other };

static BandKind kind_of(std::string_view band)
{
    if (band.size() > 1 && band[0] == 'b')
        return BandKind::lte;
    if (band.size() > 1 && band[0] == 'n')
        return BandKind::nr;
    return !band.empty() && strchr("IVX", band[0]) ? BandKind::umts : BandKind::other;
}

static void shown_band(std::string_view band, char (&text)[BAND_SIZE])
{
    snprintf(text, sizeof(text), "%.*s", static_cast<int>(band.size()), band.data());
    if (kind_of(band) == BandKind::lte)
        text[0] = 'B';
}

static void show_bands_of(const char *bands, BandKind kind, const char *name, const char *label)
{
    char shown[BAND_SIZE];
    std::string_view rest(bands);
    std::string_view band;
    bool any = false;
    json_open(name, '[');
    while (next_field(rest, band)) {
        if (band.empty() || kind_of(band) != kind)
            continue;
        if (!any)
            row_begin(label);
        shown_band(band, shown);
        json_text(nullptr, shown);
        print_piece("%s%s", any ? " " : "", shown);
        any = true;
    }
    json_close();
    if (any)
        row_end();
    else if (kind != BandKind::other)
        print_row(label, "%s", "none");
}

static int show_bands()
{
    Reply reply;
    if (!bus_call("get_current_rat_and_band", nullptr, reply))
        return explain("bands", reply);
    const char *bands = reply.text("bands");
    if (!bands)
        bands = "";
    json_open(nullptr, '{');
    show_bands_of(bands, BandKind::nr, "nr", "NR");
    show_bands_of(bands, BandKind::lte, "lte", "LTE");
    show_bands_of(bands, BandKind::umts, "umts", "UMTS");
    show_bands_of(bands, BandKind::other, "other", "Other");
    json_close();
    return EXIT_DONE;
}

// Whether the name is one of the daemon's notation; LTE and NR bands get the case that it wants.
static bool accept_band(char *band)
{
    size_t length = strlen(band);
    size_t digits = strspn(band + 1, "0123456789");
    if (length == 0 || length >= BAND_SIZE)
        return false;
    if ((band[0] == 'B' || band[0] == 'b' || band[0] == 'N' || band[0] == 'n') && digits > 0 && 1 + digits == length &&
        digits <= 3) {
        band[0] = static_cast<char>(tolower(band[0]));
        return true;
    }
    for (char *letter = band; *letter; letter++)
        *letter = static_cast<char>(toupper(*letter));
    if (strspn(band, "IVX") == length)
        return true;
    bool gsm = length >= 4 && strspn(band, "0123456789") == length;
    bool td_scdma = length == 1 && band[0] >= 'A' && band[0] <= 'F';
    return gsm || td_scdma || strcmp(band, "BC0") == 0;
}

// Joins the arguments from the second on to one list in the daemon's notation. EXIT_DONE, or what is wrong was said.
static int collect_bands(const Arguments &arguments, char (&list)[BANDS_SIZE])
{
    size_t used = 0;
    for (int i = 1; i < arguments.count; i++) {
        char *state = nullptr;
        for (char *band = strtok_r(arguments.values[i], ", ", &state); band; band = strtok_r(nullptr, ", ", &state)) {
            if (!accept_band(band))
                return usage_error("bands", "%s is no band; such as B3, n78, VIII", band);
            if (used + strlen(band) + 2 > sizeof(list))
                return usage_error("bands", "too many bands");
            used += static_cast<size_t>(snprintf(list + used, sizeof(list) - used, "%s%s", used ? "," : "", band));
        }
    }
    return used ? int{EXIT_DONE} : usage_error("bands", "which bands?");
}

// `bands` null: all that the modem has.
static int select_bands(const Reply &now, const char *bands)
{
    CallArguments message;
    std::optional<int32_t> rat = now.number("rat");
    const Selection *selection = find_selection(rat);
    int32_t preferences[] = {now.number("pref_act1").value_or(0), now.number("pref_act2").value_or(0)};
    if (selection && selection->bands_mode >= 0 && !(preferences[0] && preferences[1])) {
        message.number("mode", selection->bands_mode);
        if (bands)
            message.text("bands", bands);
        return bus_do("set_network_mode", &message, "bands");
    }
    for (int i = 0; i < 2; i++)
        if (!preferences[i])
            preferences[i] = selection ? selection->preferences[i] : 0;
    if (!rat || !preferences[0] || !preferences[1])
        return fail(EXIT_REFUSED, "bands: the modem's selection of technologies is not known; choose a mode first");
    message.number("rat", *rat);
    message.number("pref_act1", preferences[0]);
    message.number("pref_act2", preferences[1]);
    if (bands)
        message.text("bands", bands);
    return bus_do("select_rat_and_band", &message, "bands");
}

int command_bands(const Arguments &arguments)
{
    const char *verb = arguments.at(0);
    if (!verb || (strcmp(verb, "show") == 0 && arguments.count == 1))
        return show_bands();
    if (strcmp(verb, "set") != 0)
        return usage_error("bands", "show, or set with bands");
    bool all = arguments.count == 2 && strcasecmp(arguments.at(1), "all") == 0;
    char list[BANDS_SIZE];
    int code = all ? int{EXIT_DONE} : collect_bands(arguments, list);
    if (code != EXIT_DONE)
        return code;
    Reply now;
    if (!bus_call("get_current_rat_and_band", nullptr, now))
        return explain("bands", now);
    return select_bands(now, all ? nullptr : list);
}

// ---- operator

static const char *selection_name(std::optional<int32_t> mode)
{
    static const char names[][10] = {"automatic", "manual", "off"};
    return mode && *mode >= 0 && *mode <= 2 ? names[*mode] : nullptr;
}

static int show_operator()
{
    constexpr int32_t NUMERIC = 2;
    Reply reply;
    if (!bus_call("get_operator_info", nullptr, reply))
        return explain("operator", reply);
    const char *operator_name = reply.text("oper");
    const char *selection = selection_name(reply.number("mode"));
    std::optional<int32_t> act = reply.number("act");
    const char *technology = act ? act_name(*act) : nullptr;
    bool numeric = reply.number("format") == NUMERIC;
    json_open(nullptr, '{');
    json_text("name", numeric ? nullptr : operator_name);
    json_text("code", numeric ? operator_name : nullptr);
    json_text("selection", selection);
    json_text("technology", technology);
    json_close();
    print_row("Operator", "%s", operator_name ? operator_name : "none");
    print_row("Selection", "%s", selection ? selection : "");
    print_row("Technology", "%s", technology ? technology : "");
    return EXIT_DONE;
}

int command_operator(const Arguments &arguments)
{
    constexpr int32_t AUTOMATIC = 0;
    constexpr int32_t MANUAL = 1;
    constexpr int32_t NUMERIC = 2;
    const char *wanted = arguments.at(0);
    if (!wanted || strcmp(wanted, "show") == 0)
        return show_operator();
    CallArguments message;
    size_t length = strlen(wanted);
    char quoted[16];
    if (strcmp(wanted, "auto") == 0) {
        message.number("mode", AUTOMATIC);
    } else if ((length == 5 || length == 6) && strspn(wanted, "0123456789") == length) {
        snprintf(quoted, sizeof(quoted), "\"%s\"", wanted); // the daemon sends it as it is
        message.number("mode", MANUAL);
        message.number("format", NUMERIC);
        message.text("oper", quoted);
    } else {
        return usage_error("operator", "auto, or a code of 5 or 6 digits (MCC and MNC) such as 26201");
    }
    return bus_do("select_operator", &message, "operator");
}
