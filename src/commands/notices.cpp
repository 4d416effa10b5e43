#include "commands/notices.h"

#include <dirent.h>

#include <string>

#include "hub/packet.h"
#include "hub/sends.h"
#include "logging/log_channel.h"

namespace {

constexpr const char* stagingDirectory = "/var/staging/";

std::string findPackageName() {
  std::string name;
  DIR* directory = opendir(stagingDirectory);
  if (directory == nullptr) {
    messagesChannel.error() << "HubKeeper ERROR: No such directory: " << stagingDirectory;
    return name;
  }
  bool found = false;
  while (!found) {
    const dirent64* entry = readdir64(directory);  // readdir(3) refuses large inode numbers on 32 bits
    if (entry == nullptr) break;
    name = entry->d_name;
    found = name.find('V') != std::string::npos;
  }
  closedir(directory);
  if (!found) messagesChannel.error() << "HubKeeper ERROR: No valid package in directory: " << stagingDirectory;
  return name;
}

}  // namespace

int setState(int state) {
  if (state == kWirepathArmState_RESET) {
    messagesChannel.error() << "HubKeeper: ARM not allowed to set it's own state to 0, kWirepathArmState_RESET";
    return 0;
  }
  std::uint8_t text[2];
  hubkeeper_write16(text, static_cast<std::uint16_t>(state & 0xFFFF));
  return sendMessage(stateNoticeSend, text, sizeof text) ? 1 : 0;
}

void sendSwPackage(int selector) {
  const std::string name = findPackageName();
  sendPacket(packageNoticeSend, 0, selector == 0 ? HUBKEEPER_OPCODE_PACKAGE : HUBKEEPER_OPCODE_PACKAGE_OTHER,
             reinterpret_cast<const std::uint8_t*>(name.data()), name.size());
}
