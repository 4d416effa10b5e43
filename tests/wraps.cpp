// Link-time stand-ins (ld --wrap) for calls that the kernel cannot be brought to fail or to hurry.
#include <dirent.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/LayoutAppender.hh>

#include <memory>
#include <sstream>

#include "commands/clocksteward_switch.h"
#include "hub/inbound.h"
#include "linked.h"

namespace {
bool recording = false;
const char* const monitorName = "monitor";
thread_local const char* thread = nullptr;  // of a service thread

const char* caller() { return gettid() == getpid() ? "main" : thread; }  // none: a sanitizer, before a thread begins

// A line of the transcript that the service leaves of its calls.
template <typename... Words>
void record(const Words&... words) {
  if (!recording || caller() == nullptr) return;
  std::ostringstream line;
  line << caller();
  ((line << ' ' << words), ...);
  std::ofstream("/tmp/calls", std::ios::app) << line.str() + "\n";
}

std::string failingCall;
std::atomic<int> successes;
int failureError;
int millisecondsPerSecond = 90000;  // of the monitor thread's sleeps: quiet for an hour; the others' take no time

// The service built with these stand-ins takes its plan from the environment: [MILLISECONDS [CALL SKIP ERROR]].
[[maybe_unused]] const bool planned = [] {
  const char* plan = std::getenv("HUB_PLAN");
  char call[64] = "";
  int skip = 0, error = 0;
  if (plan == nullptr) return false;
  std::sscanf(plan, "%d %63s %d %d", &millisecondsPerSecond, call, &skip, &error);
  planFailure(call, skip, error);
  recording = true;
  std::atexit([] { std::puts("torn down"); });  // must not be seen: the end leaves before any destructor
  return true;
}();

// Logging may change errno: a sink on a full disk does. This one always does, so that what is read too late shows.
struct Disturbing : log4cpp::LayoutAppender {
  Disturbing() : LayoutAppender("Disturbing") {}
  void close() override {}
  void _append(const log4cpp::LoggingEvent&) override { errno = EDOM; }
};
[[maybe_unused]] const bool disturbed = (log4cpp::Category::getInstance("messages").addAppender(new Disturbing), true);

// The error with which this call is to fail, or 0.
int failure(const char* call) {
  return failingCall == call && caller() != nullptr && successes-- <= 0 ? failureError : 0;
}
}  // namespace

void planFailure(const std::string& call, int skip, int error) {
  failingCall = call, successes = skip, failureError = error;
}

template <typename Mark>
static Mark marked(int error, Mark mark) {
  errno = error;
  return mark;
}

// What a call that fails returns: a mark, with the number in errno, or the number itself, and errno is left alone.
#define WRAP(type, name, failed, parameters, arguments, ...) \
  extern "C" type __real_##name parameters;                  \
  extern "C" type __wrap_##name parameters {                 \
    record(#name __VA_OPT__(, ) __VA_ARGS__);                \
    if (const int error = failure(#name)) return failed;     \
    return __real_##name arguments;                          \
  }
WRAP(int, msgget, marked(error, -1), (key_t key, int flags), (key, flags), key, flags)
WRAP(int, msgctl, marked(error, -1), (int id, int command, void* stats), (id, command, stats), command)
WRAP(FILE*, popen, marked(error, nullptr), (const char* command, const char* mode), (command, mode), command)
WRAP(int, fclose, marked(error, EOF), (FILE * file), (file))
WRAP(DIR*, opendir, marked(error, nullptr), (const char* path), (path))
WRAP(int, sched_get_priority_max, marked(error, -1), (int policy), (policy), policy)
WRAP(int, pthread_attr_setschedparam, error, (pthread_attr_t * a, const sched_param* p), (a, p), p->sched_priority)
WRAP(int, pthread_attr_setdetachstate, error, (pthread_attr_t * a, int state), (a, state), state)
WRAP(int, pthread_attr_destroy, error, (pthread_attr_t * a), (a))
WRAP(int, pthread_cancel, error, (pthread_t id), (id))
WRAP(int, clock_nanosleep, error, (clockid_t c, int flags, const timespec* t, timespec* rest), (c, flags, t, rest), c,
     flags, t->tv_sec, t->tv_nsec, rest)

WRAP(int, system, marked(error, -1), (const char* command), (command), std::atomic_ref(clockstewardEnabled) + 0,
     command)
WRAP(FILE*, fopen64, marked(error, nullptr), (const char* path, const char* mode), (path, mode), path, mode)

struct Start {
  void* (*run)(void*);
  const char* name;
};
static void* begin(void* start) {
  const std::unique_ptr<Start> own(static_cast<Start*>(start));
  thread = own->name;
  // A thread that is cancelled while it logs takes the process down with it.
  if (failingCall == "pthread_cancel") return pause(), nullptr;
  return own->run(nullptr);
}
extern "C" int __real_pthread_create(pthread_t* id, const pthread_attr_t* a, void* (*run)(void*), void* argument);
extern "C" int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* a, void* (*run)(void*), void* argument) {
  if (const int error = failure("pthread_create")) return error;
  int state = -1, policy = -1, inherit = -1;
  sched_param priority{};
  pthread_attr_getdetachstate(a, &state), pthread_attr_getschedpolicy(a, &policy);
  pthread_attr_getinheritsched(a, &inherit), pthread_attr_getschedparam(a, &priority);
  const char* name = run == inboundThread ? "inbound" : monitorName;
  record("pthread_create", name, state, policy, priority.sched_priority, inherit, argument);
  return __real_pthread_create(id, a, begin, new Start{run, name});
}

extern "C" ssize_t __real_msgrcv(int id, void* message, std::size_t size, long type, int flags);
extern "C" ssize_t __wrap_msgrcv(int id, void* message, std::size_t size, long type, int flags) {
  record("msgrcv", size, type, flags);
  const int error = flags == 0 ? failure("msgrcv") : 0;  // only a receive that waits
  return error != 0 ? marked(error, ssize_t{-1}) : __real_msgrcv(id, message, size, type, flags);
}

extern "C" unsigned __wrap_sleep(unsigned seconds) {
  record("sleep", seconds);
  std::fprintf(stderr, "slept %u\n", seconds);
  // Below zero the monitor thread waits for a file that says go.
  while (thread == monitorName && millisecondsPerSecond < 0 && unlink("/tmp/go") != 0) usleep(1000);
  if (thread == monitorName && millisecondsPerSecond > 0)
    usleep(seconds * static_cast<unsigned>(millisecondsPerSecond) * 1000);
  return 0;
}
