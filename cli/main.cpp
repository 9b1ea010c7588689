// The command line: options of the tool, the command, its arguments.

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "bus.h"
#include "commands.h"
#include "help.h"
#include "output.h"

constexpr int32_t LONGEST_TIMEOUT_S = 86400;

// If values[i] is the option, its value: what stands behind "=" or the next argument, which `i` then moves to. Null for
// another option, "" for a missing value.
static const char *option_value(const char *name, const Arguments &all, int &i)
{
    const char *word = all.at(i);
    size_t length = strlen(name);
    if (strncmp(word, name, length) != 0)
        return nullptr;
    if (word[length] == '=')
        return word + length + 1;
    if (word[length] != '\0')
        return nullptr;
    return i + 1 < all.count ? all.at(++i) : "";
}

// Takes the options of the tool out of `words`. Returns EXIT_DONE, or what usage_error() gave. *help: asked for.
static int take_options(Arguments &words, bool *help)
{
    int kept = 0;
    bool taking = true;
    for (int i = 0; i < words.count; i++) {
        char *word = words.values[i];
        const char *value;
        if (!taking || word[0] != '-') {
            words.values[kept++] = word;
        } else if (strcmp(word, "--") == 0) {
            taking = false;
        } else if (strcmp(word, "--json") == 0) {
            options.json = true;
        } else if (strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0) {
            *help = true;
        } else if ((value = option_value("--socket", words, i)) != nullptr) {
            if (!*value)
                return usage_error(nullptr, "--socket needs a path");
            options.socket = value;
        } else if ((value = option_value("--timeout", words, i)) != nullptr) {
            int32_t seconds = 0;
            if (!parse_number(value, 1, LONGEST_TIMEOUT_S, &seconds))
                return usage_error(nullptr, "--timeout needs a number of seconds from 1 to %d",
                                   static_cast<int>(LONGEST_TIMEOUT_S));
            options.timeout_ms = seconds * 1000;
        } else if (kept == 0) {
            return usage_error(nullptr, "there is no option %s", word);
        } else {
            words.values[kept++] = word;
        }
    }
    words.count = kept;
    return EXIT_DONE;
}

static int run(Arguments words)
{
    bool help = false;
    int code = take_options(words, &help);
    if (code != EXIT_DONE)
        return code;
    const char *name = words.count ? words.at(0) : help ? "help" : "status";
    const Command *command = find_command(commands, name);
    if (!command)
        return usage_error(nullptr, "there is no command %s", name);
    if (help && words.count) {
        output_start(false);
        return show_help(commands, name);
    }
    Arguments rest = words.count ? Arguments{words.count - 1, words.values + 1} : Arguments{0, words.values};
    if (command->most_arguments >= 0 && rest.count > command->most_arguments)
        return usage_error(name, "too many arguments");
    output_start(options.json);
    return command->run(rest);
}

// The command's name in that of the program, "celmux-NAME": a shell that completes nothing but programs, as ash, then
// completes commands. Null for any other name.
static char *command_in_name(char *program)
{
    constexpr char before[] = "celmux-";
    char *slash = strrchr(program, '/');
    char *name = slash ? slash + 1 : program;
    return strncmp(name, before, sizeof(before) - 1) == 0 ? name + sizeof(before) - 1 : nullptr;
}

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN); // a closed pipe is an error of writing, said once
    Arguments words = {argc > 0 ? argc - 1 : 0, argv + (argc > 0)};
    char *command = argc > 0 ? command_in_name(argv[0]) : nullptr;
    if (command) {
        argv[0] = command;
        words = {argc, argv};
    }
    int code = run(words);
    if (!output_end() && code == EXIT_DONE)
        code = fail(EXIT_REFUSED, "cannot write the output");
    bus_close();
    return code;
}
