#include "hub/dispatch.h"

#include <charconv>
#include <iterator>

#include "commands/clocksteward_switch.h"
#include "commands/file_transfer.h"
#include "commands/remote_command.h"
#include "commands/version_report.h"
#include "hub/packet.h"
#include "hub/sends.h"
#include "logging/log_channel.h"

namespace {

struct Received {
  const std::uint8_t* packet;
  std::uint16_t remaining;
  hubkeeper_header header;
};

struct Route {
  hubkeeper_route name;
  const Lengths* lengths;  // null: the Packet's length plays no part
  void (*act)(const Received& received);
};
constexpr const Lengths* unjudged = nullptr;

void answerHeartbeat(const Received& received) {
  static constexpr std::uint8_t filler[HUBKEEPER_PAYLOAD_MAX] = {};
  sendPacket(heartbeatReplySend, received.header.tag, HUBKEEPER_OPCODE_HEARTBEAT_REPLY, filler, HUBKEEPER_PAYLOAD_MAX);
}

void forward(const SendKind& peer, const Received& received) {
  sendMessage(peer, received.packet, received.header.length);
}

void runCommand(const Received& received) {
  const hubkeeper_header& header = received.header;
  // The command ends at its NUL, which must lie within the Packet, or within the Bundle where the length is bad.
  const bool lengthIsGood = hubkeeper_fits(header.length, received.remaining) != 0;
  const std::uint16_t reach = lengthIsGood ? header.length : received.remaining;
  if (!refuseUnendedCommand(received.packet, reach, header.tag)) handleRemoteCommand(received.packet, header.tag);
}

// What becomes of each range of opcodes. Which opcodes a range holds stands in hubkeeper/protocol.h.
constexpr Route routes[] = {
    {HUBKEEPER_ROUTE_HEARTBEAT, unjudged, answerHeartbeat},
    {HUBKEEPER_ROUTE_CHRONICLER, &anyFrame, [](const Received& r) { forward(chroniclerSend, r); }},
    {HUBKEEPER_ROUTE_NETSTEWARD, &anyFrame, [](const Received& r) { forward(netstewardSend, r); }},
    {HUBKEEPER_ROUTE_CLOCKSTEWARD, &anyFrame, [](const Received& r) { forward(clockstewardSend, r); }},
    {HUBKEEPER_ROUTE_VERSION, unjudged, [](const Received& r) { handleVersionRequest(r.header.tag); }},
    {HUBKEEPER_ROUTE_COMMAND, unjudged, runCommand},
    {HUBKEEPER_ROUTE_TRANSFER_START, &wholeFrame,
     [](const Received& r) { handleTransferStart(r.packet, r.header.length); }},
    {HUBKEEPER_ROUTE_TRANSFER_CHUNK, &wholeInBundle,
     [](const Received& r) { handleTransferChunk(r.packet, r.header.length); }},
    {HUBKEEPER_ROUTE_TRANSFER_END, &wholeFrame,
     [](const Received& r) { handleTransferEnd(r.packet, r.header.length); }},
    {HUBKEEPER_ROUTE_CLOCKSTEWARD_DISABLE, unjudged, [](const Received&) { handleClockstewardDisable(); }},
    {HUBKEEPER_ROUTE_CLOCKSTEWARD_ENABLE, unjudged, [](const Received&) { handleClockstewardEnable(); }},
};

constexpr bool standInOrder() {
  for (std::size_t place = 0; place < std::size(routes); ++place) {
    if (routes[place].name != place) return false;
  }
  return std::size(routes) == HUBKEEPER_ROUTE_NONE;
}
static_assert(standInOrder(), "a route is found by its name: each has its row, in the order of hubkeeper_route");

struct HexText {
  char digits[3];
};

// In lower case, without prefix and leading zero.
HexText hexText(std::uint8_t number) {
  HexText text{};
  std::to_chars(text.digits, text.digits + 2, number, 16);
  return text;
}

void logBadOpcode(std::uint8_t opcode) { messagesChannel.error() << "bad opcode: " << hexText(opcode).digits; }

// Dropped whole: a Packet cut short is not the Packet that was meant.
void logBadLength(const Received& received) {
  messagesChannel.error() << "HubKeeper: Packet dropped, opcode " << hexText(received.header.opcode).digits
                          << ", length " << static_cast<int>(received.header.length) << ", remaining bundle size "
                          << static_cast<int>(received.remaining);
}

bool mayAct(const Route& route, const Received& received) {
  if (route.lengths == nullptr) return true;
  const std::uint16_t length = received.header.length;
  return route.lengths->include(length) && length <= received.remaining;
}

}  // namespace

void dispatchPacket(const std::uint8_t* packet, std::uint16_t remaining) {
  const Received received{packet, remaining, hubkeeper_read_header(packet, remaining)};
  const std::uint8_t opcode = received.header.opcode;
  sendMessage(bounceSend, &opcode, 1);

  const hubkeeper_route route = hubkeeper_find_opcode(opcode)->route;
  if (route == HUBKEEPER_ROUTE_NONE) return logBadOpcode(opcode);
  if (!mayAct(routes[route], received)) return logBadLength(received);
  routes[route].act(received);
}
