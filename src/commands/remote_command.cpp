#include "commands/remote_command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hub/files.h"
#include "hub/packet.h"
#include "hub/sends.h"
#include "logging/log_channel.h"

namespace {

constexpr const char* responsePath = "/tmp/cmdresp.txt";

const char* commandText(const std::uint8_t* packet) {
  return reinterpret_cast<const char*>(packet + HUBKEEPER_HEADER_SIZE);
}

// The reason is the reply's text too, so that Ridgelink does not wait in vain. Neither the shell nor the response file
// is touched.
void refuse(std::uint16_t tag, const char* reason) {
  messagesChannel.error() << reason;
  sendPacket(commandReplySend, tag, HUBKEEPER_OPCODE_COMMAND_REPLY, reinterpret_cast<const std::uint8_t*>(reason),
             std::strlen(reason));
}

void sendResponse(std::uint16_t tag) {
  std::FILE* response = openFile(responsePath, "rb");
  if (response == nullptr) {
    messagesChannel.error() << "HubKeeper: unable to open " << responsePath;
    return;
  }
  std::uint8_t output[HUBKEEPER_PAYLOAD_MAX];
  const std::size_t size = std::fread(output, 1, sizeof output, response);
  std::fclose(response);
  if (size == 0) messagesChannel.error() << "HubKeeper: unable to read " << responsePath;
  sendPacket(commandReplySend, tag, HUBKEEPER_OPCODE_COMMAND_REPLY, output, size);
}

}  // namespace

bool refuseUnendedCommand(const std::uint8_t* packet, std::uint16_t reach, std::uint16_t tag) {
  if (reach <= HUBKEEPER_HEADER_SIZE) {
    refuse(tag, "HubKeeper: Remote command not run, it has no text");
    return true;
  }
  const std::size_t limit = reach - std::size_t{HUBKEEPER_HEADER_SIZE};
  const bool unended = strnlen(commandText(packet), limit) == limit;
  if (unended) refuse(tag, "HubKeeper: Remote command not run, no NUL ends its text");
  return unended;
}

void handleRemoteCommand(const std::uint8_t* packet, std::uint16_t tag) {
  const char* command = commandText(packet);
  if (std::strlen(command) > HUBKEEPER_COMMAND_MAX) {
    return refuse(tag, "HubKeeper: Remote command not run, it has more than 999 characters");
  }
  messagesChannel.info() << "RemoteCommand: Executing command [" << command << "]";
  char shellLine[1024];  // the longest command, the redirection and its NUL
  std::snprintf(shellLine, sizeof shellLine, "%s > /tmp/cmdresp.txt 2>&1", command);
  static_cast<void>(std::system(shellLine));
  sendResponse(tag);
}
