// What one line of the log means, and what to do.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "base/failure.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/meaning.h"
#include "desk/log_reader.h"
#include "showing/output.h"
#include "showing/terminal.h"

namespace {

constexpr const char* unknown =
    "this is no message of the catalogue; a part of a longer message looks like this, another program's line, and the "
    "output of uname(1) and fw_printenv(1) at the start";

// The line as it stands, or as the catalogue or a summary shows it. Without a priority it is looked for among all.
const LogKind* findKindOf(const LogLine& line) {
  if (const LogKind* kind = findKind(line.priority, line.message)) return kind;
  const auto bare = [](std::string text) {
    std::erase(text, ' ');
    return text;
  };
  const std::string wanted = bare(std::string(line.message));
  const auto named = std::find_if(catalogue().begin(), catalogue().end(), [&](const LogKind& kind) {
    return bare(kind.text) == wanted && (line.priority == Priority::none || line.priority == kind.priority);
  });
  return named == catalogue().end() ? nullptr : &*named;
}

// A line of a journal without its priority has the message behind a colon. The longest text that is known is meant.
const LogKind* findKindWithin(LogLine line) {
  const LogKind* kind = findKindOf(line);
  for (std::size_t at = 0; kind == nullptr && line.priority == Priority::none;) {
    at = line.message.find(": ");
    if (at == std::string_view::npos) break;
    line.message.remove_prefix(at + 2);
    kind = findKindOf(line);
  }
  return kind;
}

int explain(const LogLine& line) {
  const LogKind* kind = findKindWithin(line);
  if (kind == nullptr) throw Failure(unknown);
  print("{}  {}\n", nameOf(kind->priority), inked(Ink::bold, kind->text));
  printMeaning(*kind, 2);
  return 0;
}

int explainInput() {
  if (isatty(STDIN_FILENO) == 1) throw WrongUsage("LINE is required");
  LogReader reader({"-"}, false);
  LogLine line;
  Got got = Got::pause;
  while (got == Got::pause || (got == Got::line && line.message.empty())) got = reader.next(line);
  if (got == Got::end) throw Failure("there is no line on standard input");
  return explain(line);
}

int explainWords(const std::vector<std::string>& words) {
  const std::string text = fmt::format("{}", fmt::join(words, " "));
  LogLine line;
  line.text = line.message = text;
  if (words.front().starts_with('-') && !findKindOf(line)) throw WrongUsage(words.front() + " is no option of explain");
  // A line of a journal has more before its priority.
  for (std::size_t at = 0; !readHead(std::string_view(text).substr(at), line);) {
    at = text.find(": ", at);
    if (at == std::string::npos) break;
    at += 2;
  }
  return explain(line);
}

}  // namespace

Action addExplain(CLI::App& app) {
  app.prefix_command();  // the words are taken as they are
  app.footer(
      "LINE is a line of the log, with or without priority and time; without LINE, the first of\n"
      "standard input. Status 1 when the catalogue does not have it.");
  return [subcommand = &app] {
    std::vector<std::string> words = subcommand->remaining();
    if (!words.empty() && words.front() == endOfOptions) words.erase(words.begin());
    return words.empty() ? explainInput() : explainWords(words);
  };
}
