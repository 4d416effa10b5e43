#include "commands/version_report.h"

#include <cstdio>

#include "hub/files.h"
#include "hub/packet.h"
#include "hub/sends.h"
#include "logging/log_channel.h"

namespace {

constexpr const char* buildVersionPath = "/etc/build-version";
constexpr const char* osReleasePath = "/etc/os-release";

std::FILE* openVersionFile(const char* path) {
  std::FILE* file = openFile(path, "rb");
  if (file == nullptr) messagesChannel.error() << "HubKeeper: unable to open " << path;
  return file;
}

std::FILE* openEitherVersionFile() {
  std::FILE* file = openVersionFile(buildVersionPath);
  if (file == nullptr) file = openVersionFile(osReleasePath);
  if (file == nullptr) {
    messagesChannel.error() << "HubKeeper: Failed to open both " << osReleasePath << " and " << buildVersionPath
                            << ". Sending empty packet";
  }
  return file;
}

// Reads the version into `content` and returns its size. A read that fills all 507 bytes may have been cut short and
// counts as a failure, as does an empty file: the size is then 0.
std::size_t readVersion(std::FILE* file, std::uint8_t (&content)[HUBKEEPER_PAYLOAD_MAX]) {
  const std::size_t size = std::fread(content, 1, sizeof content, file);
  std::fclose(file);
  if (size == 0 || size == HUBKEEPER_PAYLOAD_MAX) {
    messagesChannel.error() << "HubKeeper: unable to read version file";
    return 0;
  }
  content[size] = 0;  // the log takes the text up to its first NUL, the reply takes all bytes
  messagesChannel.info() << "HubKeeper: SD Card version: " << reinterpret_cast<const char*>(content) << " of size "
                         << size;
  return size;
}

}  // namespace

void handleVersionRequest(std::uint16_t tag) {
  std::uint8_t content[HUBKEEPER_PAYLOAD_MAX];
  std::FILE* file = openEitherVersionFile();
  const std::size_t size = file != nullptr ? readVersion(file, content) : 0;
  sendPacket(versionReplySend, tag, HUBKEEPER_OPCODE_VERSION_REPLY, content, size);
}
