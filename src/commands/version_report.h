// Opcode 0x60: answers with the raw content of the board's version file. Runs on the inbound thread.
#pragma once

#include <cstdint>

/// Replies to the request with that `tag`: with the 1 to 506 bytes of /etc/build-version, of /etc/os-release where the
/// first cannot be opened, or with an empty Packet when no version can be had.
void handleVersionRequest(std::uint16_t tag);
