// Packets by opcode, tag and payload, in one Bundle. Nothing checks what they mean.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "base/failure.h"
#include "commands/bundle.h"
#include "commands/commands.h"

namespace {

struct Draft {
  std::uint8_t opcode;
  std::uint16_t tag;
  Bytes payload;
};

Bytes bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

unsigned parseNumber(std::string_view text, int base, unsigned most, const char* what) {
  const std::string given(text);
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2), base = 16;
  unsigned number = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (end.ec == std::errc() && end.ptr == text.data() + text.size() && number <= most) return number;
  throw WrongUsage(fmt::format("\"{}\" is no {}", given, what));
}

struct Field {
  const char* option;
  void (*set)(Draft&, const std::string& value);
};

constexpr Field fields[] = {
    {"--tag",
     [](Draft& draft, const std::string& value) {
       draft.tag = static_cast<std::uint16_t>(parseNumber(value, 10, 0xFFFF, "tag from 0 to 65535"));
     }},
    {"--text", [](Draft& draft, const std::string& value) { draft.payload = bytesOf(value); }},
    {"--hex", [](Draft& draft, const std::string& value) { draft.payload = parseHex(value); }},
    {"--file", [](Draft& draft, const std::string& value) { draft.payload = bytesOf(readInput(value)); }},
};

// Each word that is no option begins the next Packet; the options behind it are its own.
Bytes makeBundle(std::vector<std::string> words) {
  std::vector<Draft> drafts;
  if (!words.empty() && words.front() == endOfOptions) words.erase(words.begin());
  std::replace(words.begin(), words.end(), std::string(endOfOptions), std::string("--"));
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (!word->starts_with("-")) {
      drafts.push_back(
          {static_cast<std::uint8_t>(parseNumber(*word, 16, 0xFF, "opcode, two hexadecimal digits")), 0, {}});
      continue;
    }
    const std::string name = word->substr(0, word->find('='));
    const Field* field =
        std::find_if(std::begin(fields), std::end(fields), [&](const Field& f) { return name == f.option; });
    if (field == std::end(fields) || drafts.empty()) throw WrongUsage(fmt::format("{} cannot stand here", *word));
    const bool joined = name.size() < word->size();
    if (!joined && word + 1 == words.end()) throw WrongUsage(*word + " wants a value");
    field->set(drafts.back(), joined ? word->substr(name.size() + 1) : *++word);
  }
  if (drafts.empty()) throw WrongUsage("OPCODE is required");
  Bytes bundle;
  for (const Draft& draft : drafts) {
    const Bytes packet = makePacket(draft.opcode, draft.tag, draft.payload);
    if (packet.empty()) throw WrongUsage("a payload may have 65530 bytes");
    bundle.insert(bundle.end(), packet.begin(), packet.end());
  }
  return bundle;
}

}  // namespace

Action addPacket(CLI::App& app) {
  const auto options = std::make_shared<TalkOptions>();
  options->wait = 2;
  app.prefix_command();
  addSessionOptions(app, *options, "Listen for this long (default 2)");
  app.footer(
      "Behind each OPCODE, two hexadecimal digits, stands what its Packet holds:\n"
      "  --tag N      its tag (default 0)\n"
      "  --text TEXT, --hex HEX or --file FILE   its payload; - is standard input\n"
      "Several Packets make one Bundle: hubctl packet 04 --tag 7 30 --text 'hello'");
  return [options, subcommand = &app] { return sendAndShow(makeBundle(subcommand->remaining()), *options); };
}
