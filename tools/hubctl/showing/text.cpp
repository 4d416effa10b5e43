#include "showing/text.h"

#include <fmt/chrono.h>

#include <chrono>
#include <iterator>

std::string humanSize(std::uint64_t bytes) {
  static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < std::size(units)) size /= 1024, ++unit;
  const bool whole = unit == 0 || bytes % (std::uint64_t{1} << (10 * unit)) == 0;
  return fmt::format("{:.{}f} {}", size, whole ? 0 : 1, units[unit]);
}

std::string shortSize(std::uint64_t bytes) {
  std::string text = humanSize(bytes);
  text.erase(text.find(' '), 1);
  return text.substr(0, text.size() - (text.ends_with("iB") ? 2 : 1));
}

std::string humanSpan(double seconds) {
  const auto whole = static_cast<std::uint64_t>(seconds < 0 ? 0 : seconds);
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{}:{:02}", whole / 60, whole % 60);
  if (whole < 48 * 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{} days", whole / 86400);
}

std::string count(std::uint64_t number, std::string_view noun) {
  return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::string timeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const auto seconds = std::chrono::time_point_cast<std::chrono::seconds>(now);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now - seconds).count();
  return fmt::format("{:%H:%M:%S}.{:03}", fmt::localtime(std::chrono::system_clock::to_time_t(now)), milliseconds);
}

std::string printable(ByteView bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
  return text;
}

std::string printable(std::string_view text) {
  return printable(ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::string hexOf(ByteView bytes, std::string_view between) { return fmt::format("{:02x}", fmt::join(bytes, between)); }
