#include "packets.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>

#include "console.h"
#include "hub/packet.h"
#include "queues.h"

namespace {

struct OpcodeRange {
  std::uint8_t first;
  std::uint8_t last;
  const char* name;
};

// The first row that holds wins.
constexpr OpcodeRange opcodes[] = {
    {opcodeHeartbeat, opcodeHeartbeat, "heartbeat"},
    {opcodeNetstewardFirst, opcodeNetstewardLast, "to netsteward"},
    {opcodeClockstewardFirst, opcodeClockstewardLast, "to clocksteward"},
    {opcodeChronicler, opcodeChronicler, "to chronicler"},
    {opcodeVersion, opcodeVersion, "version"},
    {opcodeCommand, opcodeCommand, "command"},
    {opcodeTransferStart, opcodeTransferStart, "transfer start"},
    {opcodeTransferChunk, opcodeTransferChunk, "transfer data"},
    {opcodeTransferEnd, opcodeTransferEnd, "transfer end"},
    {opcodeClockstewardOff, opcodeClockstewardOff, "clocksteward off"},
    {opcodeClockstewardOn, opcodeClockstewardOn, "clocksteward on"},
    {opcodeHeartbeatReply, opcodeHeartbeatReply, "heartbeat reply"},
    {opcodePackage, opcodePackage, "package"},
    {opcodeVersionReply, opcodeVersionReply, "version reply"},
    {opcodePackageOther, opcodePackageOther, "package, other"},
    {opcodeCommandReply, opcodeCommandReply, "command reply"},
    {0x00, 0xFF, "unknown"},
};

constexpr const char* kindNames[] = {"packet", "bounce", "state", "bad"};

Piece wholePacket(ByteView message) {
  const PacketHeader header = readHeader(message.data(), static_cast<std::uint16_t>(message.size()));
  return {Kind::packet, header.length, header.tag, header.opcode,
          message.subspan(packetHeaderSize, header.length - packetHeaderSize)};
}

std::string hexOf(ByteView bytes, const char* between = " ") {
  return fmt::format("{:02x}", fmt::join(bytes, between));
}

// Hexadecimal digits and text of as many bytes as fit into `room` columns (any number when it is 0).
std::string payloadText(ByteView payload, int room) {
  if (payload.empty()) return "";
  const bool filler = std::all_of(payload.begin(), payload.end(), [&](std::uint8_t b) { return b == payload[0]; });
  if (filler && payload.size() > 8) return fmt::format("{:02x}, {} times", payload[0], payload.size());
  const std::size_t fits = room <= 0 ? payload.size() : static_cast<std::size_t>(std::max(1, (room - 3) / 4));
  if (payload.size() <= fits) return fmt::format("{}  \"{}\"", hexOf(payload), printable(payload));
  const std::size_t cut = static_cast<std::size_t>(std::max(1, (room - 9) / 4));
  return fmt::format("{}  \"{}\" +{}", hexOf(payload.first(cut)), printable(payload.first(cut)), payload.size() - cut);
}

}  // namespace

std::vector<Piece> split(const Queue& queue, ByteView message) {
  std::vector<Piece> pieces;
  const auto packetAtFront = [](ByteView rest) {
    const PacketHeader header =
        readHeader(rest.data(), static_cast<std::uint16_t>(std::min<std::size_t>(rest.size(), 65535)));
    return rest.size() >= packetHeaderSize && header.length >= packetHeaderSize && header.length <= rest.size();
  };
  if (&queue == &outbound && message.size() == 1) return {{Kind::bounce, 1, 0, message[0], {}}};
  if (&queue == &outbound && message.size() == 2) return {{Kind::state, 2, 0, 0, message}};
  while (packetAtFront(message)) {
    pieces.push_back(wholePacket(message));
    message = message.subspan(pieces.back().length);
    if (&queue != &inbound) break;
  }
  if (!message.empty() || pieces.empty()) pieces.push_back({Kind::bad, message.size(), 0, 0, message});
  return pieces;
}

