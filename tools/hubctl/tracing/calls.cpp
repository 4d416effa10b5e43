#include "tracing/calls.h"

#include <elf.h>
#include <fmt/format.h>
#include <linux/audit.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"
#include "hubkeeper/capture.h"

namespace {

// How the processes of one architecture call. The numbers are the kernel's and never change; they stand here and do not come
// from a header, which knows those of one architecture alone.
struct Convention {
  std::uint32_t architecture;
  const char* name;
  std::size_t longSize;
  std::uint64_t msgget, msgsnd, msgrcv, wait4;
  std::uint64_t ipc;  // the multiplexer of older libraries; no call has the number `none`
};
constexpr std::uint64_t none = ~std::uint64_t{0};

constexpr Convention conventions[] = {
    {AUDIT_ARCH_X86_64, "x86-64", 8, 68, 69, 70, 61, none},
    {AUDIT_ARCH_AARCH64, "arm64", 8, 186, 189, 188, 260, none},
    {AUDIT_ARCH_ARM, "32-bit ARM", 4, 303, 301, 302, 114, none},
    {AUDIT_ARCH_I386, "32-bit x86", 4, 399, 400, 401, 114, 117},
};

const Convention& conventionOf(std::uint32_t architecture) {
  for (const Convention& row : conventions) {
    if (row.architecture == architecture) return row;
  }
  throw Failure(
      fmt::format("the service's architecture (audit number {:x}) is none that hubctl trace knows", architecture));
}

// The multiplexer of 32-bit x86, ipc(call, first, second, third, pointer, fifth): the call's number has a version above its
// lower 16 bits. In version 0 of a receive the pointer leads to the address of the message, and not to the message.
Call decodeIpc(const std::uint64_t* arguments, pid_t process) {
  enum : std::uint64_t { send = 11, receive = 12, get = 13 };
  Call call{.first = arguments[1], .address = arguments[4], .size = arguments[2], .longSize = 4};
  switch (arguments[0] & 0xFFFF) {
    case send: call.kind = CallKind::msgsnd; break;
    case get: call.kind = CallKind::msgget; break;
    case receive: {
      call.kind = CallKind::msgrcv;
      if (arguments[0] >> 16 != 0) break;
      const Bytes address = readMemory(process, call.address, 4);
      call.address = hubkeeper_read_number(address.data(), address.size());
      break;
    }
    default: break;
  }
  return call;
}

}  // namespace

void refuseForeign(std::uint32_t architecture) {
  const Convention& convention = conventionOf(architecture);
  if (convention.longSize <= sizeof(long)) return;
  throw Failure(
      fmt::format("this hubctl is a 32-bit program and the service is not ({})\nuse a hubctl of the service's kind",
                  convention.name));
}

Call decodeCall(const SyscallInfo& info, pid_t process) {
  const Convention& row = conventionOf(info.arch);
  const std::uint64_t number = info.entry.nr;
  const auto& arguments = info.entry.args;
  if (number == row.ipc) return decodeIpc(arguments, process);
  const CallKind kind = number == row.msgget   ? CallKind::msgget
                        : number == row.msgsnd ? CallKind::msgsnd
                        : number == row.msgrcv ? CallKind::msgrcv
                        : number == row.wait4  ? CallKind::wait4
                                               : CallKind::other;
  return {kind, arguments[0], arguments[1], arguments[2], row.longSize};
}

Bytes readMemory(pid_t process, std::uint64_t address, std::size_t size) {
  Bytes bytes(size);
  const iovec here = {bytes.data(), size};
  const iovec there = {reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), size};
  const ssize_t copied = process_vm_readv(process, &here, 1, &there, 1, 0);
  if (copied == -1 && errno == ENOSYS) {
    throw Failure("this kernel cannot copy from another process: it was built without CONFIG_CROSS_MEMORY_ATTACH");
  }
  bytes.resize(copied < 0 ? 0 : static_cast<std::size_t>(copied));
  return bytes;
}
