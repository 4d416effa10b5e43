#include "hub/inbound.h"

#include <hubkeeper/protocol.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>

#include "commands/file_transfer.h"
#include "hub/dispatch.h"
#include "hub/identity.h"
#include "hub/queues.h"
#include "logging/log_channel.h"

namespace {

struct ReceiveArea {
  long mtype;
  std::uint8_t mtext[HUBKEEPER_BUNDLE_MAX];
};

void takeBundle(const std::uint8_t* text, ssize_t size) {
  if (size == 0) {
    messagesChannel.error() << "HubKeeper: Received a queue message of size 0 on inbound queue";
  } else {
    walkBundle(text, static_cast<std::uint16_t>(size));
  }
}

// A message longer than the receive area fails every receive and stays where it is; taking it off cut short, unread,
// makes it cost one failure line and not an endless loop. Somebody else may have taken it meanwhile; then the next
// message comes instead. If that leaves this buffer's extra byte free, it is whole, and is walked.
void discardOversized() {
  struct {
    long mtype;
    std::uint8_t mtext[HUBKEEPER_BUNDLE_MAX + 1];
  } area;
  const ssize_t size = msgrcv(inboundQueue, &area, sizeof area.mtext, 0, MSG_NOERROR | IPC_NOWAIT);
  if (size >= 0 && size <= HUBKEEPER_BUNDLE_MAX) takeBundle(area.mtext, size);
}

void receiveBundle(ReceiveArea& area) {
  const ssize_t received = msgrcv(inboundQueue, &area, sizeof area.mtext, 0, 0);
  if (received >= 0) return takeBundle(area.mtext, received);
  const int reason = errno;
  messagesChannel.error() << "HubKeeper: msgrcv inbound failed, sizeReceived = " << static_cast<int>(received);
  if (openQueue(HUBKEEPER_QUEUE_INBOUND) == -1) messagesChannel.error() << "Failed recreating the que";
  if (reason == E2BIG) discardOversized();
}

}  // namespace

void walkBundle(const std::uint8_t* bundle, std::uint16_t size) {
  hubkeeper_walk walk{bundle, size};
  hubkeeper_piece piece;
  while (hubkeeper_next(&walk, &piece) != 0) {
    dispatchPacket(piece.bytes, static_cast<std::uint16_t>(piece.remaining));
    if (piece.good == 0) {
      messagesChannel.fatal() << "HubKeeper: Bad bundle or message size. message size is "
                              << static_cast<int>(piece.header.length) << " and remaining bundle size is "
                              << static_cast<int>(piece.remaining);
    }
  }
}

void* inboundThread(void*) {
  openTransferPlaceholder();
  ReceiveArea area = {};  // cleared here alone: behind a short message stand the bytes of earlier ones
  createQues();
  logQueueIds();
  logSystemName();
  logFirmwareVersion();
  for (;;) receiveBundle(area);
}
