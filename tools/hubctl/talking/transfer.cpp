#include "talking/transfer.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "base/failure.h"
#include "base/signals.h"
#include "showing/progress.h"
#include "showing/text.h"
#include "talking/board.h"
#include "talking/requests.h"

namespace {

constexpr std::size_t chunkSize = HUBKEEPER_BUNDLE_MAX - HUBKEEPER_HEADER_SIZE;
constexpr int unbouncedBundles = 2;  // as many as a queue of the usual size holds
constexpr const char* endHint = "hubctl raw 05 00 00 00 72";

void begin(Session& session, const std::string& target) {
  Bytes name(target.begin() + 1, target.end());
  name.push_back(0);  // the service drops the last byte
  sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_START, name);
  awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_START);
  if (runScript(session, fmt::format("[ -s {} ] || echo empty", shellQuote(target))) == "empty\n") return;
  throw Failure(
      fmt::format("HubKeeper has not begun this transfer: an earlier one was never ended\n"
                  "if nobody else is sending, end it with: {}",
                  endHint));
}

// Counts in `sent` until the end of the file, an error in reading it, or Ctrl-C.
void sendChunks(Session& session, std::FILE* file, std::uint64_t size, std::uint64_t& sent) {
  Progress progress(size);
  Bytes chunk(chunkSize);
  for (int unbounced = 0; interrupted == 0; ++unbounced) {
    const std::size_t got = std::fread(chunk.data(), 1, chunk.size(), file);
    if (got == 0) return;
    for (; unbounced >= unbouncedBundles; --unbounced) awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_CHUNK);
    sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_CHUNK, {chunk.data(), got});
    sent += got;
    progress.show(sent);
  }
}

}  // namespace

// The same open as the service's, but for the truncation, by the same user.
void checkTarget(Session& session, const std::string& target) {
  const std::string answer =
      runScript(session, fmt::format("t={}; if [ -d \"$t\" ]; then echo it is a directory; "
                                     "elif [ ! -d \"${{t%/*}}/\" ]; then echo its directory does not exist; "
                                     "elif [ -e \"$t\" ] && [ ! -f \"$t\" ]; then echo it is not a regular file; "
                                     "elif (: >>\"$t\"); then echo ok; fi",
                                     shellQuote(target)));
  if (answer == "ok\n") return;
  throw Failure(fmt::format("cannot send to {}: {}", target,
                            answer.empty() ? "it cannot be opened" : answer.substr(0, answer.size() - 1)));
}

void transfer(Session& session, const std::string& target, std::FILE* file, std::uint64_t size) {
  begin(session, target);
  std::uint64_t sent = 0;
  try {
    sendChunks(session, file, size, sent);
  } catch (const Failure& failure) {
    if (interrupted == 0) {
      throw Failure(
          fmt::format("{}\nthe transfer is left open after {}; {} ends it", failure.what(), humanSize(sent), endHint));
    }
  }
  const char* trouble = interrupted != 0 ? "interrupted" : std::ferror(file) != 0 ? "the file cannot be read on" : "";
  interrupted = 0;  // the end Packet must go out in any case, or every further start is refused
  sendPacket(session, HUBKEEPER_OPCODE_TRANSFER_END);
  awaitBounce(session, HUBKEEPER_OPCODE_TRANSFER_END);
  if (*trouble == '\0') return;
  throw Failure(
      fmt::format("{}: {} is incomplete on the board, {} of {}", trouble, target, humanSize(sent), humanSize(size)));
}

Sum sumOnBoard(Session& session, const std::string& target) {
  std::istringstream answer(runScript(session,
                                      fmt::format("t={}; wc -c <\"$t\"; sha256sum <\"$t\"", shellQuote(target)),
                                      std::max(session.wait(), 60.0)));
  Sum sum;
  if (!(answer >> sum.bytes >> sum.sha256)) sum.sha256.clear();
  return sum;
}
