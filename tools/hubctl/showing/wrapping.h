// Sentences in the width of a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The words of a text in lines of at most `width` columns, or in one where that is 0. Before the first stand `taken` columns
/// of the caller's; the others begin with `indent` blanks.
std::vector<std::string> wrapWords(std::string_view text, int width, std::size_t taken, std::size_t indent);
