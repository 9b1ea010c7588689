// Commands that have verbs of their own, such as `celmux sms send`.
#pragma once

#include <span>

#include "command.h"

struct Verb {
    char name[12];
    CommandFunction run; // gets what stands behind the verb
    int fewest;          // arguments behind the verb
    int most;            // -1 for any number
};

// Carries out the verb that the arguments begin with; without arguments the first one of `verbs`.
int run_verb(const char *command, std::span<const Verb> verbs, const Arguments &arguments);
