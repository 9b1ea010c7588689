#include "state_json.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace modemsim {

using nlohmann::json;

NLOHMANN_JSON_SERIALIZE_ENUM(SimState, {{SimState::ready, "ready"},
                                        {SimState::absent, "absent"},
                                        {SimState::pin, "pin"},
                                        {SimState::puk, "puk"},
                                        {SimState::blocked, "blocked"}})
NLOHMANN_JSON_SERIALIZE_ENUM(CellKind, {{CellKind::none, "none"},
                                        {CellKind::lte, "lte"},
                                        {CellKind::nr, "nr"},
                                        {CellKind::endc, "endc"},
                                        {CellKind::umts, "umts"}})
NLOHMANN_JSON_SERIALIZE_ENUM(Registration, {{Registration::off, "off"},
                                            {Registration::home, "home"},
                                            {Registration::searching, "searching"},
                                            {Registration::denied, "denied"},
                                            {Registration::roaming, "roaming"}})
NLOHMANN_JSON_SERIALIZE_ENUM(Refusal, {{Refusal::cme14, "cme14"}, {Refusal::error, "error"}, {Refusal::queue, "queue"}})
NLOHMANN_JSON_SERIALIZE_ENUM(Reports,
                             {{Reports::between, "between"}, {Reports::lines, "lines"}, {Reports::bytes, "bytes"}})
NLOHMANN_JSON_SERIALIZE_ENUM(NoSimStyle, {{NoSimStyle::cms310, "cms310"}, {NoSimStyle::fm160, "fm160"}})

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Identity, manufacturer, model, revision, package, hardware, imei,
                                                serial)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Sim, state, lock, pin, puk, pin_left, puk_left, pin2_left, puk2_left,
                                                imsi, iccid, msisdn, smsc)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Cell, tac, cellid, arfcn, pci, band, bandwidth, rsrp, rsrq, sinr)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Operator, stat, name, brief, numeric, act)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Network, registration, cell, mcc, mnc, name, brief, rssi, lte, nr, umts,
                                                neighbours, operators)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Settings, echo, cmee, cmgf, cnmi, cpms, creg, cgreg, cereg, c5greg,
                                                cops_mode, cops_format, clip, cellinfo, pcm_loopback, cfun)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Context, type, apn, auth, user, password, active)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Behaviour, latency_ms, delays, scan_ms, scan_refusal, reports, no_sim,
                                                restart_delay_ms, restart_ms, sim_ready_ms, register_ms, sms_send_ms,
                                                ring_interval_ms, address, ipv4, ipv6, sms_capacity, sms_send_error,
                                                serial_numbers)

void to_json(json &object, const Kept &kept)
{
    object = json{{"pcm_out", kept.pcm_out}, {"msmpd", kept.msmpd}, {"simswap", kept.simswap},
                  {"ims", kept.ims},         {"sa", kept.sa},       {"interface_mode", kept.interface_mode},
                  {"roaming", kept.roaming}, {"rat", kept.rat},     {"pref1", kept.pref1},
                  {"pref2", kept.pref2},     {"bands", kept.bands}, {"contexts", json::object()}};
    for (const auto &[cid, context] : kept.contexts)
        object["contexts"][std::to_string(cid)] = context;
}

