#include "hub/dispatch.h"

#include <charconv>

#include "commands/clocksteward_switch.h"
#include "commands/file_transfer.h"
#include "commands/remote_command.h"
#include "commands/version_report.h"
#include "hub/packet.h"
#include "hub/queues.h"
#include "logging/log_channel.h"

namespace {

struct Received {
  const std::uint8_t* packet;
  std::uint16_t remaining;
  PacketHeader header;
};

constexpr const Lengths* unjudged = nullptr;  // the Packet's length plays no part

struct Route {
  std::uint8_t first;
  std::uint8_t last;
  const Lengths* lengths;  // null: not judged
  void (*act)(const Received& received);
};

void answerHeartbeat(const Received& received) {
  static constexpr std::uint8_t filler[maxPayload] = {};
  sendPacket(heartbeatReplySend, received.header.tag, opcodeHeartbeatReply, filler, maxPayload);
}

void forward(const SendKind& peer, const Received& received) {
  sendMessage(peer, received.packet, received.header.length);
}

void runCommand(const Received& received) {
  const PacketHeader& header = received.header;
  // The command ends at its NUL, which must lie within the Packet, or within the Bundle where the length is bad.
  const bool lengthIsGood = fitsBundle(header.length, received.remaining);
  const char* refusal = commandRefusal(received.packet, lengthIsGood ? header.length : received.remaining);
  if (refusal != nullptr) {
    refuseRemoteCommand(header.tag, refusal);
  } else {
    handleRemoteCommand(received.packet, header.tag);
  }
}

// The first row that holds the opcode wins, so the order counts: a heartbeat lies in Netsteward's range.
constexpr Route routes[] = {
    {opcodeHeartbeat, opcodeHeartbeat, unjudged, answerHeartbeat},
    {opcodeChronicler, opcodeChronicler, &anyFrame, [](const Received& r) { forward(chroniclerSend, r); }},
    {opcodeNetstewardFirst, opcodeNetstewardLast, &anyFrame, [](const Received& r) { forward(netstewardSend, r); }},
    {opcodeClockstewardFirst, opcodeClockstewardLast, &anyFrame,
     [](const Received& r) { forward(clockstewardSend, r); }},
    {opcodeVersion, opcodeVersion, unjudged, [](const Received& r) { handleVersionRequest(r.header.tag); }},
    {opcodeCommand, opcodeCommand, unjudged, runCommand},
    {opcodeTransferStart, opcodeTransferStart, &wholeFrame,
     [](const Received& r) { handleTransferStart(r.packet, r.header.length); }},
    {opcodeTransferChunk, opcodeTransferChunk, &wholeInBundle,
     [](const Received& r) { handleTransferChunk(r.packet, r.header.length); }},
    {opcodeTransferEnd, opcodeTransferEnd, &wholeFrame,
     [](const Received& r) { handleTransferEnd(r.packet, r.header.length); }},
    {opcodeClockstewardOff, opcodeClockstewardOff, unjudged, [](const Received&) { handleClockstewardDisable(); }},
    {opcodeClockstewardOn, opcodeClockstewardOn, unjudged, [](const Received&) { handleClockstewardEnable(); }},
};

struct HexText {
  char digits[3];
};

// In lower case, without prefix and leading zero.
HexText hexText(std::uint8_t number) {
  HexText text{};
  std::to_chars(text.digits, text.digits + 2, number, 16);
  return text;
}

const Route* findRoute(std::uint8_t opcode) {
  for (const Route& route : routes) {
    if (route.first <= opcode && opcode <= route.last) return &route;
  }
  return nullptr;
}

bool lengthHolds(const Route& route, const Received& received) {
  if (route.lengths == nullptr) return true;
  const std::uint16_t length = received.header.length;
  return route.lengths->hold(length) && length <= received.remaining;
}

}  // namespace

void dispatchPacket(const std::uint8_t* packet, std::uint16_t remaining) {
  const Received received{packet, remaining, readHeader(packet, remaining)};
  const PacketHeader& header = received.header;
  sendMessage(bounceSend, &header.opcode, 1);

  const Route* route = findRoute(header.opcode);
  if (route == nullptr) {
    messagesChannel.error() << "bad opcode: " << hexText(header.opcode).digits;
  } else if (!lengthHolds(*route, received)) {
    // Dropped whole: a Packet cut short is not the Packet that was meant.
    messagesChannel.error() << "HubKeeper: Packet dropped, opcode " << hexText(header.opcode).digits << ", length "
                            << static_cast<int>(header.length) << ", remaining bundle size "
                            << static_cast<int>(remaining);
  } else {
    route->act(received);
  }
}
