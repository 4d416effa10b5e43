#include "commands/remote_command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hub/files.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "logging/log_channel.h"

namespace {

constexpr const char* responsePath = "/tmp/cmdresp.txt";
constexpr std::size_t longestCommand = 999;  // with the redirection and its NUL, 1024 bytes

const char* commandText(const std::uint8_t* packet) { return reinterpret_cast<const char*>(packet + packetHeaderSize); }

}  // namespace

const char* commandRefusal(const std::uint8_t* packet, std::uint16_t reach) {
  if (reach <= packetHeaderSize) return "HubKeeper: Remote command not run, it has no text";
  const std::size_t limit = reach - std::size_t{packetHeaderSize};
  const std::size_t length = strnlen(commandText(packet), limit);
  if (length == limit) return "HubKeeper: Remote command not run, no NUL ends its text";
  if (length > longestCommand) return "HubKeeper: Remote command not run, it has more than 999 characters";
  return nullptr;
}

void refuseRemoteCommand(std::uint16_t tag, const char* reason) {
  messagesChannel.error() << reason;
  sendPacket(commandReplySend, tag, opcodeCommandReply, reinterpret_cast<const std::uint8_t*>(reason),
             static_cast<int>(std::strlen(reason)));
}

void handleRemoteCommand(const std::uint8_t* packet, std::uint16_t tag) {
  const char* command = commandText(packet);
  messagesChannel.info() << "RemoteCommand: Executing command [" << command << "]";
  char shellLine[1024];
  std::snprintf(shellLine, sizeof shellLine, "%s > /tmp/cmdresp.txt 2>&1", command);
  static_cast<void>(std::system(shellLine));

  std::FILE* response = openFile(responsePath, "rb");
  if (response == nullptr) {
    messagesChannel.error() << "HubKeeper: unable to open " << responsePath;
    return;
  }
  std::uint8_t output[maxPayload];
  const std::size_t size = std::fread(output, 1, sizeof output, response);
  std::fclose(response);
  if (size == 0) messagesChannel.error() << "HubKeeper: unable to read " << responsePath;
  sendPacket(commandReplySend, tag, opcodeCommandReply, output, static_cast<int>(size));
}
