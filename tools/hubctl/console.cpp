#include "console.h"

#include <sys/ioctl.h>

#include <cstdlib>
#include <iterator>
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

std::string humanSize(std::uint64_t bytes) {
  static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < std::size(units)) size /= 1024, ++unit;
  const bool whole = unit == 0 || bytes % (std::uint64_t{1} << (10 * unit)) == 0;
  return fmt::format("{:.{}f} {}", size, whole ? 0 : 1, units[unit]);
}

std::string humanSpan(double seconds) {
  const auto whole = static_cast<std::uint64_t>(seconds < 0 ? 0 : seconds);
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{}:{:02}", whole / 60, whole % 60);
  if (whole < 48 * 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{} days", whole / 86400);
}

std::string count(std::uint64_t number, std::string_view noun) {
  return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

void showPassing(std::string_view text) {
  if (terminalWidth(STDERR_FILENO) == 0) return;
  fmt::print(stderr, "\r\033[K{}\r", inked(Ink::dim, text, STDERR_FILENO));
  std::fflush(stderr);
}

Progress::Progress(std::uint64_t totalBytes) : total(totalBytes), visible(terminalWidth(STDERR_FILENO) > 0) {}

Progress::~Progress() {
  if (!visible || total == 0) return;
  draw();
  fmt::print(stderr, "\n");
}

void Progress::show(std::uint64_t doneBytes) {
  done = doneBytes;
  if (!visible || total == 0 || Clock::now() - drawn < std::chrono::milliseconds(50)) return;
  drawn = Clock::now();
  draw();
}

void Progress::draw() {
  const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
  const double rate = static_cast<double>(done) / (secondsSince(start) + 1e-6);
  std::string figures = fmt::format("{:>4.0f} %  {} of {}", share * 100, humanSize(done), humanSize(total));
  if (done > 0) figures += fmt::format("  {}/s", humanSize(static_cast<std::uint64_t>(rate)));
  if (done > 0 && done < total)
    figures += fmt::format("  {} left", humanSpan(static_cast<double>(total - done) / rate + 0.5));
  const int room = terminalWidth(STDERR_FILENO) - static_cast<int>(figures.size()) - 3;
  std::string bar;
  if (room >= 8) {
    const int cells = std::min(room, 30);
    const int full = static_cast<int>(share * cells);
    bar = fmt::format("[{}{:.<{}}]", inked(Ink::green, std::string(static_cast<std::size_t>(full), '#'), STDERR_FILENO),
                      "", cells - full);
  }
  fmt::print(stderr, "\r\033[K{}{}", bar, figures);
  std::fflush(stderr);
}
