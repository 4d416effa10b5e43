#include "looking/shell_reading.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <utility>

namespace {

// What the shell takes for something else than a letter of a name, wherever it stands unquoted.
struct Sign {
  std::string_view characters;
  const char* other;
};
constexpr Sign signs[] = {
    {" \t", "an entry with arguments matches no process"},
    {"'\"\\", "the shell takes quotes and backslashes off, and the process shows what is left"},
    {"<>", "the shell redirects there, and the process shows what stands before"},
    {"|&;", "the shell ends a command there, and no process shows the whole"},
    {"()", "the shell takes brackets for its own, and no process shows them"},
    {"`$", "the shell puts something else in the place of \"$\" and backquotes"},
};
constexpr const char* tilde = "the shell puts a home directory in the place of \"~\"";
constexpr const char* comment = "the shell takes it for a comment and starts nothing";
constexpr const char* assignment = "the shell takes it for an assignment and starts nothing";
constexpr const char* option = "the shell takes what begins so for an option of its own, and starts nothing";
constexpr const char* ownWord = "the shell knows that word itself and starts no program";
constexpr const char* syntaxError = "a syntax error for the shell, which starts nothing";

enum class Word { keyword, quick, slow };  // of the builtins: those that end at once, and those that may not
struct OwnWord {
  std::string_view name;
  Word kind;
};
constexpr OwnWord ownWords[] = {
    {"!", Word::keyword},     {"{", Word::keyword},      {"}", Word::keyword},     {"case", Word::keyword},
    {"do", Word::keyword},    {"done", Word::keyword},   {"elif", Word::keyword},  {"else", Word::keyword},
    {"esac", Word::keyword},  {"fi", Word::keyword},     {"for", Word::keyword},   {"if", Word::keyword},
    {"in", Word::keyword},    {"then", Word::keyword},   {"until", Word::keyword}, {"while", Word::keyword},
    {".", Word::slow},        {":", Word::quick},        {"[", Word::quick},       {"alias", Word::quick},
    {"bg", Word::quick},      {"break", Word::quick},    {"cd", Word::quick},      {"chdir", Word::quick},
    {"command", Word::slow},  {"continue", Word::quick}, {"echo", Word::quick},    {"eval", Word::slow},
    {"exec", Word::slow},     {"exit", Word::quick},     {"export", Word::quick},  {"false", Word::quick},
    {"fg", Word::slow},       {"getopts", Word::quick},  {"hash", Word::quick},    {"jobs", Word::quick},
    {"kill", Word::quick},    {"local", Word::quick},    {"printf", Word::quick},  {"pwd", Word::quick},
    {"read", Word::slow},     {"readonly", Word::quick}, {"return", Word::quick},  {"set", Word::quick},
    {"shift", Word::quick},   {"test", Word::quick},     {"times", Word::quick},   {"trap", Word::quick},
    {"true", Word::quick},    {"type", Word::quick},     {"ulimit", Word::quick},  {"umask", Word::quick},
    {"unalias", Word::quick}, {"unset", Word::quick},    {"wait", Word::quick},
};

const OwnWord* findOwn(std::string_view word) {
  const auto row =
      std::find_if(std::begin(ownWords), std::end(ownWords), [&](const auto& r) { return r.name == word; });
  return row == std::end(ownWords) ? nullptr : row;
}

bool isNameCharacter(char c) { return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0; }

bool isAssignment(std::string_view word) {
  const std::string_view name = word.substr(0, std::min(word.size(), word.find('=')));
  return name.size() < word.size() && !name.empty() && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
         std::all_of(name.begin(), name.end(), isNameCharacter);
}

// One pass over the text. A segment is what stands between two operators; the "&" comes behind the last.
class Reader {
 public:
  explicit Reader(std::string_view itsText) : text(itsText) {}

  ShellReading read(bool cut) {
    ShellReading reading;
    reading.other = option;
    if (text.starts_with('-') || text.starts_with('+')) return reading;
    while (place < text.size() && !commented) step();
    endWord();
    const bool quiet = commented || escaped || cut;  // the "&" is out of effect
    if (open || depth > 0 || (fileDue && !escaped) || (empty && !quiet && !text.empty())) broken = true;
    const bool runs = words > 0 && !quickSegment && !(escaped && namesProgram);
    if (quiet && !empty && (heldBefore || runs)) {
      wait(cut         ? "the NUL byte cuts the \"&\" off behind it"
           : commented ? "the comment swallows the \"&\" behind it"
                       : "the backslash takes the \"&\" its effect");
    }
    reading.other = broken && !compound ? syntaxError : other;
    reading.pattern = pattern;
    if (waitsBecause.empty() || (broken && !compound)) return reading;
    reading.waits = compound ? Waits::perhaps : Waits::yes;
    reading.waitsBecause = waitsBecause;
    return reading;
  }

 private:
  void note(const char* why) {
    if (other.empty()) other = why;
  }
  void wait(const char* why) {
    if (waitsBecause.empty()) waitsBecause = why;
  }

