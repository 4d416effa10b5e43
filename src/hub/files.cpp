#include "hub/files.h"

#include <fcntl.h>

std::FILE* openFile(const char* path, const char* mode) {
  std::FILE* file = fopen64(path, mode);
  if (file != nullptr) fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
  return file;
}
