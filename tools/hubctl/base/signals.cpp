#include "base/signals.h"

#include <initializer_list>

volatile std::sig_atomic_t interrupted = 0;

void catchSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int signal) {
    if (signal != SIGALRM) interrupted = 1;
  };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
  // msgsnd and msgrcv are never restarted, whatever this flag says; file input and output are.
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
}
