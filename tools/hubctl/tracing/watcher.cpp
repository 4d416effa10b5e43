#include "tracing/watcher.h"

#include <sys/msg.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <utility>

#include "base/queues.h"

namespace {

// Source: proc(5), /proc/sysvipc/msg. It tells of queues that may not be read, too.
std::map<int, int> queuesByIds() {
  std::map<int, int> keys;
  std::ifstream list("/proc/sysvipc/msg");
  list.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  for (int key, id; list >> key >> id;) {
    keys[id] = key;
    list.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  return keys;
}

std::uint8_t kindOf(const Returned& done, int key) {
  if (done.call.kind == CallKind::msgrcv) return HUBKEEPER_CAPTURE_IN;
  if (key != HUBKEEPER_KEY_RIDGELINK && key != 0) return HUBKEEPER_CAPTURE_FORWARD;
  return done.call.size == 1 ? HUBKEEPER_CAPTURE_BOUNCE : HUBKEEPER_CAPTURE_REPLY;
}

// Behind the mtype, which has the width of a `long` of the hub's.
void cutMessage(const Returned& done, Event& event) {
  if (done.memory.size() < done.call.longSize) return;
  const auto text = done.memory.begin() + static_cast<std::ptrdiff_t>(done.call.longSize);
  const auto mtype = hubkeeper_read_number(done.memory.data(), done.call.longSize);
  event.facts.value = done.call.longSize == 4 ? static_cast<std::int32_t>(mtype) : static_cast<std::int64_t>(mtype);
  event.text.assign(text, done.memory.end());
}

}  // namespace

Watcher::Watcher(std::function<void(Event)> itsSink) : sink(std::move(itsSink)), keys(queuesByIds()) {}

void Watcher::take(const Returned& done) {
  switch (done.call.kind) {
    case CallKind::msgget: return opened(done);
    case CallKind::msgsnd:
    case CallKind::msgrcv: return message(done);
    case CallKind::wait4: return command(done);
    case CallKind::other: return;
  }
}

void Watcher::opened(const Returned& done) {
  const auto key = static_cast<std::int32_t>(done.call.first);
  const auto result = static_cast<std::int32_t>(done.result);
  if (unnamed) {  // the hub opens a queue anew right after a send to it failed
    unnamed->facts.key = key;
    unnamed->facts.kind =
        key == HUBKEEPER_KEY_RIDGELINK ? unnamed->facts.kind : std::uint8_t{HUBKEEPER_CAPTURE_FORWARD};
  }
  msqid_ds state = {};
  const bool known = result >= 0 && msgctl(result, IPC_STAT, &state) == 0;
  if (result >= 0) keys[result] = key;
  emit({{HUBKEEPER_CAPTURE_OPENED, key, result, known ? std::int64_t{state.msg_perm.uid} : -1, done.lasted},
        done.time,
        {}});
}

void Watcher::message(const Returned& done) {
  const auto id = static_cast<std::int32_t>(done.call.first);
  const auto known = keys.find(id);
  Event event;
  event.time = done.time;
  event.facts = {0, known == keys.end() ? 0 : known->second, static_cast<std::int32_t>(done.result), 0, done.lasted};
  event.facts.kind = kindOf(done, event.facts.key);
  if (event.facts.kind == HUBKEEPER_CAPTURE_IN) event.facts.key = HUBKEEPER_KEY_INBOUND;
  cutMessage(done, event);
  if (event.facts.key == 0) {
    if (unnamed) emit(*std::exchange(unnamed, std::nullopt));
    unnamed = std::move(event);
    return;
  }
  const std::size_t size = event.text.size();
  const bool received = event.facts.kind == HUBKEEPER_CAPTURE_IN && done.result >= 0;
  emit(std::move(event));
  if (received) lookForFull(id, done.time, size);
}

void Watcher::command(const Returned& done) {
  if (done.result <= 0) return;
  const auto status = static_cast<std::int32_t>(hubkeeper_read_number(done.memory.data(), done.memory.size()));
  emit({{HUBKEEPER_CAPTURE_COMMAND, 0, status, 0, done.lasted}, done.time, {}});
}

// Full is a queue that had no room for one more message like the one just taken off it; a sender that waited may have filled
// it again since. It counts as such until it is less than half full, or every receive would tell of it anew.
void Watcher::lookForFull(int id, std::int64_t time, std::size_t size) {
  msqid_ds state = {};
  if (msgctl(id, IPC_STAT, &state) == -1) return;
  const bool full = state.msg_cbytes + 2 * size > state.msg_qbytes;
  const bool eased = state.msg_cbytes < state.msg_qbytes / 2;
  if (fullSince == 0 ? !full : !eased) return;
  const bool begins = fullSince == 0;
  const auto lasted = static_cast<std::uint64_t>(begins ? 0 : time - fullSince);
  const auto bytes = std::min<std::uint64_t>(state.msg_cbytes + (begins ? size : 0), state.msg_qbytes);
  fullSince = begins ? time : 0;
  emit({{HUBKEEPER_CAPTURE_FULL, HUBKEEPER_KEY_INBOUND, static_cast<std::int32_t>(bytes),
         static_cast<std::int64_t>(state.msg_qbytes), lasted},
        time,
        {}});
}

void Watcher::emit(Event event) {
  if (unnamed) sink(*std::exchange(unnamed, std::nullopt));
  sink(std::move(event));
}
