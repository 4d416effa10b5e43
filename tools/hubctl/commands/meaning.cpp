#include "commands/meaning.h"

#include <fmt/format.h>

#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/wrapping.h"

void printMeaning(const LogKind& kind, std::size_t indent) {
  const auto tell = [indent](const char* label, const std::string& text) {
    const std::size_t taken = indent + 7;
    const std::string lines = fmt::format("{}", fmt::join(wrapWords(text, terminalWidth(), taken, taken), "\n"));
    print("{:{}}{}  {}\n", "", indent, inked(Ink::cyan, label), lines);
  };
  tell("means", kind.meaning);
  tell("to do", kind.remedy);
}