void from_json(const json &object, Kept &kept)
{
    const std::pair<const char *, int Kept::*> numbers[] = {
        {"pcm_out", &Kept::pcm_out}, {"msmpd", &Kept::msmpd}, {"simswap", &Kept::simswap},
        {"ims", &Kept::ims},         {"sa", &Kept::sa},       {"interface_mode", &Kept::interface_mode},
        {"roaming", &Kept::roaming}, {"rat", &Kept::rat},     {"pref1", &Kept::pref1},
        {"pref2", &Kept::pref2}};
    for (const auto &[name, member] : numbers)
        kept.*member = object.value(name, Kept{}.*member);
    kept.bands = object.value("bands", kept.bands);
    kept.contexts.clear();
    json contexts = object.value("contexts", json::object());
    for (const auto &[cid, context] : contexts.items())
        kept.contexts[std::stoi(cid)] = context.get<Context>();
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(State, identity, sim, network, settings, after_restart, kept, behaviour)

namespace {

/// Finds what of `wanted` did not arrive in `got`: a member that is unknown or a value that was not understood.
void compare(const json &wanted, const json &got, const std::string &place)
{
    if (wanted.is_object() && got.is_object()) {
        for (const auto &[name, value] : wanted.items()) {
            if (value.is_null())
                continue;
            if (!got.contains(name))
                throw std::invalid_argument(fmt::format("{}/{} does not exist", place, name));
            compare(value, got[name], place + "/" + name);
        }
    } else if (wanted.is_array() && got.is_array() && wanted.size() == got.size()) {
        for (size_t i = 0; i < wanted.size(); i++)
            compare(wanted[i], got[i], fmt::format("{}/{}", place, i));
    } else if (wanted != got) {
        throw std::invalid_argument(fmt::format("{}: {} is not understood", place, wanted.dump()));
    }
}

Where where_from(const std::string &text)
{
    if (text == "before" || text == "write")
        return Where::before;
    if (text == "inside" || text == "answer")
        return Where::inside;
    if (text == "after")
        return Where::after;
    if (text == "anywhere")
        return Where::anywhere;
    throw std::invalid_argument(fmt::format("where: \"{}\" is not understood", text));
}

TroubleRule default_rule(TroubleKind kind)
{
    TroubleRule rule;
    rule.kind = kind;
    switch (kind) {
    case TroubleKind::unsolicited:
        rule.text = "+CGEV: NW DETACH";
        break;
    case TroubleKind::holds:
        rule.text = "+NOTE: OK";
        break;
    case TroubleKind::error:
        rule.text = "ERROR";
        break;
    case TroubleKind::rubbish:
        rule.bytes = 16;
        break;
    case TroubleKind::endless:
        rule.bytes = 1024 * 1024;
        break;
    case TroubleKind::vanish:
        rule.where = Where::inside;
        rule.ms = {1000, 1000};
        break;
    default: // the others need nothing
        break;
    }
    return rule;
}

} // namespace

json state_to_json(const State &state)
{
    return state;
}

void patch_state(State &state, const json &patch)
{
    json merged = state;
    merged.merge_patch(patch);
    State fresh;
    try {
        fresh = merged.get<State>();
    } catch (const std::exception &error) {
        throw std::invalid_argument(error.what());
    }
    compare(patch, json(fresh), "");
    state = fresh;
}

Range range_from_json(const json &value)
{
    if (value.is_array() && value.size() == 2)
        return {value[0].get<int64_t>(), value[1].get<int64_t>()};
    return {value.get<int64_t>(), value.get<int64_t>()};
}

TroubleRule trouble_from_json(const json &value)
try {
    std::string name = value.at("kind").get<std::string>();
    bool prompt = name == "prompt_late";
    std::optional<TroubleKind> kind = trouble_kind(prompt ? "late" : name);
    if (!kind)
        throw std::invalid_argument(fmt::format("there is no trouble \"{}\"", name));
    TroubleRule rule = default_rule(*kind);
    if (prompt)
        rule.stage = Stage::prompt;
    for (const auto &[key, member] : value.items()) {
        if (key == "command")
            rule.command = member.get<std::string>();
        else if (key == "nth")
            rule.nth = member.get<int64_t>();
        else if (key == "every")
            rule.every = member.get<int64_t>();
        else if (key == "probability")
            rule.probability = member.get<double>();
        else if (key == "times")
            rule.times = member.get<int64_t>();
        else if (key == "ms")
            rule.ms = range_from_json(member);
        else if (key == "bytes")
            rule.bytes = std::clamp<int64_t>(member.get<int64_t>(), 0, 16 * 1024 * 1024);
        else if (key == "at")
            rule.at = member.get<int64_t>();
        else if (key == "parts")
            rule.parts = std::clamp<int64_t>(member.get<int64_t>(), 0, 4096);
        else if (key == "text")
            rule.text = member.get<std::string>();
        else if (key == "where")
            rule.where = where_from(member.get<std::string>());
        else if (key == "stage")
            rule.stage = member.get<std::string>() == "prompt" ? Stage::prompt : Stage::answer;
        else if (key == "reset")
            rule.reset = member.get<bool>();
        else if (key == "answer")
            rule.answer = member.get<bool>();
        else if (key == "busy")
            rule.busy = member.get<bool>();
        else if (key != "kind")
            throw std::invalid_argument(fmt::format("a trouble has no \"{}\"", key));
    }
    if (rule.stage == Stage::prompt && rule.command.empty())
        rule.command = "AT+CMGS"; // no other command has a prompt, and none is to be counted
    return rule;
} catch (const json::exception &error) {
    throw std::invalid_argument(error.what());
}

} // namespace modemsim
