#include "showing/progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"

Progress::Progress(std::uint64_t totalBytes) : total(totalBytes), visible(terminalWidth(STDERR_FILENO) > 0) {}

Progress::~Progress() {
  if (!visible || total == 0) return;
  draw();
  writeError("\n");
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
  writeError(fmt::format("\r\033[K{}{}", bar, figures));
}
