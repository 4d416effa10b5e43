#include "showing/text.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iterator>

std::string humanSize(std::uint64_t bytes) {
  static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < std::size(units)) size /= 1024, ++unit;
  size = std::floor(size * 10) / 10;  // what is not quite full does not look full
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

namespace {

struct Character {
  std::size_t size;  // 0: no UTF-8 begins here
  std::uint32_t code;
};

Character nextCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i])); };
  const std::uint32_t first = byte(0);
  if (first < 0x80) return {1, first};
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < size) return {0, 0};
  std::uint32_t code = first & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return {0, 0};
    code = code << 6 | (byte(i) & 0x3FU);
  }
  static constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  return code < least[size] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000) ? Character{0, 0}
                                                                                    : Character{size, code};
}

bool isDangerous(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || (code >= 0x200E && code <= 0x200F) ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string harmless(std::string_view text, std::string_view kept) {
  std::string shown;
  while (!text.empty()) {
    const Character next = nextCharacter(text);
    const std::size_t size = std::max<std::size_t>(1, next.size);
    const bool asItIs = next.size > 0 && (!isDangerous(next.code) || kept.find(text[0]) != std::string_view::npos);
    shown += asItIs ? text.substr(0, size) : ".";
    text.remove_prefix(size);
  }
  return shown;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = nextCharacter(text).size;
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

std::string base64Of(std::string_view bytes) {
  static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    const std::size_t size = std::min<std::size_t>(3, bytes.size() - i);
    for (std::size_t j = 0; j < 3; ++j) group = group << 8 | (j < size ? static_cast<unsigned char>(bytes[i + j]) : 0U);
    for (std::size_t j = 0; j < 4; ++j) text += j <= size ? digits[group >> (18 - 6 * j) & 63] : '=';
  }
  return text;
}

std::string hexOf(ByteView bytes, std::string_view between) { return fmt::format("{:02x}", fmt::join(bytes, between)); }
