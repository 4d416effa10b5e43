#include "showing/terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

void complain(std::string_view text) {
  static constexpr std::size_t indent = 7;  // behind "hubctl:"
  const auto width = static_cast<std::size_t>(terminalWidth(STDERR_FILENO));
  std::istringstream lines{std::string(text)};
  std::string wrapped;
  for (std::string line, word; std::getline(lines, line);) {
    if (!wrapped.empty()) wrapped += '\n' + std::string(indent, ' ');
    std::size_t column = indent;
    for (std::istringstream words(line); words >> word; column += 1 + word.size()) {
      if (width > 0 && column + 1 + word.size() > width) {
        wrapped += '\n' + std::string(indent, ' ');
        column = indent;
      }
      wrapped += ' ' + word;
    }
  }
  std::fflush(stdout);
  fmt::print(stderr, "{}{}\n", inked(Ink::red, "hubctl:", STDERR_FILENO), wrapped);
}

void showPassing(std::string_view text) {
  if (terminalWidth(STDERR_FILENO) == 0) return;
  fmt::print(stderr, "\r\033[K{}\r", inked(Ink::dim, text, STDERR_FILENO));
  std::fflush(stderr);
}

std::string inked(Ink ink, std::string_view text, int stream) {
  const auto wantsColour = [](int descriptor) {
    const char* none = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isatty(descriptor) == 1 && (none == nullptr || *none == '\0') && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
  };
  static const bool colourful[] = {false, wantsColour(STDOUT_FILENO), wantsColour(STDERR_FILENO)};
  if (!colourful[stream] || text.empty()) return std::string(text);
  return fmt::format("\033[{}m{}\033[0m", static_cast<int>(ink), text);
}

int terminalWidth(int stream) {
  winsize size = {};
  if (isatty(stream) != 1) return 0;
  return ioctl(stream, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}
