// The processes behind the ids that the kernel leaves in a queue. Sources: msgctl(2), proc(5).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

struct Process {
  pid_t id;
  std::string name;
};

/// The process of an id from a queue, or nothing when it has ended (a zombie has, too). A reader that was waiting leaves
/// the id of its thread, which is turned into that of its process.
std::optional<Process> livingProcess(pid_t id);

/// "57 ridgelink", or "57, gone", or "none".
std::string describeProcess(pid_t id);
