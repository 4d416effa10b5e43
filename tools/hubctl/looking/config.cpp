#include "looking/config.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string_view>

#include "base/failure.h"
#include "monitor/config_records.h"
#include "showing/text.h"

namespace {

struct Record {
  std::string key;
  std::string value;
  std::size_t line;
  bool tail;  // text without "=" at the end of the file, which repeats the last value
};

constexpr std::size_t longestEntry = 510;  // what the service reads of a command line

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string inSmallLetters(std::string_view text) {
  std::string small;
  for (const char c : text) small += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return small;
}

std::vector<Record> readRecords(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(file), {}};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> source(std::fopen(path.c_str(), "re"), std::fclose);
  if (!file || !source) throw Failure(fmt::format("cannot open {}: {}", path, std::strerror(errno)));

  std::vector<Record> records;
  std::size_t offset = 0;
  for (std::string key, value; readRecord(source.get(), key, value); offset += key.size() + 1 + value.size() + 1) {
    const bool tail = offset + key.size() >= content.size();
    const std::string_view above = std::string_view(content).substr(0, tail ? offset : offset + key.size());
    const auto line = 1 + static_cast<std::size_t>(std::count(above.begin(), above.end(), '\n'));
    records.push_back({key, value, line, tail});
  }
  return records;
}

// Why a process can never match the entry; nothing when it can.
std::string neverMatches(const std::string& entry) {
  if (entry.empty()) return "the name is empty";
  if (entry.find('\r') != std::string::npos) return "the name ends in a carriage return";
  if (entry.front() == ' ' || entry.front() == '\t') return "the name begins with a blank";
  if (entry.back() == ' ' || entry.back() == '\t') return "the name ends in a blank";
  if (entry.find_first_of(" \t") != std::string::npos) return "an entry with arguments matches no process";
  if (entry.size() > longestEntry) return fmt::format("the name is longer than {} characters", longestEntry);
  return "";
}

std::string explainTail(const Record& record) {
  if (record.key == "service" || record.key == "debug") {
    return fmt::format("\"{}\" without \"=\" repeats the value \"{}\"", record.key, printable(record.value));
  }
  return trimmed(record.key).empty() ? "the empty line at the end is logged as an unknown key"
                                     : "text without \"=\" at the end is logged as an unknown key";
}

std::string_view nameText(std::string_view text) {
  if (text.empty()) return "the empty line above";
  return text.front() == '#' || text.front() == ';' ? "the comment above" : "the text without \"=\" above";
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
  if (!isService && small != "debug") return trap(fmt::format("the key \"{}\" is not known", printable(meant)));
  if (manyLines) {
    return trap(fmt::format("{} swallows this record, whose key is then not \"{}\"",
                            nameText(trimmed(key.substr(0, lastLine))), small));
  }
  if (meant != trimmed(meant)) {
    return trap(fmt::format("a blank or carriage return beside \"{}\" belongs to the key", small));
  }
  return trap(fmt::format("\"{}\" must be written in small letters", printable(meant)));
}

void judgeDebug(const Record& record, Verdict& verdict) {
  verdict.debug = record.value == "true";
  if (record.value == "true" || record.value == "false") return;
  verdict.traps.push_back(
      {record.line, false, fmt::format("\"{}\" is not \"true\", so debug is off", printable(record.value))});
}

void judgeService(const Record& record, Verdict& verdict) {
  const std::string name = printable(record.value);
  const std::string why = neverMatches(record.value);
  if (!why.empty()) {
    verdict.traps.push_back({record.line, true, fmt::format("\"{}\" is started anew in every cycle: {}", name, why)});
    return;
  }
  if (std::count(verdict.watched.begin(), verdict.watched.end(), record.value) > 0) {
    verdict.traps.push_back(
        {record.line, false, fmt::format("\"{}\" stands here twice: when it dies, two copies may be started", name)});
  }
  verdict.watched.push_back(record.value);
}

}  // namespace

Verdict judgeConfig(const std::string& path) {
  Verdict verdict;
  for (const Record& record : readRecords(path)) {
    if (record.tail) verdict.traps.push_back({record.line, false, explainTail(record)});
    if (record.key == "debug") {
      judgeDebug(record, verdict);
    } else if (record.key == "service") {
      judgeService(record, verdict);
    } else if (!record.tail) {
      verdict.traps.push_back(explainUnknown(record));
    }
  }
  return verdict;
}
