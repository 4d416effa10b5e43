// Opcodes 0x70 to 0x72: an application file that Ridgelink delivers as a start Packet with its name, chunk Packets with
// its bytes in file order, and an end Packet. Chunks are written to disk here; Stagehand sees only copies of the start
// and the end. The state of the transfer belongs to the inbound thread and does not outlive the process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// Written by the operations below alone.
extern std::uint8_t transferActive;   // 1 from an accepted start to the next end
extern std::FILE* transferFile;       // null: no open stream
extern std::string transferFileName;  // from the latest accepted start

/// Opens "bad_file" in the working directory as the file of no transfer. A failure is not looked at.
void openTransferPlaceholder();

// Each takes a Packet of `length` bytes, header included, that lies whole within what was received. A length under 5,
// and for a start or an end one over 512, is dropped: nothing is touched, and no second is spent.

/// Opens the named file, created or emptied, and tells Stagehand. A file that cannot be opened ends the process. A
/// start during a transfer is logged and dropped.
void handleTransferStart(const std::uint8_t* packet, std::uint16_t length);
/// Writes the payload. Outside a transfer it is logged and dropped. A short write goes unnoticed.
void handleTransferChunk(const std::uint8_t* packet, std::uint16_t length);
/// Waits one second, closes the file and tells Stagehand. A close that fails ends the process.
void handleTransferEnd(const std::uint8_t* packet, std::uint16_t length);
