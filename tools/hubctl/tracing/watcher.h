// Turns the hub's calls into events: which queue an id stands for, what was lost, when the queue to the hub stood full.
#pragma once

#include <functional>
#include <map>
#include <optional>

#include "tracing/event.h"
#include "tracing/service.h"
#include "tracing/tracer.h"

class Watcher {
 public:
  explicit Watcher(std::function<void(Event)> itsSink);
  void take(const Returned& done);

 private:
  void opened(const Returned& done);
  void message(const Returned& done);
  void command(const Returned& done);
  void lookForFull(int id, std::int64_t time, std::size_t size);
  void emit(Event event);

  std::function<void(Event)> sink;
  std::map<int, int> keys;       // of each queue's id
  std::optional<Event> unnamed;  // a send to an id that nobody knows any more: the hub's next call tells its key
  std::int64_t fullSince = 0;
};
