#include "hub/end_process.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "logging/log_channel.h"

// Flushes standard output alone: what exit(3) does for all streams would hang while another thread sits in a read on
// one of them.
static void leaveAtOnce() {
  std::fflush(stdout);
  _exit(1);
}

void endProcess() {
  // Handlers run in the reverse order of their registration, so this one comes before every destructor.
  if (std::atexit(leaveAtOnce) != 0) leaveAtOnce();
  std::exit(1);
}

void endAfterFailure(const char* line, const char* cause, int error) {
  messagesChannel.error() << line;
  errno = error;
  std::perror(cause);
  endProcess();
}
