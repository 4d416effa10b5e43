// Runs hubctl's subcommands on foreign bytes: messages, words, digits, files. Nothing may crash, only what the user is to read
// is thrown, what is printed is JSON, or harmless at a terminal, and what is sent is what was typed.
// An input is a byte for row, --json and terminal, then words, a NUL and the messages that come back; the file is all of it.
// A message begins with its size and two marks, for what nobody foresees: length and tag of a reply; what a script prints.
#include <sys/msg.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/failure.h"
#include "base/pieces.h"
#include "commands/commands.h"
#include "showing/text.h"

static constexpr std::pair<std::string_view, Action (*)(CLI::App&)> rows[] = {
    // words follow a blank at the end
    {"ping -w 0 -c 2 -i 0", addPing},
    {"version -w 0", addVersion},
    {"run -w 0 ", addRun},
    {"run -w 0 --all --timeout 0.5 true", addRun},
    {"run -w 0 --raw true", addRun},
    {"peek inbound", addPeek},
    {"get -w 0 --force /file /tmp/got", addGet},
    {"send -w 0 /tmp/input /tmp/sent", addSend},
    {"clocksteward -w 0 off", addClocksteward},
    {"raw -w 0 04", addRaw},
    {"raw -w 0 ", addRaw},
    {"packet -w 0 ", addPacket},
    {"check-config --elsewhere /tmp/input", addCheckConfig},
    {"explain ", addExplain},
};
static bool terminal;
static ByteView replies;  // what still comes back
static unsigned dry;      // how often nothing was there any more
static Bytes request;     // what went out last
static std::string mark;  // what the running script prints first

static void require(bool holds) { holds ? void() : std::abort(); }

extern "C" {
int __wrap_isatty(int) { return terminal ? 1 : 0; }
int __wrap_msgget(key_t key, int) { return key; }
int __wrap_msgctl(int, int command, msqid_ds* state) {
  if (command == IPC_STAT) return *state = {}, state->msg_qbytes = 16384, 0;
  msginfo limits = {};
  limits.msgmax = 8192;
  return *reinterpret_cast<msginfo*>(state) = limits, 0;
}
std::FILE* __wrap_popen(const char*, const char*) { return nullptr; }

int __wrap_msgsnd(int, const void* message, std::size_t size, int) {
  const std::string text(static_cast<const char*>(message) + sizeof(long), size);
  const std::size_t at = text.find("echo ") + 5;
  if (text.find_first_not_of("0123456789abcdef", at) == at + 8) mark = text.substr(at, 8) + '\n';
  request.assign(text.begin(), text.end());
  return 0;
}

// Nothing comes before the first request. At the end there is no message, then no queue, and so on: no wait lasts.
ssize_t __wrap_msgrcv(int queue, void* message, std::size_t room, long, int flags) {
  const bool open = (flags & MSG_COPY) != 0 || (queue == HUBKEEPER_KEY_RIDGELINK && !request.empty());
  if (!open || replies.size() < 2) return errno = open && ++dry % 2 == 0 ? EIDRM : ENOMSG, -1;
  const unsigned head = hubkeeper_read16(replies.data());
  const std::size_t size = std::min({replies.size() - 2, room, std::size_t{head / 4}});
  auto* text = static_cast<std::uint8_t*>(message) + sizeof(long);
  std::copy_n(replies.begin() + 2, size, text);
  replies = replies.subspan(2 + size);
  if (head % 2 != 0 && size >= 5 && request.size() >= 5) {
    hubkeeper_write16(text, static_cast<std::uint16_t>(size));
    std::copy_n(request.begin() + 2, 2, text + 2);
  }
  if (head / 2 % 2 != 0 && size >= 5 + mark.size()) std::copy(mark.begin(), mark.end(), text + 5);
  return static_cast<ssize_t>(size);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool begun = setenv("NO_COLOR", "1", 1) == 0 && std::freopen("/dev/null", "r", stdin) != nullptr;
  static const int lock = (stderr = std::fopen("/dev/null", "w"), 1 + dup(STDIN_FILENO));
  if (!begun || size == 0) return 0;
  const auto& [start, add] = rows[data[0] % 64 % std::size(rows)];
  const bool json = data[0] / 64 % 2 != 0 && add != addExplain;
  terminal = data[0] >= 128;
  std::string typed(data + 1, std::find(data + 1, data + size, 0)), line(start);
  replies = ByteView(data, size).subspan(std::min(size, typed.size() + 2));
  request.clear(), mark.clear(), dry = 0;
  std::ofstream("/tmp/input") << std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (json) line.insert(line.find(' '), " --json");
  std::replace(line.begin(), line.end(), ' ', '\n');
  if (start.ends_with(' ')) line += typed;
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; std::getline(in, word);) words.insert(words.begin(), word);

  char* printed = nullptr;
  std::FILE* const output = std::exchange(stdout, open_memstream(&printed, &size));
  CLI::App app;
  const Action action = add(*app.add_subcommand(words.back()));
  try {
    app.parse(words);
    const int status = action();
    require(status >= 0 && status < 256);
  } catch (const CLI::Error&) {
  } catch (const WrongUsage&) {
  } catch (const Failure&) {
  }
  std::fclose(std::exchange(stdout, output));
  closefrom(lock);  // which is held to the end
  std::istringstream shown({printed, size});
  std::free(printed);

  if (typed.find("--json") < typed.size() || line.find("--raw") < line.size()) return 0;
  for (std::string text; std::getline(shown, text);)
    require(json ? nlohmann::json::accept(text) : !terminal || harmless(text, "\t") == text);
  if (request.empty() || !start.ends_with(' ')) return 0;
  for (const Piece& piece : split(inbound, request)) require(add == addRaw || piece.kind == Kind::packet);
  if (add != addRaw || typed.find('-') < typed.size()) return 0;  // options
  std::erase_if(typed, [](unsigned char c) { return std::isxdigit(c) == 0; });
  require(strcasecmp(hexOf(request).c_str(), typed.c_str()) == 0);
  return 0;
}
}
