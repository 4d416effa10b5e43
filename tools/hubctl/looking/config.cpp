#include "looking/config.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "base/failure.h"
#include "looking/processes.h"
#include "looking/program_file.h"
#include "looking/shell_reading.h"
#include "monitor/config_records.h"
#include "showing/text.h"

namespace {

struct Record {
  std::string key;
  std::string value;
  std::size_t line;
  bool tail;  // text without "=" at the end of the file, which repeats the last value
};

constexpr std::size_t longestEntry = 511;  // what the service reads of a command line

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string inSmallLetters(std::string_view text) {
  std::string small;
  for (const char c : text) small += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return small;
}

// Through the service's own grammar, which takes a stream.
std::vector<Record> readRecords(const std::string& content) {
  std::vector<Record> records;
  if (content.empty()) return records;
  std::string bytes = content;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> source(fmemopen(bytes.data(), bytes.size(), "r"), std::fclose);
  if (!source) throw Failure(fmt::format("cannot read a file of {} bytes: {}", bytes.size(), std::strerror(errno)));
  std::size_t offset = 0, line = 1, counted = 0;
  for (std::string key, value; readRecord(source.get(), key, value); offset += key.size() + 1 + value.size() + 1) {
    const bool tail = offset + key.size() >= content.size();
    for (const std::size_t end = tail ? offset : offset + key.size(); counted < end; ++counted) {
      if (content[counted] == '\n') ++line;
    }
    records.push_back({key, value, line, tail});
  }
  return records;
}

// What the text alone tells: why a process can never match the entry; nothing when it can.
std::string neverMatches(const std::string& entry) {
  if (entry.empty()) return "the name is empty";
  if (entry.back() == '\r') return "the name ends in a carriage return";
  if (entry.front() == ' ' || entry.front() == '\t') return "the name begins with a blank";
  if (entry.back() == ' ' || entry.back() == '\t') return "the name ends in a blank";
  if (entry.size() > longestEntry) return fmt::format("the name is longer than {} characters", longestEntry);
  return readAsShell(entry).other;
}

// What may be the reason that there is no such file, because nobody sees it.
std::string hintAt(const std::string& entry) {
  if (entry.front() == '=') return "; the \"=\" is doubled";
  if (entry.find("\xC2\xA0") != std::string::npos) return "; a no-break space is part of the name";
  const bool control = std::any_of(entry.begin(), entry.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
  return control ? "; a control character is part of the name" : "";
}

std::string explainTail(const Record& record) {
  if (record.key == "service" || record.key == "debug") {
    return fmt::format("\"{}\" without \"=\" repeats the value \"{}\"", record.key, harmless(record.value));
  }
  return trimmed(record.key).empty() ? "the empty line at the end is logged as an unknown key"
                                     : "text without \"=\" at the end is logged as an unknown key";
}

std::string_view nameText(std::string_view text) {
  if (text.empty()) return "the empty line above";
  return text.front() == '#' || text.front() == ';' ? "the comment above" : "the text without \"=\" above";
}

// How many letters must be put in, taken out or changed to make one text of the other.
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t corner = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = corner + (one[i] == other[j] ? 0 : 1);
      corner = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, corner + 1});
    }
  }
  return row.back();
}

// A key that names a service all the same, by what it says or by what it is given; a comment does not.
bool meansService(const Record& record, std::string_view key) {
  if (key.starts_with('#') || key.starts_with(';')) return false;
  if (key.find("service") != std::string_view::npos || record.value.starts_with('/')) return true;
  return key.size() < 12 && distance(key, "service") <= 2;
}

Trap explainUnknownKey(const Record& record, std::string_view meant, std::string_view small) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  const bool service = meansService(record, small);
  const std::string so = service ? fmt::format(", so \"{}\" is not watched", harmless(record.value)) : "";
  return {record.line, service,
          meant.starts_with(byteOrderMark)
              ? fmt::format("an unseen byte-order mark (EF BB BF) begins the file and is part of the key{}", so)
              : fmt::format("the key \"{}\" is not known{}", harmless(meant), so)};
}