  void step() {
    const char c = text[place];
    const auto sign = std::find_if(std::begin(signs), std::end(signs),
                                   [&](const Sign& s) { return s.characters.find(c) != std::string_view::npos; });
    if (c == '$' && !expands()) {
      letter();
    } else if (sign != std::end(signs)) {
      note(sign->other);
      obey(c);
    } else if (c == '#' && !inWord) {
      note(comment);
      commented = true;
    } else {
      if (c == '~' && !inWord) note(tilde);
      if (c == '*' || c == '?' || c == '[') pattern = true;
      letter();
    }
  }

  void obey(char c) {
    switch (c) {
      case ' ':
      case '\t': endWord(), ++place; break;
      case '\\':
        escaped = place + 1 == text.size();
        letter(2);
        break;
      case '\'':
      case '"':
      case '`': skipQuoted(c); break;
      case '$': skipExpansion(); break;
      case '<':
      case '>': redirect(c); break;
      default: control(c);
    }
  }

  void letter(std::size_t size = 1) {
    if (!inWord) wordStart = place;
    inWord = true;
    place = std::min(text.size(), place + size);
  }

  bool expands() const {
    const char next = place + 1 < text.size() ? text[place + 1] : '\0';
    return isNameCharacter(next) ||
           (next != '\0' && std::string_view("@*#?-$!({").find(next) != std::string_view::npos);
  }

  void skipQuoted(char quote) {
    std::size_t end = place + 1;
    while (end < text.size() && text[end] != quote) end += quote != '\'' && text[end] == '\\' ? 2 : 1;
    open = open || end >= text.size();
    letter(end - place + 1);
  }

  // Brackets are counted as they come, whatever is quoted among them.
  void skipExpansion() {
    const char first = text[place + 1];
    if (first != '(' && first != '{') return letter(2);
    const char last = first == '(' ? ')' : '}';
    std::size_t end = place + 2;
    for (int inside = 1; end < text.size(); ++end) {
      inside += text[end] == first ? 1 : text[end] == last ? -1 : 0;
      if (inside == 0) break;
    }
    open = open || end == text.size();
    letter(end - place + 1);
  }

  void redirect(char c) {
    endWord();
    broken = broken || fileDue;
    ++place;
    if (place < text.size() && (text[place] == c || text[place] == '&' || (c == '<' && text[place] == '>'))) ++place;
    if (place < text.size() && text[place] == '|' && c == '>') ++place;
    fileDue = true;
    empty = false;
  }

  void control(char c) {
    endWord();
    const bool twice = place + 1 < text.size() && text[place + 1] == c && (c == '&' || c == '|');
    place += twice ? 2 : 1;
    if (c == '(' || c == ')') {
      compound = compound || c == '(';
      depth += c == '(' ? 1 : -1;
      broken = broken || depth < 0;
      empty = c == '(';
      words = 0;
      return;
    }
    broken = broken || empty || fileDue;
    heldBefore = heldBefore || !quickSegment;
    if (c == ';' && depth == 0 && heldBefore) wait("what stands before \";\" has no \"&\"");
    if (!twice && c != '|') heldBefore = false;
    empty = true;
    words = 0;
  }

  void endWord() {
    if (!inWord) return;
    inWord = false;
    empty = false;
    namesProgram = !fileDue && words == 0;
    if (std::exchange(fileDue, false)) return;
    const std::string_view word = text.substr(wordStart, place - wordStart);
    if (words == 0 && isAssignment(word)) {
      note(assignment);
      quickSegment = true;  // until a program's name comes
      return;
    }
    if (words++ > 0) return;
    const OwnWord* own = findOwn(word);
    if (own != nullptr) note(ownWord);
    compound = compound || (own != nullptr && own->kind == Word::keyword);
    quickSegment = own != nullptr && own->kind == Word::quick;
  }

  std::string_view text;
  std::size_t place = 0;
  std::size_t wordStart = 0;
  std::string other;
  int depth = 0;              // of round brackets
  unsigned words = 0;         // of this segment
  bool empty = true;          // this segment
  bool quickSegment = false;  // a builtin that ends at once
  bool heldBefore = false;    // a segment before it in its list, which has one "&" behind it, is none of those
  bool namesProgram = false;  // the last word
  bool inWord = false;
  bool fileDue = false;      // a redirection lacks its file
  bool open = false;         // a quote or bracket
  bool commented = false;    // the rest is a comment
  bool escaped = false;      // the text ends in a backslash
  std::string waitsBecause;  // a command stays in the foreground
  bool compound = false;     // the shell's own language, which is not followed further
  bool pattern = false;
  bool broken = false;
};

}  // namespace

ShellReading readAsShell(std::string_view entry) {
  const std::string_view seen = entry.substr(0, std::min(entry.size(), entry.find('\0')));
  return Reader(seen).read(seen.size() < entry.size());
}
