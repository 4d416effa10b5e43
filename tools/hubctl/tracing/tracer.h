// Attaches to a running process from outside and shows its calls, by ptrace(2). Nothing is injected: no register, no byte of
// memory and no signal of the process is changed. A call that attaching interrupts is entered again by the kernel. When this
// program ends, however it ends, the kernel lets every thread go on, since PTRACE_O_EXITKILL is not asked for.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "tracing/calls.h"

/// Nanoseconds since 1970 as the clock stood at the first call, counted on by one that nobody sets, so that no answer comes
/// before its Packet. All times of a trace are of this clock.
std::int64_t traceTime();

/// A call that has returned.
struct Returned {
  Call call;
  std::int64_t result;   // or a negative errno
  std::int64_t time;     // of its return, by traceTime()
  std::uint64_t lasted;  // nanoseconds
  Bytes memory;          // the message with its mtype; for wait4 the status
};

/// Nanoseconds since 1970, counted by a clock that nobody sets, so that no answer comes before its Packet.
std::int64_t traceTime();

class Tracer {
 public:
  enum class Step { handled, nothing, ended };

  /// Seizes all threads of the process: every call that begins from now on is seen and handed to the sink, which must be
  /// quick. Throws a Failure that says why it may not.
  Tracer(pid_t itsProcess, std::function<void(const Returned&)> itsSink);
  /// Lets them go.
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  /// Handles the next stop of a thread: lets it go on and hands on what it showed. `nothing` when there is none and it is not
  /// to wait, or when a signal came instead; `ended` when the process has.
  Step step(bool wait);
  /// Whether the service waits for a message or for a command, as far as we know: what we do now delays nothing.
  bool serviceWaits() const;
  /// Lets all threads go. What they were seen to do until then is handed on.
  void release();
  /// How the process ended, as wait(2) tells it.
  int ending() const { return lastStatus; }

 private:
  struct Thread {
    std::optional<Call> call;  // that it has entered
    std::int64_t entered = 0;
    bool leaving = false;  // is let go at its next stop
    bool stopped = false;  // has stood still once since it was seized
  };

  void seizeAll();
  bool allStopped() const;
  void seize(pid_t id);
  void letGo(pid_t id);
  void keepOnly(pid_t id);
  void handleStop(pid_t id, int status);
  void goOn(pid_t id, int status, bool leaving);
  void judge(pid_t id);
  std::optional<Returned> lookAtCall(pid_t id, Thread& thread);
  static std::optional<SyscallInfo> infoOf(pid_t id);

  pid_t process;
  std::function<void(const Returned&)> sink;
  std::map<pid_t, Thread> threads;
  pid_t keeper = 0;     // the thread that uses the queues, once it is known; the others are let go
  bool judged = false;  // kernel and architecture will do
  int lastStatus = 0;
};
