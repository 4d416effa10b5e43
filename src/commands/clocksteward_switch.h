// Opcodes 0x75 and 0x76: stop Clocksteward and forbid its restart, and lift that ban. Both run on the inbound thread.
#pragma once

#include <cstdint>

/// 1 while the monitor may restart Clocksteward, 0 while it must not. Written by the inbound thread, read by the
/// monitor thread, both through a relaxed std::atomic_ref: a plain byte access on every target. Each start of the
/// process begins at 1.
extern std::uint8_t clockstewardEnabled;

void handleClockstewardDisable();
/// Starts nothing: the monitor's next cycle finds Clocksteward dead and restarts it.
void handleClockstewardEnable();
