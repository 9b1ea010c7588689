#include "message_view.h"

#include <cstring>

#include "json.h"
#include "output.h"

static const char *or_empty(const char *text)
{
    return text ? text : "";
}

static void print_details(const Message &message, const MessageText &text)
{
    const MessageParts &parts = message.parts;
    print_row("From", "%s", or_empty(text.from));
    print_row("Date", "%s %s", or_empty(text.date), message.time);
    print_row("State", "%s", message.read ? "read" : "new");
    if (parts.known && parts.missing)
        print_row("Parts", "%u of %u, the others are missing", parts.total - parts.missing, parts.total);
    else if (parts.known)
        print_row("Parts", "%u", parts.total);
    print_row("Alphabet", "%s", message.alphabet);
}

// Many phones end their lines with CR LF, which needs no escape.
static void print_lines(const char *text)
{
    for (const char *end; (end = strstr(text, "\r\n")) != nullptr; text = end + 2) {
        print_text({text, static_cast<size_t>(end - text)});
        print_text("\n");
    }
    print_text(text);
    print_line("%s", "");
}

void print_message(const Message &message, bool details)
{
    MessageText text(message);
    json_open(nullptr, '{');
    json_message(message, text);
    json_close();
    if (details) {
        print_details(message, text);
        print_line("%s", "");
    } else {
        row_begin(nullptr);
        print_colour(Colour::bold);
        print_piece("%s %s  %s", or_empty(text.date), message.time, or_empty(text.from));
        row_end();
    }
    print_lines(or_empty(text.marked));
    if (text.data)
        print_line("%s", text.data);
    if (!details)
        print_line("%s", "");
}
