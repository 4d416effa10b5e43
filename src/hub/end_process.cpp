#include "hub/end_process.h"

#include <unistd.h>

#include <cstdio>

#include "logging/log_channel.h"

void endProcess() {
  // Standard output alone: fflush(nullptr) would hang while another thread sits in a read on some stream.
  std::fflush(stdout);
  _exit(1);
}

void endAfterFailure(const char* line, const char* cause, int error) {
  messagesChannel.error() << line;
  errno = error;
  std::perror(cause);
  endProcess();
}
