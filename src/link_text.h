// What the lines of the modem are: final result codes (ITU-T V.250 5.7.1, 3GPP TS 27.007 9.2, 27.005 3.2.5),
// unsolicited result codes, information lines and the command whose name they carry. Pure functions on text; any
// thread.
#pragma once

#include <cstddef>
#include <string_view>

// What a command is, as far as its answer depends on it.
enum class CommandKind : unsigned char {
    plain,
    dial, // sets a connection up: NO CARRIER, BUSY, NO ANSWER and CONNECT end it as well
    scan, // AT+COPS=?: takes up to minutes
};
CommandKind kind_of_command(std::string_view command);
// Does the command ask for something, so that "OK" alone is an unlikely answer?
bool asks_question(std::string_view command);
// The command without its line end.
std::string_view command_line(std::string_view command);

// Is the line a final result code of a command of that kind? Only an exact one counts: a message's text may begin with
// "OK".
bool is_final_result(std::string_view line, CommandKind kind);

// Is the line an unsolicited result code and not an information line of `command`? The names are those that modems send
// of themselves; "+CREG:" is an information line when the command asks for it.
bool is_report(std::string_view line, std::string_view command);
// Is it the first of two lines, as "+CMT:" and the message behind it?
bool is_report_header(std::string_view line);

enum class LineName { none, own, foreign };
// Does the line carry a name such as "+CSQ:", and does `command` hold that name?
LineName name_of_line(std::string_view line, std::string_view command);

// The name in front of a line, as "+CSQ" of "+CSQ: 20,99"; empty when it carries none.
std::string_view name_in(std::string_view line);

// Does a line of the text begin with `name`?
bool has_line_of(std::string_view text, std::string_view name);

// Does the line begin an entry of a message listing in text form ("+CMGL: 1,"REC READ",..."), behind which any text may
// follow?
bool begins_message_text(std::string_view line);

// Takes the reports out of the answer to `command`, in place, but for results of calls such as NO CARRIER, which
// callers classify; text behind a header in text form stays as it is.
void remove_reports(char *answer, std::string_view command);
