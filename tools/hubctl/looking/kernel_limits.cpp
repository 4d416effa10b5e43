#include "looking/kernel_limits.h"

#include <algorithm>
#include <fstream>
#include <iterator>

std::size_t longestMessage() {
  std::size_t limit = 0;
  return std::ifstream("/proc/sys/kernel/msgmax") >> limit ? limit : 8192;
}

std::size_t queueLimit(const std::string& name) {
  std::size_t limit = 0;
  return std::ifstream("/proc/sys/kernel/" + name) >> limit ? limit : 0;
}

std::size_t queuesInUse() {
  std::ifstream table("/proc/sysvipc/msg");
  const auto lines = std::count(std::istreambuf_iterator<char>(table), {}, '\n');
  return lines > 0 ? static_cast<std::size_t>(lines) - 1 : 0;  // without the titles
}
