#include "showing/watching.h"

#include <algorithm>

#include "base/clock.h"
#include "base/signals.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

void showOnScreen(double interval, const std::function<std::vector<std::string>(int)>& make) {
  Screen screen;
  while (!stopWanted()) {
    const Size size = terminalSize();
    std::vector<std::string> lines = {fmt::format("{}, every {:g} s; Ctrl-C ends", timeOfDay().substr(0, 8), interval),
                                      ""};
    for (std::string& line : make(size.columns)) lines.push_back(std::move(line));
    if (const auto rows = static_cast<std::size_t>(size.rows); lines.size() > rows && rows > 0) {
      const std::string rest = fmt::format("... and {} more", count(lines.size() - rows + 1, "line"));
      lines.resize(rows - 1);
      lines.push_back(inked(Ink::dim, rest));
    }
    screen.show(lines, size);
    const Clock::time_point next = after(interval);
    while (!stopWanted() && Clock::now() < next && terminalSize() == size) nap(std::min(0.1, -secondsSince(next)));
  }
}

}  // namespace

void showAgain(bool watch, double interval, const std::function<void()>& show) {
  for (bool again = false; !again || (watch && !stopWanted()); again = true) {
    show();
    flushOutput();
    if (watch) nap(interval);
  }
}

void showLines(bool watch, double interval, const std::function<std::vector<std::string>(int)>& make) {
  if (watch && terminalWidth() > 0) return showOnScreen(interval, make);
  bool first = true;
  showAgain(watch, interval, [&] {
    if (!first) print("\n");
    first = false;
    for (const std::string& line : make(terminalWidth())) print("{}\n", line);
  });
}
