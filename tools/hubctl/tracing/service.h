// Which process is the hub. Sources: proc(5), namespaces(7).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

struct Service {
  pid_t id;
  std::uint32_t user;  // the effective one
};

/// The one process that is hubkeeper and shares this one's queues; nothing while there is none. Throws a Failure when there
/// are several.
std::optional<Service> findService();

/// The process of that id. Throws a Failure when there is none, or when it has queues of its own.
Service namedService(pid_t id);

/// Whether there is such a process or thread, and it has not ended (a zombie has).
bool lives(pid_t id);

/// A line of /proc/ID/status, without its label and blanks; empty when there is none. `label` as in "TracerPid:".
std::string statusLine(pid_t id, const std::string& label);
