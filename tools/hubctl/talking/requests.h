// What is asked of HubKeeper in a session, and the waiting for it. Each waits as long as the session says.
#pragma once

#include <cstdint>
#include <optional>

#include "base/failure.h"
#include "base/pieces.h"
#include "talking/session.h"

struct Reply {
  Bytes payload;
  std::optional<double> bounceSeconds;  // missing when the reply came without a bounce
  double seconds;
};

/// Sends one Packet with a tag of its own and waits for its reply, for `wait` seconds where the session's are not enough.
Reply request(Session& session, std::uint8_t opcode, std::uint8_t replyOpcode, ByteView payload = {},
              std::optional<double> wait = std::nullopt);

/// Sends one Packet with a tag of its own, and waits for room alone.
void sendPacket(Session& session, std::uint8_t opcode, ByteView payload = {});

/// Waits for the bounce of a Packet that has no reply.
void awaitBounce(Session& session, std::uint8_t opcode);

/// What to throw when nothing has come for `waited` seconds. What HubKeeper has not read yet is taken back.
[[nodiscard]] Failure unanswered(Session& session, double waited);
