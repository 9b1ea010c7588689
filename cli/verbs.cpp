#include "verbs.h"

#include <cstring>

int run_verb(const char *command, std::span<const Verb> verbs, const Arguments &arguments)
{
    if (arguments.count == 0)
        return verbs.front().run(arguments);
    const char *name = arguments.at(0);
    Arguments rest = {arguments.count - 1, arguments.values + 1};
    for (const Verb &verb : verbs) {
        if (strcmp(verb.name, name) != 0)
            continue;
        if (rest.count < verb.fewest)
            return usage_error(command, "%s needs more arguments", name);
        if (verb.most >= 0 && rest.count > verb.most)
            return usage_error(command, "too many arguments for %s", name);
        return verb.run(rest);
    }
    return usage_error(command, "there is no %s %s", command, name);
}
