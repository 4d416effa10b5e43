#include "looking/kernel_limits.h"

#include <fstream>

std::size_t longestMessage() {
  std::size_t limit = 0;
  return std::ifstream("/proc/sys/kernel/msgmax") >> limit ? limit : 8192;
}
