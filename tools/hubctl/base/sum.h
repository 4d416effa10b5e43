// The SHA-256 of a file, from the tool that the board has too.
#pragma once

#include <string>

/// 64 hexadecimal digits for all that the open file holds now, wherever it is read at; empty where sha256sum is missing. Throws a
/// Failure at Ctrl-C.
std::string sha256Of(int descriptor);
