#include "base/signals.h"

#include <initializer_list>

volatile std::sig_atomic_t interrupted = 0;

void catchSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}
