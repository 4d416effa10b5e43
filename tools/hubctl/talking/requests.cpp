#include "talking/requests.h"

#include <fmt/format.h>

#include "base/clock.h"
#include "base/signals.h"

Reply request(Session& session, std::uint8_t opcode, std::uint8_t replyOpcode, ByteView payload,
              std::optional<double> wait) {
  const double patience = wait.value_or(session.wait());
  const std::uint16_t tag = session.nextTag();
  const Bytes packet = makePacket(opcode, tag, payload);
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = after(patience);
  session.put(packet, deadline);
  std::optional<double> bounce;
  while (const auto message = session.take(deadline)) {
    const Piece piece = split(ridgelink, *message).front();
    if (piece.kind == Kind::bounce && piece.opcode == opcode) bounce = secondsSince(start);
    if (piece.kind == Kind::packet && piece.opcode == replyOpcode && piece.tag == tag) {
      return {Bytes(piece.payload.begin(), piece.payload.end()), bounce, secondsSince(start)};
    }
  }
  throw unanswered(session, patience);
}

void sendPacket(Session& session, std::uint8_t opcode, ByteView payload) {
  session.put(makePacket(opcode, session.nextTag(), payload));
}

void awaitBounce(Session& session, std::uint8_t opcode) {
  const Clock::time_point deadline = after(session.wait());
  while (const auto message = session.take(deadline)) {
    const Piece piece = split(ridgelink, *message).front();
    if (piece.kind == Kind::bounce && piece.opcode == opcode) return;
  }
  throw unanswered(session, session.wait());
}

Failure unanswered(Session& session, double waited) {
  const std::string why = session.giveUp();
  if (stopWanted()) {
    return Failure(session.tookBack() ? "interrupted, and the request was taken back: it will not be carried out later"
                                      : "interrupted before the answer came");
  }
  return Failure((waited > 0 ? fmt::format("no answer within {:.3g} s\n", waited) : "") + why);
}
