// What a kind of line means and what to do, as log and explain show it.
#pragma once

#include <cstddef>

#include "desk/catalogue.h"

void printMeaning(const LogKind& kind, std::size_t indent);
