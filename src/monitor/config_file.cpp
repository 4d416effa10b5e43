#include "monitor/config_file.h"

#include "logging/log_channel.h"
#include "monitor/config_records.h"

bool parseConfigFile(std::vector<std::string>& services, bool& debug) {
  ConfigRecords records(serviceConfigPath);
  if (!records.isOpen()) {
    messagesChannel.error() << "Failed to open config file: " << serviceConfigPath;
    return false;
  }
  std::string key;
  std::string value;
  while (records.next(key, value)) {
    messagesChannel.info() << "key: " << key << " value: " << value;
    if (key == "service") {
      services.push_back(value);
    } else if (key == "debug") {
      debug = value == "true";
    } else {
      messagesChannel.error() << "HubKeeper: Did not recognize config option key[" << key << "] value[" << value << "]";
    }
  }
  return true;
}
