#include "base/queues.h"

#include <fmt/format.h>

#include <string>

#include "base/failure.h"

const Queue& inbound = hubkeeper_queues[HUBKEEPER_QUEUE_INBOUND];
const Queue& ridgelink = hubkeeper_queues[HUBKEEPER_QUEUE_RIDGELINK];

const Queue& findQueue(std::string_view nameOrKey) {
  std::string names;
  for (const Queue& queue : hubkeeper_queues) {
    if (nameOrKey == queue.name || nameOrKey == std::to_string(queue.key)) return queue;
    names += fmt::format("{}{} ({})", names.empty() ? "" : ", ", queue.name, queue.key);
  }
  throw WrongUsage(fmt::format("there is no queue \"{}\"\nthe queues are {}", nameOrKey, names));
}
