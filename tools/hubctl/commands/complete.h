// What a shell offers when somebody presses Tab: taken from the options that the help is made of, so it cannot lag behind.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// Prints what may stand in the place of the last word, which is the beginning of it or empty, behind the others: each in a
/// line, a tab and what it is behind it, or ":files" where names of files are meant.
void printCompletions(const CLI::App& app, std::vector<std::string> words);
