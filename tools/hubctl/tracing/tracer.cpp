#include "tracing/tracer.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <utility>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"
#include "tracing/service.h"

namespace {

constexpr int syscallStop = SIGTRAP | 0x80;  // by PTRACE_O_TRACESYSGOOD
// A thread that starts while we look on is seized as well. Commands are not: they are forked with CLONE_VFORK.
constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE;
constexpr std::uint64_t longestText = 65536;

long order(int request, pid_t id, long data = 0) {
  return ptrace(static_cast<__ptrace_request>(request), id, nullptr, reinterpret_cast<void*>(data));
}

// Why the kernel did not let us, from the rules of ptrace(2), "Ptrace access mode checking".
std::string refusal(pid_t id, int error) {
  if (error != EPERM) return std::strerror(error);
  const int tracer = std::atoi(statusLine(id, "TracerPid:").c_str());
  if (tracer != 0) return fmt::format("process {} ({}) traces it already", tracer, statusLine(tracer, "Name:"));
  int scope = 0;
  std::ifstream("/proc/sys/kernel/yama/ptrace_scope") >> scope;
  if (scope == 3) return "kernel.yama.ptrace_scope is 3, which forbids tracing until the next start of the board";
  if (geteuid() != 0) return "run hubctl trace as root";
  return "tracing is forbidden here: the capability CAP_SYS_PTRACE is missing, or a security module or container "
         "forbids it";
}

// A call that a signal, or our own arrival, interrupts ends with one of these and is entered again. No program sees them.
bool isRestart(std::int64_t result) { return result <= -512 && result >= -516; }

std::size_t messageSize(const Returned& done, std::uint64_t text) {
  return done.call.longSize + static_cast<std::size_t>(std::min(text, longestText));
}

std::size_t bytesToRead(const Returned& done) {
  switch (done.call.kind) {
    case CallKind::msgsnd: return messageSize(done, done.call.size);
    case CallKind::msgrcv: return done.result < 0 ? 0 : messageSize(done, static_cast<std::uint64_t>(done.result));
    case CallKind::wait4: return done.result > 0 && done.call.address != 0 ? sizeof(int) : 0;
    default: return 0;
  }
}

}  // namespace

std::int64_t traceTime() {
  const auto read = [](clockid_t clock) {
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
  };
  static const std::int64_t epoch = read(CLOCK_REALTIME) - read(CLOCK_MONOTONIC);
  return epoch + read(CLOCK_MONOTONIC);
}

Tracer::Tracer(pid_t itsProcess, std::function<void(const Returned&)> itsSink)
    : process(itsProcess), sink(std::move(itsSink)) {
  seizeAll();
  // A thread that has not stood still yet may finish a call unseen.
  while (!allStopped() && !interrupted() && step(true) != Step::ended) {
  }
}

Tracer::~Tracer() {
  sink = [](const Returned&) {};
  release();
}

// A thread can be let go only while it stands still. One that does not stand within two seconds, in a vfork(2) for one, is
// left to the kernel, which lets it go when we end.
void Tracer::release() {
  for (auto& [id, thread] : threads) letGo(id);
  for (const auto deadline = after(2); !threads.empty() && Clock::now() < deadline;) {
    int status;
    const pid_t id = waitpid(-1, &status, __WALL | WNOHANG);
    if (id > 0) handleStop(id, status);
    if (id == -1 && errno != EINTR) break;
    if (id == 0) usleep(100);
  }
}

// A thread may start another one meanwhile, so the list is read until it brings nothing new.
void Tracer::seizeAll() {
  for (std::size_t before = 0; threads.empty() || threads.size() != before;) {
    before = threads.size();
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process), gone)) {
      if (const pid_t id = std::atoi(entry.path().filename().c_str()); !threads.contains(id)) seize(id);
    }
    if (threads.empty()) throw Failure(fmt::format("process {} has ended", process));
  }
}

bool Tracer::allStopped() const {
  return std::all_of(threads.begin(), threads.end(), [](const auto& thread) { return thread.second.stopped; });
}

void Tracer::seize(pid_t id) {
  if (order(PTRACE_SEIZE, id, options) == -1) {
    const int error = errno;
    const bool ours = std::atoi(statusLine(id, "TracerPid:").c_str()) == getpid();
    if (!lives(id) || ours) return;  // it has ended, or came to us by the option above
    const std::string reason = refusal(id, error);
    for (auto& [other, thread] : threads) letGo(other);
    throw Failure(fmt::format("cannot trace process {}: {}", process, reason));
  }
  threads[id];
  order(PTRACE_INTERRUPT, id);
}

