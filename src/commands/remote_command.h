// Opcode 0x63: runs a shell command for Ridgelink and sends back the first 507 bytes of what it printed. Runs on the
// inbound thread, which waits for the shell; nothing bounds that wait, as only who sends a command knows how long it
// may take. The text is not filtered in any way and runs with the rights of the process.
#pragma once

#include <cstdint>

// What is refused is logged at ERROR, and the reason goes out as the reply's text.

/// Refuses a command without text or without a NUL within the `reach` bytes that may be read from the Packet's first
/// byte on. True when it was refused; otherwise it is handleRemoteCommand's.
bool refuseUnendedCommand(const std::uint8_t* packet, std::uint16_t reach, std::uint16_t tag);

/// Runs the command at `packet`, whose text ends with a NUL, and replies with `tag`; refuses one of more than 999
/// characters. No reply goes out when the response file cannot be opened.
void handleRemoteCommand(const std::uint8_t* packet, std::uint16_t tag);
