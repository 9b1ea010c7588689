#include "at_query.h"

#include "at_text.h"
#include "log.h"
#include "wanmd.h"

extern const AtQuery imei_query = {"AT+CGSN=1\r", "+CGSN:", "+CGSN: ", "+CGSN: ", ValueCut::to_cr};
extern const AtQuery imsi_query = {"AT+CIMI?\r", "+CIMI:", "+CIMI: ", "+CIMI: ", ValueCut::to_cr_or_lf};
extern const AtQuery ccid_query = {"AT+CCID\r", "+CCID:", "+CCID: ", "+CCID: ", ValueCut::to_cr};
extern const AtQuery msisdn_query = {"AT+CNUM\r", "+CNUM:", "+CNUM: ", "+CNUM: ", ValueCut::quoted_after_comma};
extern const AtQuery roaming_status_query = {"AT+CREG?\r", "+CREG:", "+CREG: ", "+CREG: ", ValueCut::digits_after_comma};
extern const AtQuery support_tech_query = {"AT+GTRAT=?\r", "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_cr};
extern const AtQuery prefer_tech_query = {"AT+GTRAT?\r", "+GTRAT:", "+GTRAT:", "+GTRAT: ", ValueCut::to_cr_or_lf};
extern const AtQuery current_tech_query = {"AT+GTRAT?\r", "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_comma};
extern const AtQuery network_requested_query = {"AT+GTRAT?\r", "+GTRAT:", "+GTRAT: ", "+GTRAT: ", ValueCut::to_cr};
extern const AtQuery model_query = {"AT+GMM?\r", "+GMM:", "+GMM: ", "+GMM: ", ValueCut::quoted};
extern const AtQuery manufacturer_query = {"AT+CGMI?\r", "+CGMI:", "+CGMI: ", "+CGMI: ", ValueCut::quoted};
extern const AtQuery hw_version_query = {"ATI9\r", "Hardware version:", "\"Hardware version:", "Hardware version:",
                                         ValueCut::hardware_version};
extern const AtQuery sw_version_query = {"AT+CGMR?\r", "+CGMR:", "+CGMR: ", "+CGMR: ", ValueCut::quoted_empty_too};
extern const AtQuery sim_status_query = {"AT+CPIN?\r", "+CPIN:", "+CPIN: ", "+CPIN: ", ValueCut::to_cr_or_lf};
extern const AtQuery pdp_contexts_query = {"AT+CGACT?\r", "+CGACT:", "+CGACT: ", "+CGACT: ", ValueCut::after_each_comma};
extern const AtQuery caller_id_query = {"AT+CLCC\r", "+CLCC:", "1,4,0,0,\"", "1,4,0,0,\"", ValueCut::to_quote};

static Cut without_quotes(Cut value)
{
    std::string_view text = value.text;
    if (value.found && text.size() >= 2 && text.front() == '"' && text.back() == '"')
        value.text = text.substr(1, text.size() - 2);
    return value;
}

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
    size_t end = text.find_first_not_of("0123456789");
    if (end == std::string_view::npos)
        end = text.size();
    return {text.substr(0, end), end > 0};
}

// From two characters behind `mark` up to the next double quote.
static Cut two_behind(std::string_view text, std::string_view mark)
{
    Cut rest = after_marker(text, mark);
    if (!rest.found || rest.text.empty())
        return {{}, false};
    return until_any(rest.text.substr(1), "\"");
}

static Cut cut_value(ValueCut cut, std::string_view answer, std::string_view value)
{
    switch (cut) {
    case ValueCut::to_cr:
        return without_quotes(until_any(value, "\r"));
    case ValueCut::to_cr_or_lf: {
        Cut line = until_any(value, "\r");
        return without_quotes(line.found ? line : until_any(value, "\n"));
    }
    case ValueCut::to_comma:
        return until_any(value, ",");
    case ValueCut::quoted:
        return between_quotes(value, 2);
    case ValueCut::quoted_empty_too:
        return between_quotes(value, 1);
    case ValueCut::quoted_after_comma:
        return two_behind(value, ",");
    case ValueCut::digits_after_comma: {
        Cut rest = after_marker(value, ",");
        return rest.found ? leading_digits(rest.text) : rest;
    }
    case ValueCut::hardware_version:
        return two_behind(answer, ":");
    case ValueCut::to_quote:
        return until_any(value, "\"");
    case ValueCut::after_each_comma:
        break; // gathered, not cut
    }
    return {{}, false};
}

// The characters behind the commas, written to `out`; false when they do not fit.
static bool gather_after_commas(std::span<char> out, std::string_view text)
{
    size_t used = 0;
    for (size_t at = text.find(','); at != std::string_view::npos && at + 1 < text.size(); at = text.find(',', at + 1)) {
        if (used + 1 < out.size())
            out[used] = text[at + 1];
        used++;
    }
    if (used >= out.size()) {
        out[0] = '\0';
        return false;
    }
    out[used] = '\0';
    return true;
}

static result_t take_value(const AtQuery &query, const AtAnswer &answer, std::span<char> out)
{
    if (!answer.usable())
        return answer.code;
    Cut marked = after_marker(answer.view(), query.value_marker);
    if (!marked.found)
        return answer.code;
    bool fits;
    if (query.cut == ValueCut::after_each_comma) {
        fits = gather_after_commas(out, answer.view());
    } else {
        Cut value = cut_value(query.cut, answer.view(), marked.text);
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
    std::string_view text = answer.view();
    // A notice that cannot be sent is logged there, and sent with the next answer.
    if (text.find("READY") != std::string_view::npos || text.find("Ready") != std::string_view::npos)
        (void)at_wanmd_set_sim_status(1);
    else if (text.find("ERROR") != std::string_view::npos)
        (void)at_wanmd_set_sim_status(0);
    return take_value(query, answer, out);
}
