// What the tool and its user have in common: complaints, colours, sizes and times as people write them, and the
// progress bar. Results go to stdout, everything else to stderr. Colours appear on a terminal only, and never where
// NO_COLOR is set.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"

/// "hubctl: " and the text on stderr, wrapped at the terminal's width and indented.
void complain(std::string_view text);

enum class Ink { bold = 1, dim = 2, red = 31, green = 32, yellow = 33, cyan = 36 };

/// The text in a colour, or as it is where `stream` (STDOUT_FILENO or STDERR_FILENO) wants none.
std::string inked(Ink ink, std::string_view text, int stream = STDOUT_FILENO);

/// The columns of the terminal behind `stream`, 0 where it is no terminal.
int terminalWidth(int stream = STDOUT_FILENO);

std::string humanSize(std::uint64_t bytes);                      // "512 B", "1.5 KiB"
std::string humanSpan(double seconds);                           // "3 s", "2:05", "1:02:05", "4 days"
std::string count(std::uint64_t number, std::string_view noun);  // "1 message", "3 messages"

/// Shows a text on stderr, where that is a terminal, until the next line takes its place.
void showPassing(std::string_view text);

/// A bar with rate and time left on stderr, where that is a terminal.
class Progress {
 public:
  explicit Progress(std::uint64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void show(std::uint64_t doneBytes);

 private:
  void draw();

  std::uint64_t total;
  Clock::time_point start = Clock::now();
  Clock::time_point drawn{};
  std::uint64_t done = 0;
  bool visible;
};
