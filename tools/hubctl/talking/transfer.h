// A file to the board. A target that stands there is renamed aside for as long as the transfer takes; at its end it is
// removed, or it is renamed back, whatever has ended the transfer. What stands beside the target says which: TARGET.hubctl-old
// is the old file, TARGET.hubctl-new says that there was none. What a killed process leaves so, the next transfer to that
// target puts in order first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "talking/session.h"

/// Characters of a target: a start Packet carries them without the leading slash and with one byte behind them.
constexpr std::size_t longestTarget = HUBKEEPER_PAYLOAD_MAX;

struct Sum {
  std::uint64_t bytes = 0;
  std::string sha256;  // empty where sha256sum is missing
};

struct Order {
  std::FILE* file;
  std::uint64_t size;  // as far as it can be told before
  std::string target;  // an absolute path on the board
  std::string mode;    // of a new file, in octal; empty for the hub's own choice
  double compareWait;  // seconds to wait for the sum of the whole file
};

struct Result {
  Sum here;  // of what was sent
  Sum board;
  double seconds;  // without the comparison
  bool unsummed() const { return here.sha256.empty() || board.sha256.empty(); }
  std::string complaint;  // what could not be carried over from the old file; mostly empty
};

/// Sends the file and compares. Throws a Failure, whose last sentence tells what now stands at the target, when the target
/// cannot be written, an earlier transfer stands open, it is interrupted, HubKeeper ends or size or sum differ.
Result transfer(Session& session, const Order& order);

/// Size and SHA-256 of a file on the board, and its path without links; throws a Failure when it is none.
Sum sumOnBoard(Session& session, const std::string& file, double wait, std::string& path);
