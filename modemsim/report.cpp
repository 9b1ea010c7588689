#include "control_commands.h"
#include "sms_submit.h"
#include "state_json.h"

namespace modemsim {

using nlohmann::json;

namespace {

json message_report(const Message &message)
{
    return {{"id", message.id},
            {"pdu", message.pdu},
            {"status", static_cast<int>(message.status)},
            {"storage", message.storage},
            {"index", message.index},
            {"reads", message.reads},
            {"handed_over", message.handed_over},
            {"deleted", message.deleted}};
}

/// The history grows for as long as the modem runs: it is listed only where it is asked for.
json messages_report(const SmsStore &messages, bool with_lists)
{
    json history = json::array();
    json stored = json::array();
    int handed_over = 0;
    int deleted = 0;
    for (const Message &message : messages.history()) {
        handed_over += message.handed_over > 0 ? 1 : 0;
        deleted += message.deleted ? 1 : 0;
        if (!with_lists)
            continue;
        history.push_back(message_report(message));
        if (!message.storage.empty() && !message.deleted)
            stored.push_back(message_report(message));
    }
    json object = {{"waiting", messages.waiting()},
                   {"capacity", messages.capacity()},
                   {"used", {{"SM", messages.used("SM")}, {"ME", messages.used("ME")}}},
                   {"handed_over", handed_over},
                   {"deleted", deleted}};
    if (with_lists) {
        object["stored"] = std::move(stored);
        object["history"] = std::move(history);
    }
    return object;
}

json submissions_report(const Modem &modem)
{
    json list = json::array();
    for (const Submission &one : modem.submissions) {
        json object = {{"pdu", one.pdu}, {"length", one.length}, {"reference", one.reference}, {"result", one.result}};
        Submit message = decode_submit(one.pdu);
        if (message.valid) {
            object["to"] = message.to;
            object["text"] = message.text;
            if (message.parts > 1)
                object.update({{"part", message.part}, {"parts", message.parts}, {"ref", message.reference}});
        }
        list.push_back(std::move(object));
    }
    return list;
}

json calls_report(const Modem &modem)
{
    json list = json::array();
    for (const Call &call : modem.calls)
        list.push_back({{"number", call.number}, {"stage", static_cast<int>(call.stage)}});
    return list;
}

json troubles_report(const Troubles &troubles)
{
    json rules = json::array();
    for (const RulePtr &rule : troubles.rules())
        rules.push_back({{"kind", trouble_name(rule->kind)},
                         {"command", rule->command},
                         {"seen", rule->seen},
                         {"struck", rule->struck}});
    return {{"counts", troubles.counts()}, {"rules", rules}};
}

} // namespace

json report(const Engine &engine, std::string_view pointer)
{
    const Modem &modem = engine.modem;
    bool messages = pointer.empty() || pointer.starts_with("/messages");
    bool lists = pointer.empty() || pointer == "/messages" || pointer.starts_with("/messages/history") ||
                 pointer.starts_with("/messages/stored");
    json whole = {{"modem", state_to_json(modem.state)},
                  {"registration", static_cast<int>(modem.registration())},
                  {"service", modem.has_service()},
                  {"scanning", engine.scanning()},
                  {"port",
                   {{"present", engine.port_present()},
                    {"losses", engine.port_losses()},
                    {"dropped_input", engine.dropped_input()}}},
                  {"commands", {{"count", engine.commands()}, {"by_name", engine.commands_by_name()}}},
                  {"calls", calls_report(modem)},
                  {"troubles", troubles_report(engine.troubles)}};
    if (messages)
        whole["messages"] = messages_report(modem.messages, lists);
    if (pointer.empty() || pointer.starts_with("/submissions"))
        whole["submissions"] = submissions_report(modem);
    return pointer.empty() ? whole : whole.at(json::json_pointer(std::string(pointer)));
}

} // namespace modemsim
