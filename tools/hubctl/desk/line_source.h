// The lines of several files one after another, as a stream: memory is bounded, whatever the files hold.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

/// What a source had: something; nothing at the moment, so that what was held back may be shown; nothing any more, or Ctrl-C.
enum class Got { line, pause, end };

struct RawLine {
  std::string_view text;  // without its newline; holds until the next call
  std::size_t leftOut;    // the bytes of an overlong line that are not in the text
};

class LineSource {
 public:
  static constexpr std::size_t longest = 65536;  // bytes of a line

  /// The files in this order; "-" is standard input. Throws a Failure when one cannot be opened. With `follow` the last one
  /// is read on at its end, also when it is renamed and another takes its place, as a log is rolled, and may be missing at
  /// first.
  LineSource(const std::vector<std::string>& paths, bool follow);
  ~LineSource();
  LineSource(const LineSource&) = delete;
  LineSource& operator=(const LineSource&) = delete;

  /// Throws a Failure when a file cannot be read.
  Got next(RawLine& line);

 private:
  enum class Filled { more, nothing, file_end, end };
  struct File {
    int descriptor;
    std::string path;
  };
  bool takeLine(RawLine& line, bool atEnd);
  Filled fill();
  Filled atFileEnd();
  Filled await();
  void replace();

  std::vector<File> files;
  std::size_t current = 0;
  bool following;
  bool replaced = false;  // another file has taken the place of the one that is followed
  ino_t backup = 0;       // what stood at the backup's path when that one was opened
  std::vector<char> buffer;
  std::size_t begin = 0, end = 0, searched = 0, leftOut = 0;
};
