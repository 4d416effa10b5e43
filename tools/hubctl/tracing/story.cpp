#include "tracing/story.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/queues.h"

namespace {

// What the hub takes the bytes for: of a bad Packet it reads the opcode too, and where none is left, it takes ff.
std::uint8_t opcodeOf(const Piece& piece) {
  if (piece.kind == Kind::packet) return piece.opcode;
  return hubkeeper_read_header(piece.payload.data(), piece.payload.size()).opcode;
}

std::vector<Piece> piecesOf(const Event& event) {
  const ByteView text(event.text);
  if (text.empty() || text.size() > HUBKEEPER_BUNDLE_MAX) return {{Kind::bad, text.size(), 0, 0, text}};
  if (event.facts.kind == HUBKEEPER_CAPTURE_IN) return split(inbound, text);
  const bool toRidgelink = event.facts.kind != HUBKEEPER_CAPTURE_FORWARD;
  return split(toRidgelink ? ridgelink : hubkeeper_queues[HUBKEEPER_QUEUE_NETSTEWARD], text);
}

}  // namespace

bool isLost(const Line& line) {
  if (line.event.facts.kind == HUBKEEPER_CAPTURE_IN) return line.event.text.size() > HUBKEEPER_BUNDLE_MAX;
  return isMessage(line.event) && line.event.facts.result < 0;
}

std::string whyLost(const Line& line) {
  static constexpr std::pair<int, const char*> reasons[] = {
      {-EAGAIN, "queue full"},  {-EIDRM, "queue removed"}, {-EINVAL, "no queue"},
      {-EACCES, "not allowed"}, {-E2BIG, "too long"},      {-ENOMEM, "no memory"},
  };
  for (const auto& [result, reason] : reasons) {
    if (result == line.event.facts.result) return reason;
  }
  const int result = line.event.facts.result;
  return result < 0 ? std::strerror(static_cast<int>(0U - static_cast<unsigned>(result))) : "too long, thrown away";
}

void Story::take(const Event& event) {
  switch (event.facts.kind) {
    case HUBKEEPER_CAPTURE_IN: return begin(event);
    case HUBKEEPER_CAPTURE_BOUNCE:
      if (bounced) tellPacket();
      bounced = true;
      break;
    case HUBKEEPER_CAPTURE_ATTACHED:
    case HUBKEEPER_CAPTURE_ENDED: finish(); break;
    default: break;
  }
  sink(caused(event));
}

void Story::begin(const Event& event) {
  finish();
  bundle = event;
  pieces = event.facts.result < 0 ? std::vector<Piece>{} : piecesOf(bundle);
  if (pieces.empty()) sink({.event = event});
  tellPacket();
}

void Story::finish() {
  while (told < pieces.size()) tellPacket();
  pieces.clear();
  told = 0;
}

void Story::tellPacket() {
  bounced = false;
  if (told >= pieces.size()) return;
  const Piece& piece = pieces[told++];
  ++packets;
  sink({.event = bundle, .piece = piece, .packet = packets, .cause = opcodeOf(piece)});
}

Line Story::caused(const Event& event) const {
  Line line = {.event = event};
  if (isMessage(event)) line.piece = piecesOf(event).front();
  if (told == 0 || event.facts.kind == HUBKEEPER_CAPTURE_FULL) return line;
  const Piece& cause = pieces[told - 1];
  line.packet = packets;
  line.cause = opcodeOf(cause);
  line.after = event.time - bundle.time;
  if (event.facts.kind == HUBKEEPER_CAPTURE_COMMAND && line.cause == HUBKEEPER_OPCODE_COMMAND)
    line.command = cause.payload;
  return line;
}
