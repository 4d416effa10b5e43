#include "base/signals.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t mark = 0;
int shields = 0;

}  // namespace

void catchSignals() {
  struct sigaction action = {}, inherited = {};
  action.sa_handler = [](int) { mark = 1; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigaction(signal, nullptr, &inherited) == 0 && inherited.sa_handler != SIG_IGN) {
      sigaction(signal, &action, nullptr);
    }
  }
  for (const int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
}

bool interrupted() { return mark != 0; }

bool stopWanted() { return mark != 0 && shields == 0; }

Shield::Shield() { ++shields; }

Shield::~Shield() { --shields; }
