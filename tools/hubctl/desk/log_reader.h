// The messages of a log, one after another: of the service's files, of its captured output, or of a journal's text, where
// something stands before the priority of each line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "desk/line_source.h"
#include "desk/log_line.h"

/// The service's log, the backup first; what is not there is left out, but for the log itself where `follow` waits for it.
std::vector<std::string> serviceLogs(bool follow);

class LogReader {
 public:
  /// As LineSource.
  LogReader(const std::vector<std::string>& paths, bool follow) : source(paths, follow) {}

  /// A message goes on over lines until another begins, one ends in a blank and it is whole, or it becomes too long. The views
  /// hold until the next call. Throws a Failure when a file cannot be read.
  Got next(LogLine& line);

 private:
  struct Part {
    LogLine line;  // with a priority: the beginning of a message
    bool ours;     // not another program's, as far as can be known
    bool ends;     // with the blank that ends a message
  };
  Part judge(const RawLine& raw);
  void add(const Part& part);
  bool goesOn(const Part& part) const;
  Got take(LogLine& line);

  LineSource source;
  bool plain = false;   // lines have begun with a priority, so this is no journal
  std::string mark;     // in a journal, what stands before each line of the service: "hubkeeper[57]: "
  bool inside = false;  // the beginning of a message has been read, and what may be its end
  bool ended = false;   // with the blank
  LogLine open;         // that message, with its pieces in these:
  std::string text, message;
  bool waits = false;  // a line has been read ahead
  Part ahead;
};
