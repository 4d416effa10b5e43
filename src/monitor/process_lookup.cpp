#include "monitor/process_lookup.h"

#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hub/files.h"
#include "logging/log_channel.h"

namespace {

bool runsAs(long id, const char* name) {
  char text[512];  // first the path, then what stands there
  std::snprintf(text, sizeof text, "/proc/%ld/cmdline", id);
  std::FILE* file = openFile(text, "re");
  if (file == nullptr) return false;
  // A NUL byte ends each argument, so nothing but the first argument is seen.
  const bool read = std::fgets(text, sizeof text, file) != nullptr;
  const char* argument = read ? std::strtok(text, " ") : nullptr;
  const bool matches = argument != nullptr && std::strcmp(argument, name) == 0;
  std::fclose(file);
  return matches;
}

}  // namespace

long findProcess(const char* name) {
  DIR* directory = opendir("/proc");
  if (directory == nullptr) {
    const int reason = errno;
    messagesChannel.error() << "HubKeeper failed to open proc";
    errno = reason;
    std::perror("can't open /proc");
    return -1;
  }
  long found = -1;
  while (found == -1) {
    const dirent64* entry = readdir64(directory);  // readdir(3) refuses large inode numbers on 32 bits
    if (entry == nullptr) break;
    char* end = nullptr;
    const long id = std::strtol(entry->d_name, &end, 10);
    if (*end == '\0' && runsAs(id, name)) found = id;
  }
  closedir(directory);
  return found;
}
