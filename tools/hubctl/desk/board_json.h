// The facts and the verdict for programs; hubctl(1) describes the fields.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "desk/verdict.h"

nlohmann::json boardJson(const Facts& board, const std::vector<Finding>& findings);

/// "well", "unknown" or "not well".
const char* verdictOf(const std::vector<Finding>& findings);
