#include "packets.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>

#include "console.h"

namespace {

// "75 clocksteward disable" is the widest.
const std::size_t opcodeWidth = [] {
  std::size_t widest = 0;
  for (const auto& row : hubkeeper_opcodes) widest = std::max(widest, 3 + std::string_view(row.name).size());
  return widest;
}();

constexpr const char* kindNames[] = {"packet", "bounce", "state", "bad"};

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
  titles += fmt::format("  {:>6}  {:>5}  {:<{}}  {}", "LENGTH", "TAG", "OPCODE", opcodeWidth, "PAYLOAD");
  fmt::print("{}\n", inked(Ink::bold, titles));
  std::fflush(stdout);
  titles.clear();
}

void PiecePrinter::print(std::string_view columns, const Piece& piece) {
  printTitles();
  const std::string opcode = fmt::format("{:02x} {}", piece.opcode, hubkeeper_find_opcode(piece.opcode)->name);
  const int width = terminalWidth();
  const int taken = static_cast<int>(columns.size() + 19 + opcodeWidth);
  const std::string payload = payloadText(piece.payload, width == 0 ? 0 : std::max(8, width - taken));
  const auto line = [&](std::string_view tag, Ink ink, std::string_view what, std::string_view rest) {
    const std::string padded = rest.empty() ? std::string(what) : fmt::format("{:<{}}  ", what, opcodeWidth);
    fmt::print("{}  {:>6}  {:>5}  {}{}\n", columns, piece.length, tag, inked(ink, padded), rest);
  };
  switch (piece.kind) {
    case Kind::packet: line(std::to_string(piece.tag), Ink::cyan, opcode, payload); break;
    case Kind::bounce: line("", Ink::dim, opcode, "bounce"); break;
    case Kind::state: line("", Ink::yellow, "state notice", payload); break;
    case Kind::bad: line("", Ink::red, "no Packet", payload); break;
  }
  std::fflush(stdout);
}

nlohmann::json pieceJson(const Piece& piece) {
  nlohmann::json json = {{"kind", kindNames[static_cast<int>(piece.kind)]}, {"length", piece.length}};
  if (piece.kind == Kind::packet) json["tag"] = piece.tag;
  if (piece.kind == Kind::packet || piece.kind == Kind::bounce) {
    json["opcode"] = piece.opcode;
    json["name"] = hubkeeper_find_opcode(piece.opcode)->name;
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
