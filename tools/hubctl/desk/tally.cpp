#include "desk/tally.h"

#include <algorithm>
#include <tuple>

namespace {

constexpr std::size_t most = 10000;  // the names of further services, which may be forged, are not kept

std::string serviceOf(const LogKind* kind, const LogLine& line) {
  if (kind == nullptr) return {};
  const auto values = match(*kind, line.message).value_or(Values());
  const auto found = std::find_if(values.begin(), values.end(), [](const auto& one) { return one.first == "service"; });
  return found == values.end() ? std::string() : std::string(found->second.substr(0, 256));
}

}  // namespace

void Tally::take(const LogLine& line) {
  const LogKind* kind = kindOf(line);
  const Priority priority = kind == nullptr ? line.priority : kind->priority;
  const std::string service = found.size() < most ? serviceOf(kind, line) : std::string();
  const Count fresh = {kind, priority, service, 0, line.time, line.time};
  Count& count = found.try_emplace({kind, {priority, service}}, fresh).first->second;
  ++count.lines;
  if (count.first == 0) count.first = line.time;
  if (line.time != 0) count.last = line.time;
}

std::vector<Count> Tally::counts() const {
  std::vector<Count> all;
  for (const auto& [key, count] : found) all.push_back(count);
  std::sort(all.begin(), all.end(), [](const Count& one, const Count& other) {
    return std::tuple(one.priority, other.lines, one.kind, one.service) <
           std::tuple(other.priority, one.lines, other.kind, other.service);
  });
  return all;
}
