#include "at_mask.h"

#include <cstdlib>
#include <cstring>

struct SecretCommand {
    const char *name;
    uint8_t shown;   // parameters before the first secret one
    bool in_answers; // they bring the secret back
};

static constexpr SecretCommand SECRET_COMMANDS[] = {
    {"+CPIN", 0, false}, {"+CLCK", 2, false}, {"+CPWD", 1, false}, {"+CGAUTH", 3, true}, {"$QCPDPP", 2, true},
};

static bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

static bool is_name_start(char c)
{
    return c == '+' || c == '$';
}

static void end_name(SecretScan *scan, bool answer)
{
    for (const SecretCommand &command : SECRET_COMMANDS) {
        if (strlen(command.name) != scan->name_length || memcmp(command.name, scan->name, scan->name_length) != 0 ||
            (answer && !command.in_answers))
            continue;
        scan->inside = true;
        scan->answer = answer;
        scan->quoted = false;
        scan->to_come = command.shown;
    }
    scan->name_length = 0;
}

static void take_name(SecretScan *scan, char c)
{
    if (is_name_start(c)) {
        scan->name[0] = c;
        scan->name_length = 1;
    } else if (scan->name_length == 0 || is_blank(c)) {
        return;
    } else if (c == '=' || c == ':') {
        end_name(scan, c == ':');
    } else if (scan->name_length < sizeof scan->name) {
        scan->name[scan->name_length++] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    } else {
        scan->name_length = 0;
    }
}

// Takes the next character; returns true when it belongs to a secret.
static bool is_secret(SecretScan *scan, char c)
{
    if (!scan->inside) {
        take_name(scan, c);
        return false;
    }
    if (c == '\r' || c == '\n' || (c == ';' && !scan->quoted)) {
        scan->inside = false;
    } else if (c == '"') {
        scan->quoted = !scan->quoted;
    } else if (c == ',' && !scan->quoted) {
        scan->to_come -= scan->to_come > 0;
    } else {
        return scan->to_come == 0 && (scan->quoted || !is_blank(c));
    }
    return false;
}

static char *copy_of(std::string_view text)
{
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy) {
        memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

Masked::Masked(std::string_view original, SecretScan *scan)
    : text(original.data()), length(static_cast<int>(original.size())), copy(nullptr)
{
    static constexpr std::string_view NO_MEMORY = "(masked)";
    SecretScan own = {};
    if (!scan)
        scan = &own;
    for (size_t at = 0; at < original.size(); at++) {
        if (!is_secret(scan, original[at]))
            continue;
        if (text == original.data()) {
            copy = copy_of(original);
            text = copy ? copy : NO_MEMORY.data();
            length = copy ? length : static_cast<int>(NO_MEMORY.size());
        }
        if (copy)
            copy[at] = '*';
    }
}

Masked::~Masked()
{
    free(copy);
}
