#include "control_commands.h"

#include "record_file.h"
#include "sms_deliver.h"
#include "state_json.h"

#include <charconv>
#include <fmt/format.h>
#include <set>
#include <stdexcept>

namespace modemsim {

using nlohmann::json;

namespace {

/// Each message gets a time of its own: two messages with the same text are not the same message.
std::string next_time(const Engine &engine)
{
    size_t second = engine.modem.messages.history().size();
    return fmt::format("24-03-{:02} {:02}:{:02}:{:02}", 1 + second / 86400 % 28, second / 3600 % 24, second / 60 % 60,
                       second % 60);
}

/// The numbers of a list such as "2,1,3".
std::vector<size_t> number_list(const std::string &text)
{
    std::vector<size_t> numbers;
    for (size_t from = 0; from < text.size();) {
        size_t comma = std::min(text.find(',', from), text.size());
        numbers.push_back(static_cast<size_t>(whole_number(text.substr(from, comma - from))));
        from = comma + 1;
    }
    return numbers;
}

json receive_text(Engine &engine, const Request &request)
{
    Deliver message;
    message.from = request.words[0];
    message.text = request.words[1];
    message.time = request.option("time", next_time(engine));
    message.centre = request.option("centre", message.centre);
    message.ucs2 = request.option("alphabet", "") == "ucs2";
    message.wide_reference = request.number("width", 8) == 16;
    message.reference =
        static_cast<int>(request.number("ref", static_cast<int64_t>(1 + engine.modem.messages.history().size() % 255)));
    std::vector<std::string> pdus = deliver_pdus(message);
    std::vector<size_t> order = number_list(request.option("order", ""));
    if (order.empty())
        for (size_t i = 1; i <= pdus.size(); i++)
            order.push_back(i);
    json ids = json::array();
    for (size_t part : order) {
        if (part < 1 || part > pdus.size())
            throw std::invalid_argument(fmt::format("there is no part {}, the text has {}", part, pdus.size()));
        ids.push_back(engine.modem.receive(pdus[part - 1]));
    }
    return {{"ids", ids}, {"parts", pdus.size()}, {"pdus", pdus}};
}

json receive_pdu(Engine &engine, const Request &request)
{
    std::string pdu;
    for (char c : request.words[0])
        pdu += c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c;
    if (!is_deliver_pdu(pdu))
        throw std::invalid_argument("that is no PDU with a service centre address");
    return {{"id", engine.modem.receive(pdu)}};
}

json fill(Engine &engine, const Request &request)
{
    Modem &modem = engine.modem;
    std::string storage = request.words.empty() ? modem.state.settings.cpms[2] : request.words[0];
    int64_t leave = request.number("leave", 0);
    int added = 0;
    while (modem.messages.used(storage) + leave < modem.messages.capacity()) {
        Deliver message;
        message.from = "+4917000000";
        message.text = fmt::format("filler {}", modem.messages.history().size() + 1);
        message.time = next_time(engine);
        if (modem.messages.write(storage, deliver_pdus(message)[0], MessageStatus::unread) == 0)
            break;
        added++;
    }
    return {{"added", added}};
}

json ring(Engine &engine, const Request &request)
{
    engine.modem.ring(request.words[0]);
    return json::object();
}

json hang_up(Engine &engine, const Request &)
{
    engine.modem.hang_up(true);
    return json::object();
}

json signal(Engine &engine, const Request &request)
{
    Network &network = engine.modem.state.network;
    network.rssi = static_cast<int>(request.number("rssi", network.rssi));
    CellKind kind = network.cell;
    std::vector<Cell *> cells;
    if (kind == CellKind::lte || kind == CellKind::endc)
        cells.push_back(&network.lte);
    if (kind == CellKind::nr || kind == CellKind::endc)
        cells.push_back(&network.nr);
    if (kind == CellKind::umts)
        cells.push_back(&network.umts);
    for (Cell *cell : cells) {
        cell->rsrp = static_cast<int>(request.number("rsrp", cell->rsrp));
        cell->rsrq = static_cast<int>(request.number("rsrq", cell->rsrq));
        cell->sinr = static_cast<int>(request.number("sinr", cell->sinr));
    }
    return json::object();
}

json patch(Engine &engine, const json &change)
{
    Modem &modem = engine.modem;
    CellKind cell = modem.cell();
    Registration registration = modem.registration();
    patch_state(modem.state, change);
    modem.messages.set_capacity(modem.state.behaviour.sms_capacity);
    if (cell != modem.cell() || registration != modem.registration())
        modem.report_registration();
    if (modem.has_service())
        modem.store_waiting();
    return json::object();
}

json change_cell(Engine &engine, const Request &request)
{
    return patch(engine, {{"network", {{"cell", request.words[0]}}}});
}

json change_registration(Engine &engine, const Request &request)
{
    return patch(engine, {{"network", {{"registration", request.words[0]}}}});
}

json change_state(Engine &engine, const Request &request)
{
    return patch(engine, json::parse(request.words[0]));
}

json change_latency(Engine &engine, const Request &request)
{
    return patch(engine, {{"behaviour", {{"latency_ms", whole_number(request.words[0])}}}});
}

json sim(Engine &engine, const Request &request)
{
    Modem &modem = engine.modem;
    const std::string &what = request.words[0];
    if (what == "pull") {
        modem.pull_sim();
    } else if (what == "return") {
        modem.return_sim();
    } else if (what == "ready") {
        modem.unlock_sim();
    } else if (what == "pin" || what == "puk") {
        modem.state.sim.lock = true;
        modem.state.sim.state = what == "pin" ? SimState::pin : SimState::puk;
        if (what == "puk")
            modem.state.sim.pin_left = 0;
        modem.report_registration();
    } else {
        throw std::invalid_argument("sim is pull, return, ready, pin or puk");
    }
    return json::object();
}

json reset(Engine &engine, const Request &request)
{
    engine.modem.restart(request.number("ms", engine.modem.state.behaviour.restart_ms));
    return json::object();
}

json port(Engine &engine, const Request &request)
{
    if (request.words[0] == "away" && request.options.contains("ms"))
        engine.take_port_away(request.number("ms", 0));
    else if (request.words[0] == "away")
        engine.take_port_away(std::nullopt);
    else if (request.words[0] == "back")
        engine.bring_port_back();
    else
        throw std::invalid_argument("port is away or back");
    return json::object();
}

Reports place(const Request &request)
{
    std::string where = request.option("at", "between");
    if (where != "between" && where != "lines" && where != "bytes")
        throw std::invalid_argument("at is between, lines or bytes");
    return where == "between" ? Reports::between : where == "lines" ? Reports::lines : Reports::bytes;
}

json emit_line(Engine &engine, const Request &request)
{
    engine.emit(frame_line(request.words[0]), place(request));
    return json::object();
}

json emit_bytes(Engine &engine, const Request &request)
{
    engine.emit(unescaped(request.words[0]), place(request));
    return json::object();
}

json flood(Engine &engine, const Request &request)
{
    constexpr int64_t limit = 4 * 1024 * 1024;
    std::string text = request.option("text", "+CGEV: NW DETACH");
    std::string bytes;
    int64_t lines = request.number("lines", 0);
    for (int64_t i = 0; i < lines && static_cast<int64_t>(bytes.size()) < limit; i++)
        bytes += frame_line(text);
    bytes.append(static_cast<size_t>(std::clamp<int64_t>(request.number("bytes", 0), 0, limit)), 'x');
    engine.emit(bytes);
    return {{"bytes", bytes.size()}};
}

json trouble(Engine &engine, const Request &request)
{
    if (request.words[0] == "clear")
        engine.troubles.clear();
    else
        engine.troubles.add(trouble_from_json(json::parse(request.words[0])));
    return json::object();
}

json silence(Engine &engine, const Request &request)
{
    if (request.words[0] == "end")
        engine.be_silent(-1);
    else
        engine.be_silent(std::max<int64_t>(whole_number(request.words[0]), 0));
    return json::object();
}

json context(Engine &engine, const Request &request)
{
    int cid = static_cast<int>(whole_number(request.words[0]));
    if (!engine.modem.state.kept.contexts.contains(cid))
        throw std::invalid_argument("there is no such context");
    engine.modem.activate(cid, request.words[1] == "up");
    return json::object();
}

json state(Engine &engine, const Request &request)
{
    return {{"state", report(engine, request.words.empty() ? "" : request.words[0])}};
}

json ping(Engine &, const Request &)
{
    return json::object();
}

constexpr ControlCommand table[] = {
    {"ping", 0, 0, "", "ping: answers", ping},
    {"state", 0, 1, "", "state [/JSON/POINTER]: what the modem is and what has happened", state},
    {"set", 1, 1, "", "set JSON: merges JSON into the modem's state, such as {\"kept\":{\"ims\":0}}", change_state},
    {"sms", 2, 2, " ref width order time alphabet centre ",
     "sms FROM TEXT [ref=N] [width=8|16] [order=2,1,...] [time=\"YY-MM-DD hh:mm:ss\"] [alphabet=ucs2] [centre=NUMBER]: "
     "a message arrives; order picks and orders its parts",
     receive_text},
    {"pdu", 1, 1, "", "pdu HEX: a message arrives as this SMS-DELIVER with service centre address", receive_pdu},
    {"fill", 0, 1, " leave ", "fill [SM|ME] [leave=N]: unread messages fill the storage but for N slots", fill},
    {"ring", 1, 1, "", "ring NUMBER: a call comes in", ring},
    {"hangup", 0, 0, "", "hangup: the other side ends the call", hang_up},
    {"signal", 0, 0, " rssi rsrp rsrq sinr ", "signal [rssi=] [rsrp=] [rsrq=] [sinr=]: levels of the serving cell",
     signal},
    {"cell", 1, 1, "", "cell lte|nr|endc|umts|none: the best cell from now on", change_cell},
    {"register", 1, 1, "", "register home|roaming|searching|denied|off: what the network grants", change_registration},
    {"context", 2, 2, "", "context CID up|down: the network changes a context", context},
    {"sim", 1, 1, "", "sim pull|return|ready|pin|puk: what happens to the card", sim},
    {"reset", 0, 0, " ms ", "reset [ms=N]: the modem restarts; its port is away for N ms", reset},
    {"port", 1, 1, " ms ", "port away [ms=N] | port back: takes the port away and brings it back", port},
    {"emit", 1, 1, " at ",
     "emit LINE [at=between|lines|bytes]: an unsolicited line, between answers, lines of them, or anywhere", emit_line},
    {"raw", 1, 1, " at ", "raw TEXT [at=...]: bytes with the escapes \\r \\n \\xNN", emit_bytes},
    {"flood", 0, 0, " lines bytes text ", "flood [lines=N] [text=LINE] [bytes=N]: lines, then bytes without a line end",
     flood},
    {"silent", 1, 1, "", "silent MS|end: nothing goes out for MS (0: for ever)", silence},
    {"latency", 1, 1, "", "latency MS: the time that each answer takes", change_latency},
    {"trouble", 1, 1, "", "trouble JSON | trouble clear: adds a trouble as a profile has it, or forgets all", trouble},
};

} // namespace

std::string Request::option(const std::string &name, const std::string &otherwise) const
{
    auto found = options.find(name);
    return found == options.end() ? otherwise : found->second;
}

int64_t Request::number(const std::string &name, int64_t otherwise) const
{
    auto found = options.find(name);
    return found == options.end() ? otherwise : whole_number(found->second);
}

std::span<const ControlCommand> control_commands()
{
    return table;
}

int64_t whole_number(const std::string &text)
{
    int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument(fmt::format("\"{}\" is no number", text));
    return value;
}

} // namespace modemsim
