// Two notices that HubKeeper can send to Ridgelink of its own accord: the board's state, and the name of the software
// package in the staging directory. Nothing in the system calls them yet. They belong on the inbound thread.
#pragma once

/// The state that this processor may not set for itself.
enum { kWirepathArmState_RESET = 0 };

/// Sends the lower 16 bits of `state` as a message of two bytes, low byte first, which is no Packet. Returns 1 when it
/// went out, and 0 when the state is kWirepathArmState_RESET or the send failed.
int setState(int state);

/// Sends the name of the first entry of /var/staging/ that holds a capital V, as a Packet of opcode 0x87 for the
/// selector 0 and 0x8A for any other. Without such an entry the name last read goes out, without a directory an empty
/// name.
void sendSwPackage(int selector);
