#include "commands.h"

#include <fmt/format.h>

#include "refusals.h"

namespace modemsim {

namespace {

int octet_at(const std::string &pdu, size_t octet)
{
    int value = 0;
    for (size_t i = octet * 2; i < octet * 2 + 2; i++) {
        char c = i < pdu.size() ? pdu[i] : 'x';
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0)
            return -1;
        value = value * 16 + digit;
    }
    return value;
}

/// The length that AT+CMGR and AT+CMGS count: the PDU without its service centre address.
int tpdu_length(const std::string &pdu)
{
    int centre = octet_at(pdu, 0);
    return centre < 0 ? 0 : static_cast<int>(pdu.size() / 2) - 1 - centre;
}

bool known_storage(const std::string &name)
{
    return name == "SM" || name == "ME";
}

Reply storages(Modem &modem, const AtCommand &command)
{
    auto &chosen = modem.state.settings.cpms;
    int capacity = modem.messages.capacity();
    if (command.form == Form::test)
        return reply_line("+CPMS: (\"SM\",\"ME\"),(\"SM\",\"ME\"),(\"SM\",\"ME\")");
    if (command.form == Form::set) {
        for (size_t i = 0; i < 3; i++)
            if ((i == 0 || command.has(i)) && !known_storage(command.text(i)))
                return cms(modem, 302);
        for (size_t i = 0; i < 3; i++)
            if (command.has(i))
                chosen[i] = command.text(i);
        std::string rows;
        for (const std::string &name : chosen)
            rows += fmt::format("{}{},{}", rows.empty() ? "" : ",", modem.messages.used(name), capacity);
        return reply_line("+CPMS: " + rows);
    }
    std::string rows;
    for (const std::string &name : chosen)
        rows += fmt::format("{}\"{}\",{},{}", rows.empty() ? "" : ",", name, modem.messages.used(name), capacity);
    return reply_line("+CPMS: " + rows);
}

Reply message_format(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::read)
        return reply_line(fmt::format("+CMGF: {}", modem.state.settings.cmgf));
    if (command.form == Form::test)
        return reply_line("+CMGF: (0,1)");
    std::optional<int> format = command.number(0);
    if (command.form != Form::set || !format || *format > 1)
        return cms(modem, 304);
    modem.state.settings.cmgf = *format;
    return reply_ok();
}

Reply indications(Modem &modem, const AtCommand &command)
{
    auto &cnmi = modem.state.settings.cnmi;
    if (command.form == Form::read)
        return reply_line(fmt::format("+CNMI: {},{},{},{},{}", cnmi[0], cnmi[1], cnmi[2], cnmi[3], cnmi[4]));
    if (command.form == Form::test)
        return reply_line("+CNMI: (0,1,2),(0,1,2,3),(0,2),(0,1,2),(0,1)");
    constexpr int highest[] = {2, 3, 2, 2, 1};
    std::array<int, 5> wanted = {};
    if (command.form != Form::set || command.args.size() > wanted.size())
        return cms(modem, 302);
    for (size_t i = 0; i < command.args.size(); i++) {
        wanted[i] = command.number(i).value_or(command.has(i) ? 99 : cnmi[i]);
        if (wanted[i] > highest[i])
            return cms(modem, 302);
    }
    cnmi = wanted;
    return reply_ok();
}

constexpr std::string_view text_status[] = {"REC UNREAD", "REC READ", "STO UNSENT", "STO SENT"};

/// The lines of one message; a message that was unread is read from now on.
void add_message(const Modem &modem, std::string_view prefix, Message &message, Reply &reply)
{
    int status = static_cast<int>(message.status);
    if (modem.state.settings.cmgf == 1)
        // Text mode shows the PDU for its text: nothing here reads messages that way.
        reply.lines.push_back(fmt::format("{}\"{}\",\"\",,\"\"", prefix, text_status[status]));
    else
        reply.lines.push_back(fmt::format("{}{},,{}", prefix, status, tpdu_length(message.pdu)));
    reply.lines.push_back(message.pdu);
    reply.messages.push_back(message.id);
    message.reads++;
    if (message.status == MessageStatus::unread)
        message.status = MessageStatus::read;
}

Reply read_message(Modem &modem, const AtCommand &command)
{
    std::optional<int> index = command.number(0);
    Message *message = index ? modem.messages.at(modem.state.settings.cpms[0], *index) : nullptr;
    if (command.form != Form::set || message == nullptr)
        return cms(modem, 321);
    Reply reply;
    add_message(modem, "+CMGR: ", *message, reply);
    return reply;
}

