#include "hub/files.h"

#include <fcntl.h>

std::FILE* keepFromShells(std::FILE* file) {
  if (file != nullptr) fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
  return file;
}

std::FILE* openFile(const char* path, const char* mode) { return keepFromShells(fopen64(path, mode)); }
