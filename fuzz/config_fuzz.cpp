// Feeds files to the configuration parser and compares list and switch with a reading of the same bytes by hand.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "monitor/config_file.h"

static const std::uint8_t* content;
static std::size_t contentSize;

extern "C" {

std::FILE* __wrap_fopen64(const char*, const char* mode) {
  return fmemopen(const_cast<std::uint8_t*>(content), contentSize, mode);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  content = data;
  contentSize = size;
  std::vector<std::string> services{"kept"};
  bool debug = size % 2 != 0;

  std::vector<std::string> wantedServices = services;
  bool wantedDebug = debug;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::string_view value;
  while (!rest.empty()) {
    const std::size_t sign = rest.find('=');
    const std::string_view key = rest.substr(0, sign);
    rest.remove_prefix(sign == rest.npos ? rest.size() : sign + 1);
    if (sign != rest.npos) {  // without the sign, the value before it is used again
      value = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(value.size() + (value.size() < rest.size() ? 1 : 0));
    }
    if (key == "service") wantedServices.emplace_back(value);
    if (key == "debug") wantedDebug = value == "true";
  }

  if (!parseConfigFile(services, debug) || services != wantedServices || debug != wantedDebug) std::abort();
  return 0;
}
}
