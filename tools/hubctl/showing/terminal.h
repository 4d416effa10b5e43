// The terminal, if there is one: its width, colours, complaints. Results go to stdout, everything else to stderr. Colours
// appear on a terminal only, and never where NO_COLOR is set.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>
#include <vector>

/// "hubctl: " and the text, made harmless, on stderr, wrapped at the terminal's width and indented.
void complain(std::string_view text);

/// A text on stderr, where that is a terminal, as long as it lives.
class Passing {
 public:
  explicit Passing(std::string_view text);
  ~Passing();
  Passing(const Passing&) = delete;
  Passing& operator=(const Passing&) = delete;
};

enum class Ink { bold = 1, dim = 2, red = 31, green = 32, yellow = 33, cyan = 36 };

/// The text in a colour, or as it is where `stream` (STDOUT_FILENO or STDERR_FILENO) wants none.
std::string inked(Ink ink, std::string_view text, int stream = STDOUT_FILENO);

struct Size {
  int columns, rows;
  bool operator==(const Size&) const = default;
};

/// Of the terminal behind stdout; 80 by 24 where it does not tell.
Size terminalSize();

/// The terminal's second screen while this lives; then the first comes back as it was.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Draws the lines that differ from those of the last time, in one write, or all of them when the size is another one.
  void show(const std::vector<std::string>& lines, const Size& size);

 private:
  std::vector<std::string> shown;
  Size shownSize{};
};

/// The columns of the terminal behind `stream`, 0 where it is no terminal.
int terminalWidth(int stream = STDOUT_FILENO);
