// A file to the board: checked before, because a target that cannot be opened ends the service; paced by the bounces,
// because a full queue would refuse a Bundle; summed up afterwards, because nothing else notices a full disk.
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

/// Throws a Failure that tells why HubKeeper could not open `target`, an absolute path, for writing.
void checkTarget(Session& session, const std::string& target);

/// Sends the `size` bytes of `file`. Throws a Failure when it is interrupted; the transfer is ended all the same.
void transfer(Session& session, const std::string& target, std::FILE* file, std::uint64_t size);

/// Size and SHA-256 of `target` as it is on the board. A long file takes a while, so it waits for a minute at least.
Sum sumOnBoard(Session& session, const std::string& target);
