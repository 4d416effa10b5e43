#include "commands/file_transfer.h"

#include <fcntl.h>
#include <unistd.h>

#include "hub/end_process.h"
#include "hub/files.h"
#include "hub/packet.h"
#include "hub/sends.h"
#include "logging/log_channel.h"

std::uint8_t transferActive = 0;
std::FILE* transferFile = nullptr;
std::string transferFileName;

static bool transferFileIsOpen() { return transferFile != nullptr && fcntl(fileno(transferFile), F_GETFD) != -1; }

static void closeTransferFile() {
  static_cast<void>(std::fseek(transferFile, 0, SEEK_SET));
  const int closed = std::fclose(transferFile);
  transferFile = nullptr;
  if (closed == 0) return;
  messagesChannel.error() << "HubKeeper: Failed to close file";
  endProcess();
}

void openTransferPlaceholder() { transferFile = openFile("bad_file", "ab+"); }

void handleTransferStart(const std::uint8_t* packet, std::uint16_t length) {
  if (!wholeFrame.include(length)) return;
  if (transferActive == 1) {
    messagesChannel.error() << "HubKeeper: Two transfers started";
    return;
  }
  // The last byte closes the name and is no part of it, whatever it holds.
  transferFileName.clear();
  for (int i = HUBKEEPER_HEADER_SIZE; i < length - 1; ++i) transferFileName.push_back(static_cast<char>(packet[i]));
  const std::string target = "/" + transferFileName;

  transferActive = 1;
  // The stream held so far stays open: that of the placeholder, at a first transfer.
  transferFile = openFile(target.c_str(), "wb+");
  if (transferFile == nullptr) endAfterFailure("HubKeeper: Failed to open file for transfer", "fopen");
  sendMessage(transferStartSend, packet, length);
}

void handleTransferChunk(const std::uint8_t* packet, std::uint16_t length) {
  if (!wholeInBundle.include(length)) return;
  if (!transferFileIsOpen() || transferActive == 0) {
    messagesChannel.error() << "HubKeeper: Tried to write bad app file";
    return;
  }
  const std::size_t size = length - std::size_t{HUBKEEPER_HEADER_SIZE};
  static_cast<void>(std::fwrite(packet + HUBKEEPER_HEADER_SIZE, 1, size, transferFile));
}

void handleTransferEnd(const std::uint8_t* packet, std::uint16_t length) {
  if (!wholeFrame.include(length)) return;
  sleep(1);  // before any test, also for a stray end Packet
  transferActive = 0;
  if (transferFileIsOpen()) {
    closeTransferFile();
  } else {
    messagesChannel.error() << "HubKeeper: Tried to close bad app file";
  }
  sendMessage(transferEndSend, packet, length);
}
