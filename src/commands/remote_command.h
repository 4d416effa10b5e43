// Opcode 0x63: runs a shell command for Ridgelink and sends back the first 507 bytes of what it printed. Runs on the
// inbound thread, which waits for the shell; nothing bounds that wait, as only who sends a command knows how long it
// may take. The text is not filtered in any way and runs with the rights of the process.
#pragma once

#include <cstdint>

/// Why the command in the Packet at `packet` is not to be run, or null when handleRemoteCommand may run it: there is no
/// text, or no NUL within the `reach` bytes that may be read from the Packet's first byte on, or the text has more than
/// 999 characters.
const char* commandRefusal(const std::uint8_t* packet, std::uint16_t reach);

/// Logs `reason` at ERROR and sends it as the reply's text, so that Ridgelink does not wait in vain. Neither the shell
/// nor the response file is touched.
void refuseRemoteCommand(std::uint16_t tag, const char* reason);

/// Runs the command at `packet`, which commandRefusal has accepted, and replies with `tag`. No reply goes out when the
/// response file cannot be opened.
void handleRemoteCommand(const std::uint8_t* packet, std::uint16_t tag);
