#pragma once

#include "state.h"
#include "troubles.h"

#include <nlohmann/json.hpp>

namespace modemsim {

/// The members of State by their names; enums by theirs, contexts as an object with the cid as key.
nlohmann::json state_to_json(const State &state);

/// Merges `patch` (RFC 7396) into the state. Throws std::invalid_argument, with the place, for a member that does not
/// exist or a value of the wrong kind; the state is untouched then.
void patch_state(State &state, const nlohmann::json &patch);

/// One trouble of a profile. Throws std::invalid_argument for an unknown member or value.
TroubleRule trouble_from_json(const nlohmann::json &value);

/// A number, or two as [low, high].
Range range_from_json(const nlohmann::json &value);

} // namespace modemsim
