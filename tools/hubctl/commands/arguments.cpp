#include "commands/arguments.h"

#include <fmt/format.h>

#include <cctype>

#include "base/failure.h"

Bytes parseHex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  const auto digit = [](char c) {
    static constexpr std::string_view digits = "0123456789abcdef";
    const auto place = digits.find(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return place == std::string_view::npos ? -1 : static_cast<int>(place);
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (high < 0 && (std::isspace(static_cast<unsigned char>(text[i])) || text[i] == ':' || text[i] == ',')) continue;
    const int value = digit(text[i]);
    if (value < 0) throw WrongUsage(fmt::format("\"{}\" is no hexadecimal digit: {}", text[i], text));
    if (high >= 0) bytes.push_back(static_cast<std::uint8_t>(high * 16 + value));
    high = high < 0 ? value : -1;
  }
  if (high >= 0) throw WrongUsage(fmt::format("a byte has two hexadecimal digits; one is left over: {}", text));
  return bytes;
}
