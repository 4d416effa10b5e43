#include "desk/catalogue.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

extern const char* const messagesPage;  // made by CMake

namespace {

constexpr std::string_view priorityNames[] = {"FATAL", "ALERT",  "CRIT", "perror", "ERROR",
                                              "WARN",  "NOTICE", "INFO", "DEBUG",  ""};
constexpr auto npos = std::string_view::npos;

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == npos ? std::string_view() : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// The cells of a row of a table, or nothing.
std::vector<std::string_view> cellsOf(std::string_view line) {
  std::vector<std::string_view> cells;
  if (!line.starts_with("| ")) return cells;
  for (line.remove_prefix(1); line.find('|') != npos; line.remove_prefix(line.find('|') + 1)) {
    cells.push_back(trimmed(line.substr(0, line.find('|'))));
  }
  return cells;
}

// The words of a cell: code in quotation marks, a limit with the page that tells of it, a link's text.
std::string plain(std::string_view cell) {
  std::string text;
  bool limit = false;
  for (std::size_t i = 0; i < cell.size(); ++i) {
    const std::size_t link = cell[i] == '[' ? cell.find("](", i) : npos;
    if (cell.substr(i, 2) == "**") {
      ++i;
    } else if (cell[i] == '*') {
      limit = !limit;
      if (limit) text += "hubkeeper(8), ";
    } else if (link != npos) {
      text += cell.substr(i + 1, link - i - 1);
      i = cell.find(')', link);
    } else {
      text += cell[i] == '`' ? '"' : cell[i];
    }
  }
  return text;
}

// "As above." stands for the cell above, "the line above" for the nearest message of the log above.
std::string resolved(std::string text, const std::string& above, const std::string& lineAbove) {
  static constexpr std::string_view same = "As above.", line = "the line above";
  if (text.starts_with(same)) text.replace(0, same.size(), above);
  if (const std::size_t place = text.find(line); place != npos) {
    text.replace(place, line.size(), "the line \"" + lineAbove + "\"");
  }
  return text;
}

const Queue* queueOf(std::string_view meaning) {
  for (const std::string_view word : {"key ", "Key "}) {
    const std::size_t place = meaning.find(word);
    const int key = place == npos ? 0 : std::atoi(meaning.data() + place + word.size());
    for (const Queue& queue : hubkeeper_queues) {
      if (queue.key == key) return &queue;
    }
  }
  return nullptr;
}

// Splits the text at its values. Only the first literal is lenient about the number of blanks.
void takeApart(LogKind& kind) {
  std::string_view rest = trimmed(kind.text);
  for (std::size_t open = rest.find('<'); open != npos; open = rest.find('<')) {
    const std::size_t close = rest.find('>', open);
    kind.literals.emplace_back(rest.substr(0, open));
    kind.names.emplace_back(rest.substr(open + 1, close - open - 1));
    rest.remove_prefix(close + 1);
  }
  kind.literals.emplace_back(rest);
  if (kind.priority == Priority::perror) {
    kind.literals.back() += ": ";
    kind.literals.emplace_back();
    kind.names.emplace_back("reason");
  }
  std::string& first = kind.literals.front();
  const auto bothBlanks = [](char one, char other) { return one == ' ' && other == ' '; };
  first.erase(std::unique(first.begin(), first.end(), bothBlanks), first.end());
}

std::vector<LogKind> readPage(std::string_view page) {
  std::vector<LogKind> kinds;
  std::size_t meaning = 0, remedy = 0;
  std::string above, lineAbove;
  for (; !page.empty(); page.remove_prefix(std::min(page.size(), page.find('\n') + 1))) {
    const auto cells = cellsOf(page.substr(0, page.find('\n')));
    const auto column = [&](std::string_view title) {
      return static_cast<std::size_t>(std::find(cells.begin(), cells.end(), title) - cells.begin());
    };
    if (column("Meaning") < cells.size()) meaning = column("Meaning"), remedy = column("What to do");
    if (cells.size() < 4 || !cells[0].starts_with('`') || cells.size() <= std::max(meaning, remedy)) continue;
    const auto priority = findPriority(cells[1]);
    if (!priority) continue;
    LogKind kind = {std::string(cells[0].substr(1, cells[0].size() - 2)), *priority, "", "", nullptr, false, {}, {}};
    kind.meaning = resolved(plain(cells[meaning]), kinds.empty() ? "" : kinds.back().meaning, lineAbove);
    kind.remedy = resolved(plain(cells[remedy]), above, lineAbove);
    kind.queue = queueOf(kind.meaning);
    kind.noError = kind.meaning.starts_with("No error.");
    takeApart(kind);
    above = kind.remedy;
    if (kind.priority != Priority::perror) lineAbove = kind.text;
    kinds.push_back(std::move(kind));
  }
  return kinds;
}

bool allOf(std::string_view text, int (*is)(int)) {
  return std::all_of(text.begin(), text.end(), [is](char c) { return is(static_cast<unsigned char>(c)) != 0; });
}

// Whether text may stand in the place of the value of that name.
bool fits(std::string_view name, std::string_view text) {
  if (name == "opcode") return !text.empty() && text.size() <= 2 && allOf(text, std::isxdigit);
  if (isNumber(name)) {
    if (text.starts_with('-')) text.remove_prefix(1);
    return !text.empty() && text.size() < 19 && allOf(text, std::isdigit);
  }
  if (name == "version") return !text.empty() && allOf(text, std::isgraph);
  if (name == "path") return text.starts_with('/');
  return name != "reason" || !text.empty();
}

// How much of the text the literal covers, or npos.
std::size_t covered(std::string_view text, std::string_view literal) {
  std::size_t at = 0;
  for (const char c : literal) {
    if (at == text.size() || text[at] != c) return npos;
    ++at;
    while (c == ' ' && at < text.size() && text[at] == ' ') ++at;
  }
  return at;
}

// Matches the values from number `value` on, and the literals behind them.
bool matchValues(const LogKind& kind, std::size_t value, std::string_view text, Values& values) {
  if (value == kind.names.size()) return text.empty();
  const std::string& literal = kind.literals[value + 1];
  const bool last = value + 1 == kind.names.size();
  if (last && !text.ends_with(literal)) return false;
  for (std::size_t end = last ? text.size() - literal.size() : text.find(literal); end != npos;
       end = last ? npos : text.find(literal, end + 1)) {
    if (!fits(kind.names[value], text.substr(0, end))) continue;
    values.emplace_back(kind.names[value], text.substr(0, end));
    if (matchValues(kind, value + 1, text.substr(end + literal.size()), values)) return true;
    values.pop_back();
  }
  return false;
}

bool matchTrimmed(const LogKind& kind, std::string_view message, Values& values) {
  const std::size_t first = covered(message, kind.literals.front());
  return first != npos && matchValues(kind, 0, message.substr(first), values);
}

std::size_t literalSize(const LogKind& kind) {
  std::size_t size = 0;
  for (const std::string& literal : kind.literals) size += literal.size();
  return size;
}

// The kinds of a priority, or all, those with the most text first: a message may also look like one of a vaguer kind.
const std::vector<const LogKind*>& candidates(Priority priority) {
  static const auto lists = [] {
    std::vector<std::vector<const LogKind*>> made(std::size(priorityNames));
    for (const LogKind& kind : catalogue()) {
      made[static_cast<std::size_t>(kind.priority)].push_back(&kind);
      made[static_cast<std::size_t>(Priority::none)].push_back(&kind);
    }
    for (auto& list : made) {
      std::stable_sort(list.begin(), list.end(), [](const LogKind* one, const LogKind* other) {
        return literalSize(*one) > literalSize(*other);
      });
    }
    return made;
  }();
  return lists[static_cast<std::size_t>(priority)];
}

const LogKind* findWhole(Priority priority, std::string_view message) {
  Values values;
  for (const LogKind* kind : candidates(priority)) {
    if (matchTrimmed(*kind, message, values)) return kind;
  }
  return nullptr;
}

// A message of which only the beginning is there: one that has more text behind a value.
const LogKind* findBegun(Priority priority, std::string_view message) {
  message.remove_prefix(std::min(message.find_first_not_of(' '), message.size()));
  for (const LogKind* kind : candidates(priority)) {
    const bool goesOn = kind->names.size() > 1 || !kind->literals.back().empty();
    if (goesOn && !kind->names.empty() && covered(message, kind->literals.front()) != npos) return kind;
  }
  return nullptr;
}

}  // namespace

