// The methods of the object "celmux", in the order in which the bus shows them.
#pragma once

#include <array>

#include "method_row.h"

constexpr size_t METHOD_COUNT = 68;
extern const std::array<MethodRow, METHOD_COUNT> method_rows;
