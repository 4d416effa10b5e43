#include "monitor/config_file.h"

#include "hub/files.h"
#include "logging/log_channel.h"
#include "monitor/config_records.h"

bool parseConfigFile(std::vector<std::string>& services, bool& debug) {
  std::FILE* file = openFile(serviceConfigPath, "re");
  if (file == nullptr) {
    messagesChannel.error() << "Failed to open config file: " << serviceConfigPath;
    return false;
  }
  std::string key;
  std::string value;
  while (readRecord(file, key, value)) {
    messagesChannel.info() << "key: " << key << " value: " << value;
    if (key == "service") {
      services.push_back(value);
    } else if (key == "debug") {
      debug = value == "true";
    } else {
      messagesChannel.error() << "HubKeeper: Did not recognize config option key[" << key << "] value[" << value << "]";
    }
  }
  std::fclose(file);
  return true;
}
