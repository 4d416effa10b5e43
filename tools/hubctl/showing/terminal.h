// The terminal, if there is one: its width, colours, complaints. Results go to stdout, everything else to stderr. Colours
// appear on a terminal only, and never where NO_COLOR is set.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

/// "hubctl: " and the text on stderr, wrapped at the terminal's width and indented.
void complain(std::string_view text);

/// Shows a text on stderr, where that is a terminal, until the next line takes its place.
void showPassing(std::string_view text);

enum class Ink { bold = 1, dim = 2, red = 31, green = 32, yellow = 33, cyan = 36 };

/// The text in a colour, or as it is where `stream` (STDOUT_FILENO or STDERR_FILENO) wants none.
std::string inked(Ink ink, std::string_view text, int stream = STDOUT_FILENO);

/// The columns of the terminal behind `stream`, 0 where it is no terminal.
int terminalWidth(int stream = STDOUT_FILENO);
