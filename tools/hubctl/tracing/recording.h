// Recordings: the pcap file format with nanoseconds, written and read here, since libpcap would bring a chain of libraries
// onto every board. Before each message stands the header of hubkeeper/capture.h. Source: pcap-savefile(5).
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "tracing/event.h"

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Writes events to a file that its owner alone can read, or to standard output for "-". Whatever fails throws a Failure.
class Recorder {
 public:
  explicit Recorder(const std::string& path);
  void write(const Event& event);
  /// Hands what has been written to the kernel, so that a reader, or the time after a crash, finds it.
  void flush();

 private:
  void put(ByteView bytes);

  std::string name;
  File file;
};

/// Reads events from a recording, also from one whose bytes another program has written in its own order.
class Recording {
 public:
  /// "-" is standard input. Throws a Failure when the file cannot be read or is no recording.
  explicit Recording(const std::string& path);
  Recording(File itsFile, std::string itsName);

  /// The next event; nothing at the end. Throws a Failure at bytes that cannot be a record.
  std::optional<Event> next();
  /// The file ended in the midst of a record, as after a loss of power.
  bool cut() const { return endedEarly; }

 private:
  std::uint32_t number(const std::uint8_t* bytes) const;
  [[noreturn]] void refuse(const char* why) const;
  std::size_t fill(Bytes& bytes);

  std::string name;
  File file;
  bool swapped = false;       // the most significant byte comes first
  std::int64_t fraction = 1;  // nanoseconds in a unit of the fractional part
  std::uint64_t place = 0;    // in the file
  bool endedEarly = false;
};
