#include "link_text.h"

#include <cstring>

#include "final_results.h"
#include "text_cut.h"

// Results of commands that set a connection up; for all other commands they are reports.
static constexpr std::string_view DIAL_RESULTS[] = {"NO CARRIER", "NO ANSWER", "NO DIALTONE", "BUSY", "CONNECT"};

struct Report {
    std::string_view prefix;
    bool two_lines;
};
static constexpr Report REPORTS[] = {
    {"+CMTI:", false},   {"+CMT:", true},     {"+CDSI:", false},       {"+CDS:", true},     {"+CBMI:", false},
    {"+CBM:", true},     {"+CREG:", false},   {"+CGREG:", false},      {"+CEREG:", false},  {"+C5GREG:", false},
    {"+CGEV:", false},   {"+CTZV:", false},   {"+CTZE:", false},       {"+CTZDST:", false}, {"+CUSD:", false},
    {"+CCWA:", false},   {"+CRING:", false},  {"+CLIP:", false},       {"+COLP:", false},   {"+CSSI:", false},
    {"+CSSU:", false},   {"+CPIN:", false},   {"+SIM", false},         {"+ESIMS:", false},  {"+CIREPI:", false},
    {"+CIREPH:", false}, {"+CNEMIU:", false}, {"+EONSNWNAME:", false}, {"+CIEV:", false},   {"+CSCON:", false},
    {"+CMWI:", false},   {"+CGDEL:", false},  {"+GTDUALSIM:", false},  {"RING", false},     {"RDY", false},
};

static char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

static bool is_word(char c)
{
    return (upper(c) >= 'A' && upper(c) <= 'Z') || (c >= '0' && c <= '9');
}

static bool same_name(std::string_view left, std::string_view right)
{
    if (left.size() != right.size())
        return false;
    for (size_t i = 0; i < left.size(); i++) {
        if (upper(left[i]) != upper(right[i]))
            return false;
    }
    return true;
}

// Does the command hold the name, and does the name end there?
static bool command_names(std::string_view command, std::string_view name)
{
    for (size_t at = 0; at + name.size() <= command.size(); at++) {
        size_t end = at + name.size();
        if (same_name(command.substr(at, name.size()), name) && (end == command.size() || !is_word(command[end])))
            return true;
    }
    return false;
}

std::string_view command_line(std::string_view command)
{
    return command.ends_with('\r') ? command.substr(0, command.size() - 1) : command;
}

CommandKind kind_of_command(std::string_view command)
{
    if (command == "AT+COPS=?\r")
        return CommandKind::scan;
    if (command.size() < 3 || !same_name(command.substr(0, 2), "AT"))
        return CommandKind::plain;
    char verb = upper(command[2]);
    bool dials = verb == 'D' || verb == 'A' || verb == 'O' || command_names(command, "+CGDATA") ||
                 command_names(command, "$QCRMCALL");
    return dials ? CommandKind::dial : CommandKind::plain;
}

bool asks_question(std::string_view command)
{
    return command_line(command).ends_with('?');
}

static bool is_dial_result(std::string_view line)
{
    for (std::string_view result : DIAL_RESULTS) {
        if (line.starts_with(result) && (line.size() == result.size() || line[result.size()] == ' '))
            return true;
    }
    return false;
}

bool is_final_result(std::string_view line, CommandKind kind)
{
    while (line.ends_with(' '))
        line.remove_suffix(1);
    const char *entry = matching_result(line);
    if (!entry)
        return false;
    if (is_dial_result(line))
        return kind == CommandKind::dial;
    size_t length = strlen(entry);
    return line.size() == length || (entry[0] == '+' && line[length] == ':');
}

static const Report *find_report(std::string_view line)
{
    for (const Report &report : REPORTS) {
        if (line.starts_with(report.prefix))
            return &report;
    }
    return nullptr;
}

std::string_view name_in(std::string_view line)
{
    if (line.size() < 2 || std::string_view("+$^*%#_").find(line[0]) == std::string_view::npos)
        return {};
    size_t end = 1;
    while (end < line.size() && is_word(line[end]))
        end++;
    bool named = end > 1 && end < line.size() && line[end] == ':';
    return named ? line.substr(0, end) : std::string_view();
}

LineName name_of_line(std::string_view line, std::string_view command)
{
    std::string_view name = name_in(line);
    if (name.empty())
        return LineName::none;
    return command_names(command, name) ? LineName::own : LineName::foreign;
}

bool is_report(std::string_view line, std::string_view command)
{
    if (is_dial_result(line))
        return kind_of_command(command) != CommandKind::dial;
    return find_report(line) && name_of_line(line, command) != LineName::own;
}

bool has_line_of(std::string_view text, std::string_view name)
{
    std::string_view rest = text, line;
    while (next_line(&rest, &line)) {
        if (line.starts_with(name))
            return true;
    }
    return false;
}

bool is_report_header(std::string_view line)
{
    const Report *report = find_report(line);
    return report && report->two_lines;
}

bool begins_message_text(std::string_view line)
{
    return (line.starts_with("+CMGL:") || line.starts_with("+CMGR:")) && line.find('"') != std::string_view::npos;
}

void remove_reports(char *answer, std::string_view command)
{
    std::string_view rest = answer, line;
    char *kept = answer; // where the next bytes go that stay
    const char *from = answer;
    bool header = false; // the line before announces a second one
    while (next_line(&rest, &line) && !begins_message_text(line)) {
        bool second = header && !line.starts_with('+');
        bool report = find_report(line) && is_report(line, command);
        header = report && is_report_header(line);
        if (!second && !report)
            continue;
        // The line goes together with the line end behind it.
        size_t before = static_cast<size_t>(line.data() - from);
        memmove(kept, from, before);
        kept += before;
        from = line.data() + line.size();
        from += strspn(from, "\r");
        from += *from == '\n';
    }
    if (from != answer)
        memmove(kept, from, strlen(from) + 1);
}
