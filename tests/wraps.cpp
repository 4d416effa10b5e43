#include "wraps.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>

int millisecondsPerSecond = 10;
std::string sleepLog = "/tmp/slept";

namespace {

struct Fault {
  int skip, error, count;
};
std::map<std::string, Fault> faults;
std::mutex faultsMutex;

// The error with which this call is to fail, or 0.
int fault(const char* call) {
  const std::lock_guard lock(faultsMutex);
  const auto found = faults.find(call);
  if (found == faults.end() || found->second.skip-- > 0 || found->second.count-- <= 0) return 0;
  found->second.skip = 0;
  return found->second.error;
}

// The service built with these stand-ins takes its one fault from the environment: CALL:SKIP:ERROR[:MILLISECONDS].
[[maybe_unused]] const bool planned = [] {
  const char* plan = std::getenv("HUB_FAULT");
  char call[64];
  int skip = 0;
  int error = 0;
  if (plan == nullptr) return false;
  if (std::sscanf(plan, "%63[^:]:%d:%d:%d", call, &skip, &error, &millisecondsPerSecond) >= 3)
    planFault(call, skip, error);
  return true;
}();

}  // namespace

void planFault(const std::string& call, int skip, int error, int count) {
  const std::lock_guard lock(faultsMutex);
  faults[call] = {skip, error, count};
}
void clearFaults() { faults.clear(); }

// `failed` is what the call returns then: its error number, or a mark with the number in errno.
#define WRAP(type, name, failed, parameters, arguments)               \
  extern "C" type __real_##name parameters;                           \
  extern "C" type __wrap_##name parameters {                          \
    if (const int error = fault(#name)) return errno = error, failed; \
    return __real_##name arguments;                                   \
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
WRAP(int, pthread_create, errno, (pthread_t * id, const pthread_attr_t* a, void* (*entry)(void*), void* argument),
     (id, a, entry, argument))
WRAP(int, pthread_cancel, errno, (pthread_t id), (id))
WRAP(int, clock_nanosleep, errno, (clockid_t clock, int flags, const timespec* request, timespec* rest),
     (clock, flags, request, rest))

extern "C" unsigned __wrap_sleep(unsigned seconds) {
  std::ofstream(sleepLog, std::ios::app) << "slept " << seconds << "\n";
  usleep(seconds * static_cast<unsigned>(millisecondsPerSecond) * 1000);
  return 0;
}
