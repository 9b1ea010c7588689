// The link to the APN profiles of the router's model (SKU). Runs on the requester's thread, before any profile is
// loaded.
#pragma once

#include <string_view>

constexpr const char *DEFAULT_PROFILE_LINK = "/etc/config/default_profile";

// May the name of a model stand in a path and in a shell command? Letters, digits, '.', '_' and '-', at most 64 of
// them.
bool sku_name_ok(std::string_view sku);

// Makes DEFAULT_PROFILE_LINK lead to the profile file of the model that /tmp/sku names; a file that is linked anew and
// differs from its factory copy is restored from that first. Does nothing without /tmp/sku or with a name that is not
// acceptable.
void link_default_profile();