void Tracer::letGo(pid_t id) {
  threads[id].leaving = true;
  order(PTRACE_INTERRUPT, id);
}

void Tracer::keepOnly(pid_t id) {
  keeper = id;
  for (auto& [other, thread] : threads) {
    if (other != id) letGo(other);
  }
}

bool Tracer::serviceWaits() const {
  const auto thread = threads.find(keeper);
  if (thread == threads.end() || !thread->second.call) return false;
  const CallKind kind = thread->second.call->kind;
  return kind == CallKind::msgrcv || kind == CallKind::wait4;
}

Tracer::Step Tracer::step(bool wait) {
  int status = 0;
  const pid_t id = waitpid(-1, &status, wait ? __WALL : __WALL | WNOHANG);
  if (id == 0) return Step::nothing;
  if (id == -1) return errno == EINTR ? Step::nothing : Step::ended;
  handleStop(id, status);
  return threads.empty() ? Step::ended : Step::handled;
}

void Tracer::handleStop(pid_t id, int status) {
  if (!WIFSTOPPED(status)) {
    if (threads.erase(id) != 0) lastStatus = status;
    return;
  }
  Thread& thread = threads[id];  // a new one announces itself here
  if (keeper != 0 && keeper != id) thread.leaving = true;
  thread.stopped = true;
  if (!judged) judge(id);
  std::optional<Returned> returned;
  if (WSTOPSIG(status) == syscallStop) returned = lookAtCall(id, thread);
  goOn(id, status, thread.leaving);
  if (returned) sink(*returned);  // the service runs again
}

// What stopped the thread tells how it goes on: a signal of its own is handed to it, a stop of the whole process (SIGSTOP and
// its kin) lasts.
void Tracer::goOn(pid_t id, int status, bool leaving) {
  const int event = status >> 16;
  const bool ofPtrace = WSTOPSIG(status) == syscallStop || event != 0;
  const bool processStopped = event == PTRACE_EVENT_STOP && WSTOPSIG(status) != SIGTRAP;
  const int how = leaving ? PTRACE_DETACH : processStopped ? PTRACE_LISTEN : PTRACE_SYSCALL;
  order(how, id, ofPtrace ? 0 : WSTOPSIG(status));
  if (leaving) threads.erase(id);
}

std::optional<SyscallInfo> Tracer::infoOf(pid_t id) {
  SyscallInfo info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info) > 0) return info;
  if (errno != EIO) return std::nullopt;  // killed meanwhile
  throw Failure("this kernel cannot tell a process's calls: hubctl trace needs Linux 5.3 or newer");
}

// Once, at the first stop of all: will the kernel do, and is the service of a kind that we can read?
void Tracer::judge(pid_t id) {
  const auto info = infoOf(id);
  if (info) refuseForeign(info->arch);
  judged = info.has_value();
}

// Remembers a call that begins; returns one that ends. The first thread that uses a queue is the one that does all of it.
std::optional<Returned> Tracer::lookAtCall(pid_t id, Thread& thread) {
  const auto info = infoOf(id);
  if (!info) return std::nullopt;
  if (info->op == PTRACE_SYSCALL_INFO_ENTRY) {
    thread.call = decodeCall(*info, process);
    thread.entered = traceTime();
    const bool usesQueue = thread.call->kind != CallKind::other && thread.call->kind != CallKind::wait4;
    if (usesQueue && keeper == 0) keepOnly(id);
    return std::nullopt;
  }
  const auto call = std::exchange(thread.call, std::nullopt);
  if (info->op != PTRACE_SYSCALL_INFO_EXIT || !call || call->kind == CallKind::other) return std::nullopt;
  if (isRestart(info->exit.rval)) return std::nullopt;
  const std::int64_t time = traceTime();
  Returned returned = {*call, info->exit.rval, time, static_cast<std::uint64_t>(time - thread.entered), {}};
  if (const std::size_t size = bytesToRead(returned); size > 0) {
    returned.memory = readMemory(process, call->address, size);
    if (returned.memory.size() < size) return std::nullopt;  // killed in the midst of it
  }
  return returned;
}
