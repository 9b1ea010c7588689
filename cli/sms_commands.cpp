#include "sms_commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <sms.h>

#include "json.h"
#include "message.h"
#include "message_view.h"
#include "output.h"
#include "result_text.h"
#include "table.h"
#include "verbs.h"

constexpr int32_t LAST_INDEX = 1000000; // beyond what the daemon stores
constexpr int SEND_PART_MS = 25000;     // the daemon's limits for one part, and other clients' turns between parts

// Of -1 the daemon says the same whether it has no such message or no store.
static int explain_index(int32_t index, const Reply &reply)
{
    if (reply.bus_status == 0 && reply.answered && reply.result == -1)
        return fail(EXIT_REFUSED, "sms: there is no message %d", static_cast<int>(index));
    return explain("sms", reply);
}

static bool take_index(const char *text, int32_t *index)
{
    return parse_number(text, 1, LAST_INDEX, index);
}

// ---- list, show

// The members of JSON are json_message()'s.
static const Column list_columns[] = {
    {"", "No.", true},   {"", "State", false}, {"", "From", false},
    {"", "Date", false}, {"", "Parts", true},  {"", "Text", false},
};

static bool list_one(const Message &message, void *)
{
    MessageText text(message);
    char shown[48];
    cell_number(message.index);
    json_message(message, text);
    cell_text(message.read ? "read" : "new");
    cell_text(text.from);
    char *when = nullptr;
    cell_text(asprintf(&when, "%s %s", text.date ? text.date : "", message.time) < 0 ? nullptr : when);
    free(when);
    if (message.parts.missing)
        snprintf(shown, sizeof(shown), "%u/%u", message.parts.total - message.parts.missing, message.parts.total);
    else
        snprintf(shown, sizeof(shown), "%u", message.parts.total);
    cell_text(message.parts.known ? shown : nullptr);
    cell_text(text.marked);
    return true;
}

static int list_messages(const Arguments &)
{
    Reply reply;
    if (!fetch_messages(reply))
        return explain("sms", reply);
    json_open(nullptr, '{');
    table_begin("messages", list_columns);
    visit_messages(reply, list_one, nullptr);
    if (!table_end("No messages."))
        return fail(EXIT_REFUSED, "sms: out of memory");
    json_close();
    return EXIT_DONE;
}

static int show_message(const Arguments &arguments)
{
    int32_t index = 0;
    if (!take_index(arguments.at(0), &index))
        return usage_error("sms", "%s is no number of a message", arguments.at(0));
    Reply reply;
    Message message;
    if (!fetch_message(index, reply, &message))
        return explain_index(index, reply);
    print_message(message, true);
    CallArguments read;
    Reply marked;
    read.number("index", index);
    (void)bus_call("read_message", &read, marked); // it was shown, and may be gone meanwhile
    return EXIT_DONE;
}

// ---- send

// All of standard input, or null with *why set.
static char *read_input(const char **why)
{
    constexpr size_t MOST = size_t{SMS_MOST_PARTS} * 160 * 4; // no longer text fits into the parts
    char *text = static_cast<char *>(malloc(MOST + 1));
    size_t used = 0;
    ssize_t count = text ? 1 : -1;
    *why = "out of memory";
    while (count > 0) {
        count = used < MOST ? read(STDIN_FILENO, text + used, MOST - used) : -1;
        if (count < 0)
            *why = used < MOST ? "it cannot be read" : "it needs more than 255 parts";
        used += count > 0 ? static_cast<size_t>(count) : 0;
    }
    if (count == 0 && memchr(text, '\0', used))
        *why = "it holds a zero byte";
    else if (count == 0)
        *why = nullptr;
    if (*why) {
        free(text);
        return nullptr;
    }
    if (used > 0 && text[used - 1] == '\n')
        used--;
    text[used] = '\0';
    return text;
}

