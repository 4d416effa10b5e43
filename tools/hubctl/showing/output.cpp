#include "showing/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/failure.h"

namespace {

void require(bool written) {
  if (!written) throw Failure(fmt::format("cannot write to standard output: {}", std::strerror(errno)));
}

}  // namespace

void holdStandardStreams() {
  int descriptor = 0;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDONLY);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

void write(std::string_view text) { require(std::fwrite(text.data(), 1, text.size(), stdout) == text.size()); }

void flushOutput() { require(std::fflush(stdout) == 0); }

void writeError(std::string_view text) {
  std::fflush(stdout);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

bool closeOutput() {
  const bool flushed = std::fflush(stdout) == 0;
  return flushed && std::ferror(stdout) == 0 && std::ferror(stderr) == 0;
}
