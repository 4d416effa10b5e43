#include "desk/log_line.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";

// The number in all of the text, or -1.
int numberIn(std::string_view text) {
  int number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

int monthIn(std::string_view text) {
  for (std::size_t at = 0; at < months.size(); at += 3) {
    if (months.substr(at, 3) == text) return static_cast<int>(at / 3) + 1;
  }
  return -1;
}

// Two digits of a time, from the place `from` of its number.
int digitsOf(LogTime time, LogTime from) { return static_cast<int>(time / from % 100); }

}  // namespace

std::optional<LogTime> readLogTime(std::string_view text) {
  if (text.size() < logTimeSize) return std::nullopt;
  static constexpr std::size_t breaks[] = {2, 6, 11, 14, 17};
  static constexpr std::string_view marks = "   ::";
  for (std::size_t i = 0; i < marks.size(); ++i) {
    if (text[breaks[i]] != marks[i]) return std::nullopt;
  }
  const int parts[] = {numberIn(text.substr(7, 4)),  monthIn(text.substr(3, 3)),   numberIn(text.substr(0, 2)),
                       numberIn(text.substr(12, 2)), numberIn(text.substr(15, 2)), numberIn(text.substr(18, 2))};
  LogTime time = 0;
  for (const int part : parts) {
    if (part < 0) return std::nullopt;
    time = time * 100 + part;
  }
  return time;
}

std::string logTime(LogTime time) {
  const auto month = static_cast<std::size_t>(std::clamp(digitsOf(time, 100'000'000), 1, 12) - 1);
  return fmt::format("{:02} {} {:04} {:02}:{:02}:{:02}", digitsOf(time, 1'000'000), months.substr(month * 3, 3),
                     time / 10'000'000'000, digitsOf(time, 10'000), digitsOf(time, 100), digitsOf(time, 1));
}

std::string isoTime(LogTime time) {
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", time / 10'000'000'000, digitsOf(time, 100'000'000),
                     digitsOf(time, 1'000'000), digitsOf(time, 10'000), digitsOf(time, 100), digitsOf(time, 1));
}

std::time_t clockTime(LogTime time) {
  std::tm parts = {};
  parts.tm_year = static_cast<int>(time / 10'000'000'000) - 1900;
  parts.tm_mon = digitsOf(time, 100'000'000) - 1;
  parts.tm_mday = digitsOf(time, 1'000'000);
  parts.tm_hour = digitsOf(time, 10'000);
  parts.tm_min = digitsOf(time, 100);
  parts.tm_sec = digitsOf(time, 1);
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

bool readHead(std::string_view text, LogLine& line) {
  const std::size_t blank = std::min(text.substr(0, 7).find(' '), text.size());
  const auto priority = findPriority(text.substr(0, blank));
  if (!priority || *priority == Priority::perror || blank == text.size()) return false;
  const auto time = readLogTime(text.substr(blank + 1));
  const std::size_t behind = blank + 1 + logTimeSize;
  if (!time || (behind < text.size() && text[behind] != ' ')) return false;
  const std::string_view whole =
      text.ends_with(' ') && text.size() > behind + 1 ? text.substr(0, text.size() - 1) : text;
  line.priority = *priority;
  line.time = *time;
  line.text = whole;
  line.message = whole.substr(std::min(behind + 1, whole.size()));
  return true;
}
