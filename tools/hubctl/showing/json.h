// Results for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "base/pieces.h"

/// Prints JSON as one line on stdout. Bytes that are no UTF-8 are replaced.
void printJson(const nlohmann::json& json);

nlohmann::json pieceJson(const Piece& piece);
