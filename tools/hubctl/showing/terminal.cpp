#include "showing/terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "showing/output.h"
#include "showing/text.h"
#include "showing/wrapping.h"

void complain(std::string_view text) {
  static constexpr std::size_t indent = 7;  // behind "hubctl:"
  const int width = terminalWidth(STDERR_FILENO);
  std::istringstream lines(harmless(text, "\n\t"));
  std::string wrapped;
  for (std::string line; std::getline(lines, line);) {
    if (!wrapped.empty()) wrapped += '\n' + std::string(indent, ' ');
    wrapped += ' ' + fmt::format("{}", fmt::join(wrapWords(line, width, indent + 1, indent + 1), "\n"));
  }
  writeError(fmt::format("{}{}\n", inked(Ink::red, "hubctl:", STDERR_FILENO), wrapped));
}

static void showPassing(std::string_view text) {
  if (terminalWidth(STDERR_FILENO) == 0) return;
  writeError(fmt::format("\r\033[K{}\r", inked(Ink::dim, text, STDERR_FILENO)));
}

Passing::Passing(std::string_view text) { showPassing(text); }

Passing::~Passing() { showPassing(""); }

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

Size terminalSize() {
  winsize size = {};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  return {size.ws_col > 0 ? size.ws_col : 80, size.ws_row > 0 ? size.ws_row : 24};
}

namespace {

struct Fitted {
  std::string text;
  bool full;  // it reaches the edge
};

// As much of a line as the screen is wide: what gives it colour takes no column, and each character one, however many bytes
// it has. Otherwise the last column would show the end of what does not fit.
Fitted fit(std::string_view line, int columns) {
  Fitted fitted = {"", false};
  int used = 0;
  for (std::size_t place = 0, size = 1; place < line.size(); place += size) {
    const bool ink = line[place] == '\033';
    size = ink ? std::min(line.size(), line.find('m', place)) - place + 1 : 1;
    const bool begins = !ink && (static_cast<unsigned char>(line[place]) & 0xC0U) != 0x80;
    used += begins ? 1 : 0;
    if (ink || used <= columns) fitted.text += line.substr(place, size);
  }
  fitted.full = used >= columns;
  return fitted;
}

}  // namespace

// The cursor is hidden, and stays at the edge of a full line.
Screen::Screen() { write("\033[?1049h\033[?25l\033[?7l"); }

Screen::~Screen() {
  std::fputs("\033[?7h\033[?25h\033[?1049l", stdout);  // a failing write has been told of already, or is at the end
  std::fflush(stdout);
}

void Screen::show(const std::vector<std::string>& lines, const Size& size) {
  std::string text;
  if (!(size == shownSize)) {
    text = "\033[2J";
    shown.clear();
  }
  const auto rows = static_cast<std::size_t>(size.rows);
  for (std::size_t row = 0; row < std::min(rows, std::max(lines.size(), shown.size())); ++row) {
    const std::string_view line = row < lines.size() ? std::string_view(lines[row]) : "";
    if (row < shown.size() && shown[row] == line) continue;
    const Fitted fitted = fit(line, size.columns);
    // Behind a full one the cursor still stands on the last character, which would be erased.
    text += fmt::format("\033[{};1H{}{}", row + 1, fitted.text, fitted.full ? "" : "\033[K");
  }
  write(text);
  flushOutput();
  shown = lines;
  shownSize = size;
}
