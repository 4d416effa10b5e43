// Reads any bytes as a log, and does with each line what hubctl does: nothing may crash, nothing is read twice or made up,
// and folding shows or counts each line once.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "desk/fold.h"
#include "desk/log_reader.h"
#include "desk/tally.h"

static void require(bool holds) {
  if (!holds) std::abort();
}

static void requireParts(const LogLine& line) {
  require(line.message.size() <= line.text.size());
  require(line.text.size() <= 2 * LineSource::longest + 1);
  require((line.time == 0) == (line.priority == Priority::none));
  const LogKind* kind = kindOf(line);
  if (kind == nullptr) return;
  const Values values = match(*kind, line.message).value_or(Values());
  require(values.empty() || values.size() == kind->names.size());
  for (const auto& [name, value] : values) {
    require(value.empty() || (value.data() >= line.message.data() &&
                              value.data() + value.size() <= line.message.data() + line.message.size()));
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int file = memfd_create("log", 0);
  require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  std::size_t taken = 0, shown = 0, bytes = 0;
  Fold fold([&](const LogLine&) { ++shown; },
            [&](const Fold::Rounds& rounds) { shown += rounds.lines * rounds.count; });
  Tally tally;
  LogReader reader({"/proc/self/fd/" + std::to_string(file)}, false);
  LogLine line;
  for (; reader.next(line) == Got::line; ++taken) {
    requireParts(line);
    bytes += line.text.size() + line.leftOut;
    tally.take(line);
    fold.take(line);
    if (taken % 16 == 7) fold.flush();
  }
  fold.flush();
  require(bytes <= size && shown == taken);
  std::size_t counted = 0;
  for (const Count& count : tally.counts()) counted += count.lines;
  require(counted == taken);
  return 0;
}
