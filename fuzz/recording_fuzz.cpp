// Reads any bytes as a recording and shows what it finds in every way that hubctl trace has: nothing may crash, each event
// is one that could be written again, and the only complaint is a Failure.

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/failure.h"
#include "tracing/filter.h"
#include "tracing/lines.h"
#include "tracing/recording.h"
#include "tracing/stats.h"
#include "tracing/story.h"

static void require(bool holds) {
  if (!holds) std::abort();
}

static void requireSame(const Event& event) {
  std::uint8_t bytes[HUBKEEPER_CAPTURE_HEADER_SIZE];
  hubkeeper_capture again;
  hubkeeper_write_capture(bytes, &event.facts);
  require(hubkeeper_read_capture(bytes, sizeof bytes, &again) == 1);
  require(again.kind == event.facts.kind && again.key == event.facts.key && again.result == event.facts.result);
  require(again.value == event.facts.value && again.lasted == event.facts.lasted);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool silent = std::freopen("/dev/null", "w", stdout) != nullptr;
  if (!silent || size == 0) return 0;
  const Filter filter({}, {"04-30"}, false);
  LinePrinter printer;
  Stats stats;
  Story story([&](const Line& line) {
    require(line.piece.payload.size() <= line.event.text.size() || line.event.facts.kind > HUBKEEPER_CAPTURE_IN);
    printer.print(line);
    lineJson(line).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (filter.wants(line)) stats.take(line);
  });
  try {
    Recording recording(File(fmemopen(const_cast<std::uint8_t*>(data), size, "rb")), "input");
    std::size_t texts = 0;
    while (const auto event = recording.next()) {
      requireSame(*event);
      texts += event->text.size();
      story.take(*event);
    }
    require(texts <= size);
  } catch (const Failure&) {
  }
  story.finish();
  stats.print(stats.end(), false);
  stats.json(stats.end(), true);
  return 0;
}