Bytes makePacket(std::uint8_t opcode, std::uint16_t tag, ByteView payload) {
  Bytes packet(packetHeaderSize + payload.size());
  const auto put16 = [&](std::size_t at, std::size_t word) {
    packet[at] = static_cast<std::uint8_t>(word & 0xFF);
    packet[at + 1] = static_cast<std::uint8_t>(word >> 8 & 0xFF);
  };
  put16(0, packet.size());
  put16(2, tag);
  packet[4] = opcode;
  std::copy(payload.begin(), payload.end(), packet.begin() + packetHeaderSize);
  return packet;
}

std::string_view opcodeName(std::uint8_t opcode) {
  const auto holds = [opcode](const OpcodeRange& row) { return row.first <= opcode && opcode <= row.last; };
  return std::find_if(std::begin(opcodes), std::end(opcodes), holds)->name;
}

std::string printable(ByteView bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
  return text;
}

Bytes parseHex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  const auto digit = [](char c) {
    static constexpr std::string_view digits = "0123456789abcdef";
    const auto place = digits.find(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return place == std::string_view::npos ? -1 : static_cast<int>(place);
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (high < 0 && (std::isspace(static_cast<unsigned char>(text[i])) || text[i] == ':' || text[i] == ',')) continue;
    const int value = digit(text[i]);
    if (value < 0) throw WrongUsage(fmt::format("\"{}\" is no hexadecimal digit: {}", text[i], text));
    if (high >= 0) bytes.push_back(static_cast<std::uint8_t>(high * 16 + value));
    high = high < 0 ? value : -1;
  }
  if (high >= 0) throw WrongUsage(fmt::format("a byte has two hexadecimal digits; one is left over: {}", text));
  return bytes;
}

void PiecePrinter::printTitles() {
  if (titles.empty()) return;
  titles += fmt::format("  {:>6}  {:>5}  {:<21}  {}", "LENGTH", "TAG", "OPCODE", "PAYLOAD");
  fmt::print("{}\n", inked(Ink::bold, titles));
  std::fflush(stdout);
  titles.clear();
}

void PiecePrinter::print(std::string_view columns, const Piece& piece) {
  printTitles();
  const std::string opcode = fmt::format("{:02x} {}", piece.opcode, opcodeName(piece.opcode));
  const int width = terminalWidth();
  const std::string payload =
      payloadText(piece.payload, width == 0 ? 0 : std::max(8, width - 40 - static_cast<int>(columns.size())));
  const auto line = [&](std::string_view tag, Ink ink, std::string_view what, std::string_view rest) {
    const std::string padded = rest.empty() ? std::string(what) : fmt::format("{:<21}  ", what);
    fmt::print("{}  {:>6}  {:>5}  {}{}\n", columns, piece.length, tag, inked(ink, padded), rest);
  };
  switch (piece.kind) {
    case Kind::packet: line(std::to_string(piece.tag), Ink::cyan, opcode, payload); break;
    case Kind::bounce: line("", Ink::dim, opcode, "bounce"); break;
    case Kind::state: line("", Ink::yellow, "board state", payload); break;
    case Kind::bad: line("", Ink::red, "no Packet", payload); break;
  }
  std::fflush(stdout);
}

nlohmann::json pieceJson(const Piece& piece) {
  nlohmann::json json = {{"kind", kindNames[static_cast<int>(piece.kind)]}, {"length", piece.length}};
  if (piece.kind == Kind::packet) json["tag"] = piece.tag;
  if (piece.kind == Kind::packet || piece.kind == Kind::bounce) {
    json["opcode"] = piece.opcode;
    json["name"] = opcodeName(piece.opcode);
  }
  if (piece.kind == Kind::state) json["state"] = piece.payload[0] | piece.payload[1] << 8;
  if (piece.kind != Kind::bounce) json["payload"] = hexOf(piece.payload, "");
  return json;
}

std::string dumpJson(const nlohmann::json& json, int indent) {
  return json.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string timeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const auto seconds = std::chrono::time_point_cast<std::chrono::seconds>(now);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now - seconds).count();
  return fmt::format("{:%H:%M:%S}.{:03}", fmt::localtime(std::chrono::system_clock::to_time_t(now)), milliseconds);
}
