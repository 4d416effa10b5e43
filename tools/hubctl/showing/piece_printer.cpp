#include "showing/piece_printer.h"

#include <fmt/format.h>

#include <algorithm>

#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

// As wide as the longest, "75 clocksteward disable".
const std::size_t opcodeWidth = [] {
  std::size_t widest = 0;
  for (const auto& row : hubkeeper_opcodes) widest = std::max(widest, 3 + std::string_view(row.name).size());
  return widest;
}();

// Hexadecimal digits and text of as many bytes as fit into `room` columns (any number when it is 0).
std::string payloadText(ByteView payload, int room) {
  if (payload.empty()) return "";
  const bool filler = std::all_of(payload.begin(), payload.end(), [&](std::uint8_t b) { return b == payload[0]; });
  if (filler && payload.size() > 8) return fmt::format("{:02x}, {} times", payload[0], payload.size());
  const std::size_t fits = room <= 0 ? payload.size() : static_cast<std::size_t>(std::max(1, (room - 3) / 4));
  if (payload.size() <= fits) return fmt::format("{}  \"{}\"", hexOf(payload, " "), printable(payload));
  const ByteView cut = payload.first(static_cast<std::size_t>(std::max(1, (room - 9) / 4)));
  return fmt::format("{}  \"{}\" +{}", hexOf(cut, " "), printable(cut), payload.size() - cut.size());
}

}  // namespace

void PiecePrinter::printTitles() {
  if (titles.empty()) return;
  titles += fmt::format("  {:>6}  {:>5}  {:<{}}  {}", "LENGTH", "TAG", "OPCODE", opcodeWidth, "PAYLOAD");
  ::print("{}\n", inked(Ink::bold, titles));
  flushOutput();
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
    ::print("{}  {:>6}  {:>5}  {}{}\n", columns, piece.length, tag, inked(ink, padded), rest);
  };
  switch (piece.kind) {
    case Kind::packet: line(std::to_string(piece.tag), Ink::cyan, opcode, payload); break;
    case Kind::bounce: line("", Ink::dim, opcode, "bounce"); break;
    case Kind::state: line("", Ink::yellow, "state notice", payload); break;
    case Kind::bad: line("", Ink::red, "no Packet", payload); break;
  }
  flushOutput();
}
