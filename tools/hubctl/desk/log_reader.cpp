#include "desk/log_reader.h"

#include <unistd.h>

namespace {

constexpr const char* logPath = "/media/data/messages.log";
constexpr const char* backupPath = "/media/data/messages.log.1";
constexpr std::size_t longestMark = 256;  // bytes before the priority, in a journal

}  // namespace

std::vector<std::string> serviceLogs(bool follow) {
  std::vector<std::string> paths;
  if (access(backupPath, F_OK) == 0) paths.emplace_back(backupPath);
  if (follow || paths.empty() || access(logPath, F_OK) == 0) paths.emplace_back(logPath);
  return paths;
}

Got LogReader::next(LogLine& line) {
  while (true) {
    if (!waits) {
      RawLine raw;
      const Got got = source.next(raw);
      if (got != Got::line) return inside ? take(line) : got;
      ahead = judge(raw);
      waits = true;
    }
    if (inside && !goesOn(ahead)) return take(line);
    waits = false;
    if (!inside && ahead.line.priority == Priority::none) {
      line = ahead.line;
      return Got::line;
    }
    add(ahead);
    if (text.size() > LineSource::longest) return take(line);
  }
}

// Takes a line apart. In a journal, the text before the service's own lines is known once one of them has been met.
LogReader::Part LogReader::judge(const RawLine& raw) {
  Part part = {{}, true, raw.text.ends_with(' ') && raw.leftOut == 0};
  part.line.text = part.line.message = raw.text;
  part.line.leftOut = raw.leftOut;
  if (readHead(raw.text, part.line)) plain = true;
  if (plain) return part;
  const std::string_view reach = raw.text.substr(0, longestMark);
  for (std::size_t at = reach.find(": "); at != std::string_view::npos; at = reach.find(": ", at + 1)) {
    if (!readHead(raw.text.substr(at + 2), part.line)) continue;
    const std::size_t word = at == 0 ? 0 : reach.rfind(' ', at - 1) + 1;
    mark = reach.substr(word, at + 2 - word);
    part.line.text = raw.text.substr(0, raw.text.size() - (part.ends ? 1 : 0));
    return part;
  }
  const std::size_t at = mark.empty() ? std::string_view::npos : reach.find(mark);
  part.ours = mark.empty() || at != std::string_view::npos;
  if (at != std::string_view::npos) part.line.message = raw.text.substr(at + mark.size());
  return part;
}

// In a journal other programs' lines stand between, and the service's texts for perror(3).
bool LogReader::goesOn(const Part& part) const {
  if (part.line.priority != Priority::none || !part.ours) return false;
  if (ended) return mayGoOn(open.priority, message);
  return mark.empty() || plain || findKind(Priority::perror, part.line.message) == nullptr;
}

// Begins a message, or adds to the one that is open.
void LogReader::add(const Part& part) {
  if (!inside) {
    open = part.line;
    text = open.text;
    message = open.message;
    if (part.ends) text += ' ', message += ' ';
  } else {
    open.leftOut += part.line.leftOut;
    text.append("\n").append(part.line.text);
    message.append("\n").append(part.line.message);
  }
  inside = true;
  ended = part.ends;
}

Got LogReader::take(LogLine& line) {
  inside = false;
  if (text.ends_with(' ')) text.pop_back();
  if (message.ends_with(' ')) message.pop_back();
  open.text = text;
  open.message = message;
  line = open;
  return Got::line;
}
