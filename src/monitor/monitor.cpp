#include "monitor/monitor.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands/clocksteward_switch.h"
#include "logging/log_channel.h"
#include "monitor/config_file.h"
#include "monitor/process_lookup.h"

namespace {

// The board gets this long to bring its services up by itself.
constexpr unsigned startDelay = 40;  // seconds
constexpr unsigned cyclePause = 5;   // seconds

// False when there is nothing to watch; the one line that tells why has been logged.
bool readServices(std::vector<std::string>& services) {
  bool debug = false;
  if (!parseConfigFile(services, debug)) {
    messagesChannel.error() << "HubKeeper: Failed to parse config file";
    return false;
  }
  if (debug) {
    messagesChannel.info() << "HubKeeper: Not monitoring services as the debug flag was set in the config file";
    return false;
  }
  if (services.empty()) {
    messagesChannel.info() << "HubKeeper: No services specified to monitor in config file";
    return false;
  }
  return true;
}

bool mustStayDead(const std::string& service) {
  return service.find("clocksteward") != std::string::npos &&
         std::atomic_ref(clockstewardEnabled).load(std::memory_order_relaxed) == 0;
}

void checkService(const std::string& service) {
  if (findProcess(service.c_str()) != -1 || mustStayDead(service)) return;
  messagesChannel.error() << "HubKeeper: service " << service << " has stopped running";
  const std::string command = service + "&";
  // With the "&", only a child that could not be made is told from success.
  if (std::system(command.c_str()) != -1) messagesChannel.info() << "Successfully restarted " << service;
}

}  // namespace

void* monitorThread(void*) {
  sleep(startDelay);
  std::vector<std::string> services;
  if (!readServices(services)) return nullptr;
  for (const std::string& service : services) {
    messagesChannel.info() << "HubKeeper: Start Monitoring service " << service;
  }
  for (;;) {
    sleep(cyclePause);
    for (const std::string& service : services) checkService(service);
  }
}
