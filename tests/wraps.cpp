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

#include "support.h"

int millisecondsPerSecond = 10;
std::string sleepLog = "/tmp/slept";

namespace {
std::string failingCall;
std::atomic<int> successes;
int failureError;

// The service built with these stand-ins takes its failure from the environment: CALL:SKIP:ERROR:MILLISECONDS.
[[maybe_unused]] const bool planned = [] {
  const char* plan = std::getenv("HUB_FAILURE");
  char call[64];
  int skip = 0, error = 0;
  if (plan == nullptr || std::sscanf(plan, "%63[^:]:%d:%d:%d", call, &skip, &error, &millisecondsPerSecond) < 3)
    return false;
  planFailure(call, skip, error);
  std::atexit([] { std::puts("torn down"); });  // must not be seen: the end leaves before any destructor
  return true;
}();

// The error with which this call is to fail, or 0.
int failure(const char* call) { return failingCall == call && successes-- <= 0 ? failureError : 0; }
}  // namespace

void planFailure(const std::string& call, int skip, int error) {
  failingCall = call, successes = skip, failureError = error;
}

// `failed` is what the call returns then: its error number, or a mark with the number in errno.
#define WRAP(type, name, failed, parameters, arguments)                 \
  extern "C" type __real_##name parameters;                             \
  extern "C" type __wrap_##name parameters {                            \
    if (const int error = failure(#name)) return errno = error, failed; \
    return __real_##name arguments;                                     \
  }
WRAP(int, msgget, -1, (key_t key, int flags), (key, flags))
WRAP(int, msgctl, -1, (int id, int command, void* stats), (id, command, stats))
WRAP(int, system, -1, (const char* command), (command))
WRAP(FILE*, popen, nullptr, (const char* command, const char* mode), (command, mode))
WRAP(int, fclose, EOF, (FILE * file), (file))
WRAP(DIR*, opendir, nullptr, (const char* path), (path))
WRAP(int, sched_get_priority_max, -1, (int policy), (policy))
WRAP(int, pthread_attr_setschedparam, errno, (pthread_attr_t * a, const sched_param* p), (a, p))
WRAP(int, pthread_attr_setdetachstate, errno, (pthread_attr_t * a, int state), (a, state))
WRAP(int, pthread_attr_destroy, errno, (pthread_attr_t * a), (a))
WRAP(int, pthread_cancel, errno, (pthread_t id), (id))
WRAP(int, clock_nanosleep, errno, (clockid_t c, int flags, const timespec* t, timespec* rest), (c, flags, t, rest))

extern "C" int __real_pthread_create(pthread_t* id, const pthread_attr_t* a, void* (*run)(void*), void* argument);
extern "C" int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* a, void* (*run)(void*), void* argument) {
  if (const int error = failure("pthread_create")) return error;
  // A thread that is cancelled while it logs takes the process down with it.
  if (failingCall == "pthread_cancel") run = [](void*) -> void* { return pause(), nullptr; };
  return __real_pthread_create(id, a, run, argument);
}

extern "C" ssize_t __real_msgrcv(int id, void* message, std::size_t size, long type, int flags);
extern "C" ssize_t __wrap_msgrcv(int id, void* message, std::size_t size, long type, int flags) {
  const int error = flags == 0 ? failure("msgrcv") : 0;  // only a receive that waits
  return error != 0 ? errno = error, -1 : __real_msgrcv(id, message, size, type, flags);
}

extern "C" unsigned __wrap_sleep(unsigned seconds) {
  std::ofstream(sleepLog, std::ios::app) << "slept " << seconds << "\n";
  usleep(seconds * static_cast<unsigned>(millisecondsPerSecond) * 1000);
  return 0;
}
