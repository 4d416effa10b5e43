#include "commands/clocksteward_switch.h"

#include <cstdlib>

#include "logging/log_channel.h"

std::atomic<std::uint8_t> clockstewardEnabled{1};

void handleClockstewardDisable() {
  messagesChannel.warn() << "Clocksteward application has been disabled";
  // Before the kill, or the monitor could restart it in between.
  clockstewardEnabled.store(0, std::memory_order_relaxed);
  static_cast<void>(std::system("pkill clocksteward &"));
}

void handleClockstewardEnable() {
  messagesChannel.warn() << "Clocksteward application has been enabled";
  clockstewardEnabled.store(1, std::memory_order_relaxed);
}