std::string_view nameOf(Priority priority) { return priorityNames[static_cast<std::size_t>(priority)]; }

std::optional<Priority> findPriority(std::string_view name) {
  const auto* const found = std::find(std::begin(priorityNames), std::end(priorityNames), name);
  if (name.empty() || found == std::end(priorityNames)) return std::nullopt;
  return static_cast<Priority>(found - std::begin(priorityNames));
}

bool isNumber(std::string_view name) {
  static constexpr std::string_view numbers[] = {"bytes", "id", "length", "opcode", "remaining", "result"};
  return std::find(std::begin(numbers), std::end(numbers), name) != std::end(numbers);
}

const std::vector<LogKind>& catalogue() {
  static const std::vector<LogKind> kinds = readPage(messagesPage);
  return kinds;
}

std::optional<Values> match(const LogKind& kind, std::string_view message) {
  Values values;
  return matchTrimmed(kind, trimmed(message), values) ? std::optional(values) : std::nullopt;
}

const LogKind* findKind(Priority priority, std::string_view message) {
  const LogKind* whole = findWhole(priority, trimmed(message));
  return whole == nullptr ? findBegun(priority, message) : whole;
}

bool mayGoOn(Priority priority, std::string_view message) {
  return findWhole(priority, trimmed(message)) == nullptr && findBegun(priority, message) != nullptr;
}
