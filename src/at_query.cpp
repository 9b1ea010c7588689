#include "at_query.h"

#include "at_text.h"
#include "log.h"
#include "result.h"
#include "wanmd.h"

extern const AtQuery imei_query = {"AT+CGSN=1\r", "+CGSN:", "+CGSN: ", "+CGSN: ", ValueCut::to_line_end};
extern const AtQuery imsi_query = {"AT+CIMI?\r", "+CIMI:", "+CIMI: ", "+CIMI: ", ValueCut::to_line_end};
extern const AtQuery ccid_query = {"AT+CCID\r", "+CCID:", "+CCID: ", "+CCID: ", ValueCut::to_line_end};
extern const AtQuery msisdn_query = {"AT+CNUM\r", "+CNUM:", "+CNUM: ", "+CNUM: ", ValueCut::quoted_field};
extern const AtQuery roaming_status_query = {"AT+CREG?\r", "+CREG:", "+CREG: ", "+CREG: ", ValueCut::digits_field};
extern const AtQuery support_tech_query = {"AT+GTRAT=?\r", "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_line_end};
extern const AtQuery prefer_tech_query = {"AT+GTRAT?\r", "+GTRAT:", "+GTRAT:", "+GTRAT: ", ValueCut::to_line_end};
extern const AtQuery current_tech_query = {"AT+GTRAT?\r", "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_comma};
extern const AtQuery network_requested_query = {"AT+GTRAT?\r",
                                                "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_line_end};
extern const AtQuery model_query = {"AT+GMM?\r", "+GMM:", "+GMM: ", "+GMM: ", ValueCut::quoted};
extern const AtQuery manufacturer_query = {"AT+CGMI?\r", "+CGMI:", "+CGMI: ", "+CGMI: ", ValueCut::quoted};
extern const AtQuery hw_version_query = {
    "ATI9\r", "Hardware version:", "\"Hardware version:", "Hardware version:", ValueCut::hardware_version};
extern const AtQuery sw_version_query = {"AT+CGMR?\r", "+CGMR:", "+CGMR: ", "+CGMR: ", ValueCut::quoted_empty_too};
extern const AtQuery sim_status_query = {"AT+CPIN?\r", "+CPIN:", "+CPIN: ", "+CPIN: ", ValueCut::to_line_end};
extern const AtQuery pdp_contexts_query = {"AT+CGACT?\r",
                                           "+CGACT:", "+CGACT: ", "+CGACT: ", ValueCut::after_each_comma};
extern const AtQuery caller_id_query = {"AT+CLCC\r", "+CLCC:", "1,4,0,0,\"", "1,4,0,0,\"", ValueCut::to_quote};

// Between the first double quote and the first one that is at least `distance` characters behind it.
static Cut between_quotes(std::string_view text, size_t distance)
{
    Cut inside = after_marker(text, "\"");
    size_t end = inside.found ? inside.text.find('"', distance - 1) : std::string_view::npos;
    if (end == std::string_view::npos)
        return {{}, false};
    return {inside.text.substr(0, end), true};
}

static Cut leading_digits(std::string_view text)
{
    text = text.substr(0, text.find_first_not_of("0123456789"));
    return {text, !text.empty()};
}

static std::string_view second_field(std::string_view text)
{
    std::string_view field;
    return next_field(&text, &field) && next_field(&text, &field) ? trimmed(field) : std::string_view();
}

static Cut cut_value(ValueCut cut, std::string_view value, bool line_ended)
{
    switch (cut) {
    case ValueCut::to_line_end:
        return {unquoted(trimmed(value)), line_ended};
    case ValueCut::to_comma:
        return until_any(value, ",");
    case ValueCut::quoted:
        return between_quotes(value, 2);
    case ValueCut::quoted_empty_too:
        return between_quotes(value, 1);
    case ValueCut::quoted_field:
        return between_quotes(second_field(value), 1);
    case ValueCut::digits_field:
        return leading_digits(second_field(value));
    case ValueCut::hardware_version:
        return until_any(behind(value, 1), "\"");
    case ValueCut::to_quote:
        return until_any(value, "\"");
    case ValueCut::after_each_comma:
        break; // gathered, not cut
    }
    return {{}, false};
}

// The characters behind the commas of all lines of the query, written to `out`; false when they do not fit.
static bool gather_after_commas(const AtQuery &query, std::string_view answer, std::span<char> out)
{
    size_t used = 0;
    std::string_view line;
    while (next_own_line(&answer, query.expected, &line)) {
        for (Cut rest = after_marker(line, ","); rest.found; rest = after_marker(rest.text, ",")) {
            std::string_view state = trimmed(rest.text);
            if (state.empty())
                continue;
            if (used + 1 < out.size())
                out[used] = state.front();
            used++;
        }
    }
    if (used >= out.size()) {
        out[0] = '\0';
        return false;
    }
    out[used] = '\0';
    return true;
}

static bool names_value(const AtQuery &query, std::string_view line)
{
    if (query.cut == ValueCut::hardware_version)
        return line.find(query.expected) != std::string_view::npos;
    return own_line(line, query.expected).found;
}

// The value of the first line that has one; reports and other lines of the answer may stand around it.
static Cut find_value(const AtQuery &query, std::string_view answer)
{
    std::string_view line;
    while (next_line(&answer, &line)) {
        if (!names_value(query, line))
            continue;
        Cut marked = after_marker(line, query.value_marker);
        Cut value = marked.found ? cut_value(query.cut, marked.text, !answer.empty()) : marked;
        if (value.found)
            return value;
    }
    return {{}, false};
}

static result_t take_value(const AtQuery &query, const AtAnswer &answer, std::span<char> out)
{
    if (!answer.usable())
        return answer.code;
    bool fits;
    if (query.cut == ValueCut::after_each_comma) {
        fits = gather_after_commas(query, answer.view(), out);
    } else {
        Cut value = find_value(query, answer.view());
        fits = !value.found || copy_text(out, value.text);
    }
    if (fits)
        return answer.code;
    CELMUX_LOG(LOG_ERR, "value of %.*s longer than %u characters", "at_run_query",
               static_cast<int>(std::string_view(query.command).size() - 1), query.command,
               static_cast<unsigned>(out.size() - 1));
    return RESULT_ERROR;
}

result_t at_run_query(const AtQuery &query, std::span<char> out)
{
    AtAnswer answer;
    at_exchange(query.command, query.expected, query.complete_marker, &answer);
    return take_value(query, answer, out);
}

result_t at_get_sim_status(std::span<char> out)
{
    AtAnswer answer;
    const AtQuery &query = sim_status_query;
    at_exchange(query.command, query.expected, query.complete_marker, &answer);
    std::string_view state = own_line(answer.view(), query.expected).text;
    // A notice that cannot be sent is logged there, and sent with the next answer.
    if (state.find("READY") != std::string_view::npos || state.find("Ready") != std::string_view::npos)
        (void)at_wanmd_set_sim_status(1);
    else if (answer.view().find("ERROR") != std::string_view::npos)
        (void)at_wanmd_set_sim_status(0);
    return take_value(query, answer, out);
}
