#include "talking/turn.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"
#include "showing/terminal.h"

namespace {

// The queues belong to an IPC namespace, and its number tells one from the other. Who may not open root's file takes the
// namespace itself, which anybody may lock.
int openLock() {
  struct stat space = {}, file = {};
  if (stat("/proc/self/ns/ipc", &space) == -1) return -1;
  const std::string path = fmt::format("/run/hubctl-{}.lock", space.st_ino);
  const int create = geteuid() == 0 ? O_CREAT : 0;  // another's would be in everybody's way
  const int descriptor = open(path.c_str(), O_RDWR | create | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
  if (descriptor == -1) return open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC);
  if (fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode) && file.st_uid == 0) return descriptor;
  close(descriptor);
  throw Failure(path + " is no file of root's: remove it");
}

// 0 when the lock is had; otherwise the process that has it, -1 where it has just ended, is in another PID namespace, or has
// the namespace, whose lock names nobody.
pid_t tryLock(int descriptor) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  if (fcntl(descriptor, F_SETLK, &lock) == 0) return 0;
  if (errno == EBADF) return flock(descriptor, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK ? -1 : 0;
  if (errno != EACCES && errno != EAGAIN) throw Failure(fmt::format("cannot lock in /run: {}", std::strerror(errno)));
  fcntl(descriptor, F_GETLK, &lock);
  return lock.l_type == F_UNLCK || lock.l_pid == 0 ? -1 : lock.l_pid;
}

std::string named(pid_t other) { return "another hubctl" + (other > 0 ? fmt::format(", process {},", other) : ""); }

}  // namespace

void takeTurn(double patience) {
  const int descriptor = openLock();
  if (descriptor == -1) return;
  const Clock::time_point deadline = after(patience);
  pid_t told = 0;
  while (const pid_t other = tryLock(descriptor)) {
    if (stopWanted()) throw Failure("interrupted while another hubctl was talking to HubKeeper");
    if (Clock::now() >= deadline) {
      throw Failure(fmt::format("{} still talks to HubKeeper after {:.3g} s", named(other), patience));
    }
    if (told == 0) complain(fmt::format("waiting for {} to end its talk with HubKeeper", named(other)));
    told = other;
    nap(0.02);
  }
}