static int explain_encoding(const char *number, int error)
{
    switch (error) {
    case SMS_ERROR_ADDRESS:
        return usage_error("sms", "%s is no phone number", number);
    case SMS_ERROR_TEXT:
        return usage_error("sms", "the text is not valid UTF-8");
    case SMS_ERROR_TOO_LONG:
        return usage_error("sms", "the text needs more than %d parts", int{SMS_MOST_PARTS});
    default:
        return fail(EXIT_REFUSED, "sms: out of memory");
    }
}

// The daemon's result tells no more than that a part was not confirmed.
static int explain_sending(const Reply &reply, int parts)
{
    if (reply.bus_status == 0 && reply.answered)
        return fail(EXIT_REFUSED, "sms: the modem is busy, refused %s, or did not confirm it in time",
                    parts > 1 ? "a part of it" : "it");
    return explain("sms", reply);
}

static int send_text(const char *number, const char *text)
{
    constexpr size_t LONGEST = 1u << 20;
    size_t length = strlen(text);
    int alphabet_number = SMS_ALPHABET_GSM;
    int parts = length > LONGEST
                    ? int{SMS_ERROR_TOO_LONG}
                    : sms_parts(number, SMS_NUMBER_BY_PLUS, text, static_cast<int>(length), &alphabet_number);
    if (parts < 0)
        return explain_encoding(number, parts);
    const char *alphabet = alphabet_number == SMS_ALPHABET_UCS2 ? "UCS2" : "GSM";
    json_open(nullptr, '{');
    json_text("to", number);
    json_number("parts", parts);
    json_text("alphabet", alphabet);
    json_close();
    print_line("Sending %d part%s to %s (%s alphabet).", parts, parts == 1 ? "" : "s", number, alphabet);
    output_flush();
    CallArguments message;
    message.text("dest", number);
    message.number("type", SMS_NUMBER_BY_PLUS);
    message.text("content", text);
    Reply reply;
    if (!bus_call("send_message", &message, reply, parts * SEND_PART_MS))
        return explain_sending(reply, parts);
    print_line("Sent.");
    return EXIT_DONE;
}

static int send_message(const Arguments &arguments)
{
    const char *why = nullptr;
    const char *text = arguments.at(1);
    char *input = nullptr;
    if (strcmp(text, "-") == 0) {
        input = read_input(&why);
        if (!input)
            return usage_error("sms", "cannot take the text from standard input: %s", why);
        text = input;
    }
    int code = *text ? send_text(arguments.at(0), text) : usage_error("sms", "there is no text to send");
    free(input);
    return code;
}

// ---- delete

// All of them are there, or nothing is deleted: the daemon would pass over those that are not.
static int check_indexes(const Arguments &arguments, CallArguments &message)
{
    void *list = blobmsg_open_array(&message.buf, "index_list");
    for (int i = 0; i < arguments.count; i++) {
        int32_t index = 0;
        if (!take_index(arguments.at(i), &index))
            return usage_error("sms", "%s is no number of a message", arguments.at(i));
        bool again = false; // an index that comes twice would delete the message behind it too
        for (int j = 0; j < i && !again; j++) {
            int32_t other = 0;
            again = take_index(arguments.at(j), &other) && other == index;
        }
        if (again)
            continue;
        CallArguments one;
        Reply reply;
        one.number("index", index);
        if (!bus_call("get_message", &one, reply))
            return explain_index(index, reply);
        blobmsg_add_u32(&message.buf, nullptr, static_cast<uint32_t>(index));
    }
    blobmsg_close_array(&message.buf, list);
    return EXIT_DONE;
}

static int delete_messages(const Arguments &arguments)
{
    if (arguments.count == 1 && strcmp(arguments.at(0), "all") == 0)
        return bus_do("delete_all_messages", nullptr, "sms");
    CallArguments message;
    int code = check_indexes(arguments, message);
    return code != EXIT_DONE ? code : bus_do("delete_messages", &message, "sms");
}

int command_sms(const Arguments &arguments)
{
    static const Verb verbs[] = {
        {"list", list_messages, 0, 0},      {"show", show_message, 1, 1},    {"send", send_message, 2, 2},
        {"delete", delete_messages, 1, -1}, {"watch", watch_messages, 0, 0},
    };
    return run_verb("sms", verbs, arguments);
}
