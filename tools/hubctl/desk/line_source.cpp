#include "desk/line_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/failure.h"
#include "base/signals.h"

namespace {

constexpr std::size_t bufferSize = 4 * LineSource::longest;
constexpr double patience = 0.2;  // seconds without anything new until that is told

[[noreturn]] void refuse(const std::string& path) {
  throw Failure(fmt::format("cannot read {}: {}", path == "-" ? "standard input" : path, std::strerror(errno)));
}

// -1 where there is no such file.
int openFile(const std::string& path) {
  const int descriptor = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor == -1 && errno != ENOENT) refuse(path);
  return descriptor;
}

bool sameFile(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev;
}

}  // namespace

LineSource::LineSource(const std::vector<std::string>& paths, bool follow) : following(follow), buffer(bufferSize) {
  // The last comes first: a log that is rolled in between is met twice rather than not at all.
  for (std::size_t i = paths.size(); i-- > 0;) {
    files.insert(files.begin(), {openFile(paths[i]), paths[i]});
    if (files.front().descriptor == -1 && !(follow && i + 1 == paths.size())) refuse(paths[i]);
  }
  struct stat one, other;
  if (follow && stat((paths.back() + ".1").c_str(), &one) == 0) backup = one.st_ino;
  for (std::size_t i = 0; i + 1 < files.size();) {
    const bool twice = fstat(files[i].descriptor, &one) == 0 && fstat(files[i + 1].descriptor, &other) == 0 &&
                       sameFile(one, other) && S_ISREG(one.st_mode);
    if (twice) close(files[i].descriptor), files.erase(files.begin() + static_cast<std::ptrdiff_t>(i));
    i += twice ? 0 : 1;
  }
}

LineSource::~LineSource() {
  for (const File& file : files) {
    if (file.descriptor != -1) close(file.descriptor);
  }
}

Got LineSource::next(RawLine& line) {
  while (!takeLine(line, false)) {
    switch (fill()) {
      case Filled::more: break;
      case Filled::nothing: return Got::pause;
      case Filled::end: return Got::end;
      case Filled::file_end:
        if (takeLine(line, true)) return Got::line;
    }
  }
  return Got::line;
}

// The next line in the buffer, at the end of a file also one without a newline. Of an overlong one the beginning stays.
bool LineSource::takeLine(RawLine& line, bool atEnd) {
  const char* const start = buffer.data() + begin;
  const void* const found = std::memchr(buffer.data() + searched, '\n', end - searched);
  const bool whole = found != nullptr;
  const std::size_t size = whole ? static_cast<std::size_t>(static_cast<const char*>(found) - start) : end - begin;
  const std::size_t kept = std::min(size, longest);
  if (!whole && (!atEnd || (size == 0 && leftOut == 0))) {
    leftOut += size - kept;
    searched = end = begin + kept;
    return false;
  }
  line = {{start, kept}, std::exchange(leftOut, 0) + size - kept};
  begin += size + (whole ? 1 : 0);
  searched = begin;
  return true;
}

LineSource::Filled LineSource::fill() {
  if (stopWanted() || current == files.size()) return Filled::end;
  const File& file = files[current];
  if (file.descriptor == -1) return await();
  std::memmove(buffer.data(), buffer.data() + begin, end - begin);
  end -= begin, searched -= begin, begin = 0;
  pollfd waiting = {file.descriptor, POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(patience * 1000)) == 0) return Filled::nothing;
  const ssize_t got = read(file.descriptor, buffer.data() + end, buffer.size() - end);
  if (got < 0 && errno != EINTR) refuse(file.path);
  if (got == 0) return atFileEnd();
  end += got > 0 ? static_cast<std::size_t>(got) : 0;
  return got > 0 ? Filled::more : Filled::nothing;
}

// The end of a file: the next one is read, or this one is watched for what comes.
LineSource::Filled LineSource::atFileEnd() {
  const File& file = files[current];
  if (!following || current + 1 < files.size() || file.path == "-") {
    ++current;
    return Filled::file_end;
  }
  if (replaced) {
    replace();
    return Filled::file_end;
  }
  struct stat open, named;
  if (fstat(file.descriptor, &open) != 0 || stat(file.path.c_str(), &named) != 0) return await();
  // What was written between the last look and the renaming is still to be read.
  replaced = !sameFile(open, named);
  if (replaced) return Filled::more;
  if (open.st_size < lseek(file.descriptor, 0, SEEK_CUR)) lseek(file.descriptor, 0, SEEK_SET);  // it was emptied
  return await();
}

LineSource::Filled LineSource::await() {
  nap(patience);
  File& file = files[current];
  if (file.descriptor == -1) file.descriptor = openFile(file.path);
  return Filled::nothing;
}

// Goes over to the file that has taken the place, or to the new backup before it, where the log was rolled twice meanwhile.
void LineSource::replace() {
  const std::string path = files[current].path;
  struct stat open = {}, named = {};
  fstat(files[current].descriptor, &open);
  const int next = openFile(path);
  const bool twice = stat((path + ".1").c_str(), &named) == 0 && !sameFile(open, named) && named.st_ino != backup;
  const int between = twice ? openFile(path + ".1") : -1;
  for (const File& file : files) close(file.descriptor);
  files.clear();
  if (between != -1) files.push_back({between, path + ".1"});
  files.push_back({next, path});
  backup = named.st_ino;
  current = 0;
  replaced = false;
}
