// System calls of the hub as ptrace(2) shows them: numbers and layouts of each architecture, 32-bit ones beside 64-bit
// ones, since an old service may run under a new kernel. Sources: syscall(2), ipc(2), the kernel's tables of numbers.
#pragma once

#include <sys/ptrace.h>
#include <sys/types.h>

#include <cstdint>

#include "base/pieces.h"

using SyscallInfo = __ptrace_syscall_info;

enum class CallKind { other, msgget, msgsnd, msgrcv, wait4 };

/// A call that a thread has entered. What a kind lacks is 0.
struct Call {
  CallKind kind = CallKind::other;
  std::uint64_t first = 0;    // key, queue id or process id
  std::uint64_t address = 0;  // of the message; for wait4 of the status
  std::uint64_t size = 0;     // of the text that is sent
  std::size_t longSize = 0;   // bytes of a `long` in that process, which is what a message begins with
};

/// Throws a Failure that says what is not handled, when it is no architecture from the table or one that this hubctl is too
/// narrow for.
void refuseForeign(std::uint32_t architecture);

/// The call that `info`, of a stop at the entry, tells of. Reads what the ipc(2) multiplexer of 32-bit x86 points at.
Call decodeCall(const SyscallInfo& info, pid_t process);

/// Copies `size` bytes out of a stopped process; fewer where it has fewer. Throws a Failure when the kernel forbids it.
Bytes readMemory(pid_t process, std::uint64_t address, std::size_t size);
