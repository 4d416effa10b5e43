#include "commands/clocksteward_switch.h"

#include <atomic>
#include <cstdlib>

#include "logging/log_channel.h"

std::uint8_t clockstewardEnabled = 1;

static void setEnabled(std::uint8_t value) {
  std::atomic_ref(clockstewardEnabled).store(value, std::memory_order_relaxed);
}

void handleClockstewardDisable() {
  messagesChannel.warn() << "Clocksteward application has been disabled";
  // Before the kill, or the monitor could restart it in between.
  setEnabled(0);
  static_cast<void>(std::system("pkill clocksteward &"));
}

void handleClockstewardEnable() {
  messagesChannel.warn() << "Clocksteward application has been enabled";
  setEnabled(1);
}
