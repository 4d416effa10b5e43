#include "tracing/recording.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/failure.h"

namespace {

constexpr std::size_t headSize = 24, recordHeadSize = 16;
constexpr std::size_t longestRecord = 262144;  // what the readers of such files take
constexpr std::uint32_t nanosecondMagic = 0xA1B23C4D, microsecondMagic = 0xA1B2C3D4, blockMagic = 0x0A0D0D0A;

std::uint32_t turned(std::uint32_t number) {
  return number >> 24 | (number >> 8 & 0xFF00) | (number & 0xFF00) << 8 | number << 24;
}

// A recording holds commands and what they printed. One that was there before may be readable for others.
File create(const std::string& path) {
  if (path == "-") return File(fdopen(dup(STDOUT_FILENO), "wb"));
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  struct stat state = {};
  if (descriptor != -1 && fstat(descriptor, &state) == 0 && S_ISREG(state.st_mode)) fchmod(descriptor, 0600);
  return File(descriptor == -1 ? nullptr : fdopen(descriptor, "wb"));
}

File openExisting(const std::string& path) {
  File file(path == "-" ? fdopen(dup(STDIN_FILENO), "rb") : std::fopen(path.c_str(), "rbe"));
  if (!file) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  return file;
}

std::uint32_t low(std::int64_t number) { return static_cast<std::uint32_t>(number); }

}  // namespace

Recorder::Recorder(const std::string& path) : name(path), file(create(path)) {
  if (!file) throw Failure(fmt::format("cannot write {}: {}", name, std::strerror(errno)));
  std::uint8_t head[headSize];
  const std::uint32_t fields[] = {nanosecondMagic, 2 | 4 << 16, 0, 0, longestRecord, HUBKEEPER_CAPTURE_LINK_TYPE};
  for (std::size_t i = 0; i < std::size(fields); ++i) hubkeeper_write_number(head + 4 * i, 4, fields[i]);
  put(head);
  flush();
}

void Recorder::write(const Event& event) {
  std::uint8_t heads[recordHeadSize + HUBKEEPER_CAPTURE_HEADER_SIZE];
  const auto size = static_cast<std::uint32_t>(HUBKEEPER_CAPTURE_HEADER_SIZE + event.text.size());
  const std::uint32_t fields[] = {low(event.time / 1'000'000'000), low(event.time % 1'000'000'000), size, size};
  for (std::size_t i = 0; i < std::size(fields); ++i) hubkeeper_write_number(heads + 4 * i, 4, fields[i]);
  hubkeeper_write_capture(heads + recordHeadSize, &event.facts);
  put(heads);
  put(event.text);
}

void Recorder::put(ByteView bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size()) return;
  throw Failure(
      fmt::format("cannot write {}: {}\nwhat was recorded until then can be read", name, std::strerror(errno)));
}

void Recorder::flush() {
  if (std::fflush(file.get()) == 0) return;
  throw Failure(
      fmt::format("cannot write {}: {}\nwhat was recorded until then can be read", name, std::strerror(errno)));
}

Recording::Recording(const std::string& path) : Recording(openExisting(path), path) {}

Recording::Recording(File itsFile, std::string itsName) : name(std::move(itsName)), file(std::move(itsFile)) {
  Bytes head(headSize);
  if (fill(head) < headSize) refuse("it is too short for one");
  std::uint32_t magic = number(head.data());
  if (magic == blockMagic) refuse("it is a pcapng file; editcap -F nsecpcap turns it into one");
  swapped = magic == turned(nanosecondMagic) || magic == turned(microsecondMagic);
  magic = number(head.data());
  if (magic != nanosecondMagic && magic != microsecondMagic) refuse("its first bytes are not those of a pcap file");
  fraction = magic == nanosecondMagic ? 1 : 1000;
  if ((number(head.data() + 20) & 0xFFFF) != HUBKEEPER_CAPTURE_LINK_TYPE) refuse("it was made of other traffic");
}

std::optional<Event> Recording::next() {
  Bytes head(recordHeadSize);
  const std::size_t got = fill(head);
  endedEarly = got > 0 && got < recordHeadSize;
  if (got < recordHeadSize) return std::nullopt;
  const std::size_t size = number(head.data() + 8);
  if (size < HUBKEEPER_CAPTURE_HEADER_SIZE || size > longestRecord) refuse("a record has a size that none can have");
  Bytes bytes(size);
  endedEarly = fill(bytes) < size;
  if (endedEarly) return std::nullopt;
  Event event;
  if (hubkeeper_read_capture(bytes.data(), size, &event.facts) == 0)
    refuse("a record is of no kind that is known here");
  event.time = std::int64_t{number(head.data())} * 1'000'000'000 + number(head.data() + 4) * fraction;
  event.text.assign(bytes.begin() + HUBKEEPER_CAPTURE_HEADER_SIZE, bytes.end());
  return event;
}

std::uint32_t Recording::number(const std::uint8_t* bytes) const {
  const auto value = static_cast<std::uint32_t>(hubkeeper_read_number(bytes, 4));
  return swapped ? turned(value) : value;
}

void Recording::refuse(const char* why) const {
  throw Failure(fmt::format("{} is no recording of hubctl trace: {} (before byte {})", name, why, place));
}

std::size_t Recording::fill(Bytes& bytes) {
  const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), file.get());
  place += got;
  if (std::ferror(file.get()) != 0) throw Failure(fmt::format("cannot read {}: {}", name, std::strerror(errno)));
  return got;
}
