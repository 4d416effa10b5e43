#include "hub/identity.h"

#include <cstdio>

#include "hub/files.h"
#include "logging/log_channel.h"

const std::string versionFilePath = "/usr/local/bin/AppVersionFile.txt";

std::int32_t stampVersion(const std::string& version) {
  messagesChannel.info() << "HubKeeper: " << version;
  std::FILE* file = openFile(versionFilePath.c_str(), "a");
  if (file == nullptr) {
    messagesChannel.error() << "HubKeeper error opening version file: " << versionFilePath;
    return 0;
  }
  std::fprintf(file, "HubKeeper:%s\n", version.c_str());  // no blank behind this colon
  std::fclose(file);
  return 0;
}

std::int32_t logCommandOutput(const std::string& command) {
  std::FILE* output = keepFromShells(popen(command.c_str(), "r"));
  if (output == nullptr) {
    messagesChannel.error() << "HubKeeper: Failed to run command " << command;
    return -1;
  }
  // A piece keeps its newline, so behind a whole line of output stands a log line without text.
  char piece[128];
  while (std::fgets(piece, sizeof piece, output) != nullptr) messagesChannel.info() << piece;
  return pclose(output);
}

void logSystemName() { logCommandOutput("uname -a"); }

void logFirmwareVersion() { logCommandOutput("fw_printenv -n ver"); }
