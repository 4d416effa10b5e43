#include "commands/bundle.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/failure.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/piece_printer.h"
#include "talking/requests.h"

namespace {

void printPieceJson(double milliseconds, const Piece& piece) {
  nlohmann::json json = pieceJson(piece);
  json["milliseconds"] = milliseconds;
  printJson(json);
}

}  // namespace

int sendAndShow(const Bytes& bundle, const TalkOptions& options) {
  Session session(options);
  PiecePrinter printer(fmt::format("{:>10}", "MS"));
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = after(options.wait);
  session.put(bundle, end);
  bool answered = false;
  while (const auto message = session.take(end)) {
    answered = true;
    const double time = secondsSince(start) * 1000;
    for (const Piece& piece : split(ridgelink, *message)) {
      options.json ? printPieceJson(time, piece) : printer.print(fmt::format("{:>10.3f}", time), piece);
    }
    flushOutput();
  }
  if (!answered) throw unanswered(session, options.wait);
  // What came may have answered an earlier request.
  if (session.takeBack()) throw Failure("HubKeeper has not read the Bundle, and it was taken back");
  return 0;
}
