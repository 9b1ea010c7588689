#include "at_mask.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

struct SecretCommand {
    const char *name;
    int first_secret; // parameters before this one are shown
};

static constexpr SecretCommand secret_commands[] = {{"+CPIN=", 0}, {"+CLCK=", 2}, {"+CPWD=", 1}, {"+CGAUTH=", 3}};

static const SecretCommand *secret_at(const char *text)
{
    for (const SecretCommand &command : secret_commands) {
        if (strncasecmp(text, command.name, strlen(command.name)) == 0)
            return &command;
    }
    return nullptr;
}

static const char *find_secret(const char *text, const SecretCommand **command)
{
    for (const char *at = strchr(text, '+'); at; at = strchr(at + 1, '+')) {
        *command = secret_at(at);
        if (*command)
            return at;
    }
    return nullptr;
}

// Masks the parameters that start at `text`; returns where they end.
static char *mask_parameters(char *text, int first_secret)
{
    int parameter = 0;
    bool quoted = false;
    for (; *text && *text != '\r' && *text != '\n'; text++) {
        if (*text == '"')
            quoted = !quoted;
        else if (*text == ',' && !quoted)
            parameter++;
        else if (*text == ';' && !quoted)
            break;
        else if (parameter >= first_secret)
            *text = '*';
    }
    return text;
}

Masked::Masked(const char *original) : text(original), copy(nullptr)
{
    const SecretCommand *command;
    if (!find_secret(original, &command))
        return;
    copy = strdup(original);
    text = copy ? copy : "(masked)";
    char *rest = copy;
    while (rest && (rest = const_cast<char *>(find_secret(rest, &command))))
        rest = mask_parameters(rest + strlen(command->name), command->first_secret);
}

Masked::~Masked()
{
    free(copy);
}
