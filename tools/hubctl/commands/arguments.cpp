#include "commands/arguments.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "base/failure.h"
#include "base/signals.h"

double parseNumber(const std::string& text, double least, bool whole) {
  double given = 0;
  const bool good = CLI::detail::lexical_cast(text, given) && given >= least && given <= 1e6;
  if (good && (!whole || given == std::floor(given))) return given;
  throw CLI::ValidationError(
      fmt::format("{} is not a {}number from {:g} to 1000000", text, whole ? "whole " : "", least));
}

CLI::Option* addFile(CLI::App& app, const std::string& name, std::string& file, const std::string& help) {
  const auto refuseEmpty = [](const std::string& given) {
    return std::string(given.empty() ? "FILE has no name" : "");
  };
  return app.add_option(name, file, help)->type_name("FILE")->check(CLI::Validator(refuseEmpty, ""));
}

std::string readInput(const std::string& path) {
  constexpr std::size_t most = 16 << 20;  // far more than anything that is sent or read so
  std::FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "rbe");
  std::string content;
  char part[4096];
  bool good = file != nullptr;
  for (std::size_t got = 1; good && got > 0 && content.size() <= most && !stopWanted();) {
    got = std::fread(part, 1, sizeof part, file);
    content.append(part, got);
    good = std::ferror(file) == 0;
  }
  const int reason = errno;
  if (file != nullptr && file != stdin) std::fclose(file);
  if (stopWanted()) throw Failure("interrupted");
  if (content.size() > most) throw Failure(fmt::format("{} has more than 16 MiB", path));
  if (!good) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(reason)));
  return content;
}

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
