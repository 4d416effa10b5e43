#include "showing/wrapping.h"

namespace {

// What stands between single blanks, so that several of them stay as many.
std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == ' ') {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

}  // namespace

std::vector<std::string> wrapWords(std::string_view text, int width, std::size_t taken, std::size_t indent) {
  std::vector<std::string> lines(1);
  std::size_t column = taken;
  bool first = true;
  for (const std::string& word : wordsOf(text)) {
    if (!first && width > 0 && column + 1 + word.size() > static_cast<std::size_t>(width)) {
      lines.emplace_back(indent, ' ');
      column = indent;
    } else if (!first) {
      lines.back() += ' ';
      ++column;
    }
    lines.back() += word;
    column += word.size();
    first = false;
  }
  return lines;
}