Reply list_messages(Modem &modem, const AtCommand &command)
{
    std::optional<int> wanted = command.number(0);
    if (command.form == Form::execute)
        wanted = 0;
    if (modem.state.settings.cmgf == 1)
        for (int i = 0; i < 4; i++)
            if (command.text(0) == text_status[i])
                wanted = i;
    if (modem.state.settings.cmgf == 1 && command.text(0) == "ALL")
        wanted = 4;
    if (command.form == Form::test)
        return reply_line("+CMGL: (0-4)");
    if (!wanted || *wanted > 4)
        return cms(modem, 302);
    Reply reply;
    for (Message *message : modem.messages.all(modem.state.settings.cpms[0])) {
        if (*wanted != 4 && static_cast<int>(message->status) != *wanted)
            continue;
        add_message(modem, fmt::format("+CMGL: {},", message->index), *message, reply);
    }
    return reply;
}

Reply delete_messages(Modem &modem, const AtCommand &command)
{
    const std::string &storage = modem.state.settings.cpms[0];
    std::optional<int> index = command.number(0);
    int flag = command.number(1).value_or(0);
    if (command.form == Form::test)
        return reply_line(fmt::format("+CMGD: (1-{}),(0-4)", modem.messages.capacity()));
    if (command.form != Form::set || !index || flag > 4 || (command.has(1) && !command.number(1)))
        return cms(modem, 302);
    if (flag > 0)
        modem.messages.erase_read(storage, flag);
    else if (*index < 1 || *index > modem.messages.capacity())
        return cms(modem, 321);
    else
        modem.messages.erase(storage, *index);
    modem.timers.after(0, [&modem] { modem.store_waiting(); });
    return reply_ok();
}

Reply begin_submission(Modem &modem, const AtCommand &command)
{
    if (command.form == Form::test)
        return reply_ok();
    bool valid = command.form == Form::set && command.has(0);
    if (modem.state.settings.cmgf == 0)
        valid = valid && command.number(0).value_or(0) > 0;
    if (!valid)
        return cms(modem, modem.state.settings.cmgf == 0 ? 304 : 305);
    Reply reply;
    reply.kind = ReplyKind::prompt;
    return reply;
}

Reply service_centre(Modem &modem, const AtCommand &command)
{
    std::string &centre = modem.state.sim.smsc;
    if (command.form == Form::set && command.has(0)) {
        centre = command.text(0);
        return reply_ok();
    }
    return reply_line(fmt::format("+CSCA: \"{}\",{}", centre, centre.starts_with('+') ? 145 : 129));
}

Reply acknowledge(Modem &, const AtCommand &)
{
    return reply_ok();
}

Reply services(Modem &, const AtCommand &command)
{
    return command.form == Form::read ? reply_line("+CSMS: 0,1,1,1") : reply_line("+CSMS: 1,1,1");
}

template<CommandHandler Handler> Reply with_card(Modem &modem, const AtCommand &command)
{
    Reply refused = sms_card_error(modem, command);
    return refused.final == "OK" ? Handler(modem, command) : refused;
}

constexpr CommandRow table[] = {
    {"+CPMS", with_card<storages>},         {"+CMGF", with_card<message_format>},
    {"+CNMI", with_card<indications>},      {"+CMGR", with_card<read_message>},
    {"+CMGL", with_card<list_messages>},    {"+CMGD", with_card<delete_messages>},
    {"+CMGS", with_card<begin_submission>}, {"+CSCA", with_card<service_centre>},
    {"+CNMA", with_card<acknowledge>},      {"+CSMS", services},
};

} // namespace

std::span<const CommandRow> sms_commands()
{
    return table;
}

Reply submit_message(Modem &modem, const AtCommand &command, std::string_view data)
{
    Submission submission;
    int length = command.number(0).value_or(0);
    submission.length = length;
    for (char c : data)
        if (modem.state.settings.cmgf == 1 || (c != '\r' && c != '\n' && c != ' '))
            submission.pdu += modem.state.settings.cmgf == 1 || c < 'a' || c > 'f' ? c : static_cast<char>(c - 32);

    if (modem.state.settings.cmgf == 0) {
        bool whole = submission.pdu.size() % 2 == 0;
        for (size_t i = 0; whole && i < submission.pdu.size() / 2; i++)
            whole = octet_at(submission.pdu, i) >= 0;
        int centre = octet_at(submission.pdu, 0);
        int kind = whole && centre >= 0 ? octet_at(submission.pdu, static_cast<size_t>(centre) + 1) : -1;
        if (kind < 0 || (kind & 3) != 1 || tpdu_length(submission.pdu) != length)
            submission.result = 304;
    }
    if (submission.result == 0 && !modem.has_service())
        submission.result = 331;
    if (submission.result == 0)
        submission.result = modem.state.behaviour.sms_send_error;
    if (submission.result == 0)
        submission.reference = modem.next_reference();
    modem.submissions.push_back(submission);

    Reply reply = submission.result == 0 ? reply_line(fmt::format("+CMGS: {}", submission.reference))
                                         : cms(modem, submission.result);
    reply.delay_ms = modem.state.behaviour.sms_send_ms;
    return reply;
}

} // namespace modemsim
