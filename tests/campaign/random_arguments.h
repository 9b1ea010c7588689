// Arguments for calls of any method.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "random.h"

// Names of a method's arguments and their blobmsg types.
using Signature = std::map<std::string, int>;

// Such as a router's user interface might give.
nlohmann::json good_arguments(Random &random, const std::string &method, const Signature &signature);

// Missing, of other types, out of range, far too long, made to break out of a command. They delete no message and send
// nothing that would make the modem forget a message.
nlohmann::json bad_arguments(Random &random, const std::string &method, const Signature &signature);
