#include "talking/board.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <system_error>

#include "base/failure.h"
#include "base/signals.h"
#include "showing/progress.h"
#include "talking/requests.h"

namespace {

constexpr std::size_t roomForText = HUBKEEPER_COMMAND_MAX - std::string_view("{ ; }").size();
constexpr std::size_t roomForPiece = 860;

// With the NUL that ends it.
ByteView payloadOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.c_str()), text.size() + 1};
}

// Where a file of the board's is found from here, as the hub itself sees it: see proc(5).
std::string pathFromHere(const Session& session, const std::string& file) {
  return session.hub() == 0 ? "" : fmt::format("/proc/{}/root{}", session.hub(), file);
}

// As much of the text as makes one piece when it is quoted.
std::string_view nextPiece(std::string_view text) {
  std::size_t size = 0;
  for (std::size_t quoted = 0; size < text.size() && quoted < roomForPiece; ++size)
    quoted += text[size] == '\'' ? 4 : 1;
  return text.substr(0, size);
}

// Sends a script in pieces to a file, and has the hub's own shell read it; it removes the file first.
std::string runLong(Session& session, const std::string& script, std::optional<double> wait) {
  const std::string place = temporaryName();
  const std::string content = fmt::format("rm -rf {}\n{}\n", place, script);
  bool begun = false;
  try {
    for (std::string_view rest = content; !rest.empty(); rest.remove_prefix(nextPiece(rest).size())) {
      const std::string make = rest.size() == content.size() ? makeDirectory(place) + " && " : "";
      const std::string answer = runText(
          session, fmt::format("{{ {}printf %s {} >>{}/s && echo kept; }}", make, shellQuote(nextPiece(rest)), place));
      begun = true;
      if (answer != "kept\n") throw Failure("the board could not keep a long script; it said\n" + answer);
    }
    return runText(session, fmt::format("{{ . {}/s; }}", place), wait);
  } catch (const std::exception&) {
    if (begun || !session.tookBack()) removeFromBoard(session, place, false);
    throw;
  }
}

std::string drawNumber() {
  std::random_device random;
  return fmt::format("{:08x}", random());
}

}  // namespace

std::string shellQuote(std::string_view text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string makeDirectory(const std::string& place) { return "mkdir -m 700 " + place; }

std::string temporaryName() { return "/tmp/hubctl." + drawNumber() + drawNumber(); }

std::string runText(Session& session, const std::string& text, std::optional<double> wait) {
  if (text.size() > HUBKEEPER_COMMAND_MAX) {
    throw Failure(fmt::format("the board takes {} characters of command text, and this has {}", HUBKEEPER_COMMAND_MAX,
                              text.size()));
  }
  const Reply reply = request(session, HUBKEEPER_OPCODE_COMMAND, HUBKEEPER_OPCODE_COMMAND_REPLY, payloadOf(text), wait);
  return {reply.payload.begin(), reply.payload.end()};
}

std::string runScript(Session& session, const std::string& script, std::optional<double> wait) {
  const std::string mark = drawNumber();
  const std::string marked = fmt::format("echo {}; {}", mark, script);
  const std::string answer =
      marked.size() > roomForText ? runLong(session, marked, wait) : runText(session, "{ " + marked + "; }", wait);
  if (answer.starts_with(mark + '\n')) return answer.substr(markSize);
  if (answer.empty())
    throw Failure("nothing came back of what the board's shell printed: is the disk of its /tmp full?");
  throw Failure(
      "the board's shell did not run the commands: what came back is older\n"
      "HubKeeper's user must be able to write /tmp/cmdresp.txt");
}

void removeFromBoard(Session& session, const std::string& place, bool written, bool awaited) {
  const Shield shield;
  const std::string path = written ? pathFromHere(session, place) : "";
  std::error_code failed;
  if (!path.empty() && std::filesystem::remove_all(path, failed) > 0 && !failed) return;
  const std::string text = "rm -rf " + place;
  try {
    if (awaited) {
      runText(session, text);
    } else {
      sendPacket(session, HUBKEEPER_OPCODE_COMMAND, payloadOf(text));
    }
  } catch (const Failure&) {  // what went wrong before is what the user must know
    if (awaited) removeFromBoard(session, place, false);
  }
}

void fetchFromBoard(Session& session, const std::string& file, std::uint64_t size,
                    const std::function<void(std::string_view)>& sink) {
  Progress progress(size);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> direct(std::fopen(pathFromHere(session, file).c_str(), "rbe"),
                                                               std::fclose);
  std::string piece;
  for (std::uint64_t done = 0, number = 0; done < size; done += piece.size()) {
    if (stopWanted()) throw Failure("interrupted");
    if (direct) {
      piece.resize(65536);
      piece.resize(std::fread(piece.data(), 1, piece.size(), direct.get()));
    } else {
      piece = runScript(session, fmt::format("dd if={} bs={} skip={} count=1 2>/dev/null", shellQuote(file),
                                             roomForOutput, number++));
    }
    if (piece.empty()) throw Failure(file + " has become shorter on the board");
    piece.resize(static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), size - done)));
    sink(piece);
    progress.show(done + piece.size());
  }
}