// A record whose key is neither "service" nor "debug": what was meant is the last line of the key.
Trap explainUnknown(const Record& record) {
  const std::string_view key = record.key;
  const std::size_t lastLine = key.rfind('\n');
  const bool manyLines = lastLine != std::string_view::npos;
  const std::string_view meant = manyLines ? key.substr(lastLine + 1) : key;
  const std::string small = inSmallLetters(trimmed(meant));
  const bool isService = small == "service";
  const auto trap = [&](std::string text) { return Trap{record.line, isService, std::move(text)}; };
  if (!isService && small != "debug") return explainUnknownKey(record, meant, small);
  if (manyLines) {
    return trap(fmt::format("{} swallows this record, whose key is then not \"{}\"",
                            nameText(trimmed(key.substr(0, lastLine))), small));
  }
  if (meant != trimmed(meant)) {
    return trap(fmt::format("a blank or carriage return beside \"{}\" belongs to the key", small));
  }
  return trap(fmt::format("\"{}\" must be written in small letters", harmless(meant)));
}

void judgeDebug(const Record& record, Verdict& verdict) {
  verdict.debug = record.value == "true";
  if (record.value == "true" || record.value == "false") return;
  verdict.traps.push_back(
      {record.line, false, fmt::format("\"{}\" is not \"true\", so debug is off", harmless(record.value))});
}

class Judge {
 public:
  explicit Judge(bool isHere) : here(isHere) {
    if (!here) return;
    place = findStartPlace();
    running = shownNames();
  }

  Verdict judge(const std::string& content) {
    for (const Record& record : readRecords(content)) {
      if (record.tail) verdict.traps.push_back({record.line, false, explainTail(record)});
      if (record.key == "debug") {
        judgeDebug(record, verdict);
      } else if (record.key == "service") {
        judgeService(record);
      } else if (!record.tail) {
        verdict.traps.push_back(explainUnknown(record));
      }
    }
    return std::move(verdict);
  }

 private:
  void judgeService(const Record& record) {
    const std::string name = harmless(record.value);
    const ShellReading reading = readAsShell(record.value);
    if (reading.waits != Waits::no) return explainWait(record, reading);
    std::string why = neverMatches(record.value);
    ProgramFile file;
    if (why.empty() && reading.pattern) judgePattern(record.value, why, file.unknown);
    if (why.empty() && here) {
      file = judgeProgram(record.value, place);
      if (!file.never.empty()) why = file.never + hintAt(record.value);
    }
    const auto shown = running.find(record.value);
    if (!why.empty()) {
      const std::string now =
          shown == running.end()
              ? "is started anew in every cycle"
              : fmt::format("is shown by process {} now, and is started anew in every cycle once that has ended",
                            fmt::join(shown->second, ", "));
      return addTrap(record, true, fmt::format("\"{}\" {}: {}", name, now, why));
    }
    if (!file.unknown.empty()) addTrap(record, false, fmt::format("\"{}\": {}", name, file.unknown));
    if (!seen.insert(record.value).second) {
      addTrap(record, false, fmt::format("\"{}\" stands here twice: when it dies, two copies may be started", name));
    }
    verdict.watched.push_back({record.value, shown == running.end() ? std::vector<pid_t>() : shown->second});
  }

  void judgePattern(const std::string& name, std::string& why, std::string& unknown) const {
    if (!here) unknown = "the shell puts the names of the files that fit in its place";
    if (here && !fitsItselfFirst(name, place)) why = "the shell puts the names of the files that fit in its place";
  }

  void explainWait(const Record& record, const ShellReading& reading) {
    verdict.traps.push_back(
        {record.line, true,
         fmt::format("once HubKeeper starts \"{}\", it {} for its end and watches NOTHING meanwhile: {}",
                     harmless(record.value), reading.waits == Waits::yes ? "waits" : "may wait", reading.waitsBecause),
         true});
  }

  void addTrap(const Record& record, bool unwatched, std::string text) {
    verdict.traps.push_back({record.line, unwatched, std::move(text)});
  }

  bool here;
  StartPlace place;
  std::unordered_map<std::string, std::vector<pid_t>> running;
  std::unordered_set<std::string> seen;
  Verdict verdict;
};

}  // namespace

Verdict judgeConfig(const std::string& content, bool here) { return Judge(here).judge(content); }
