// A file to the board: checked before, because a target that cannot be opened ends the service; paced by the bounces,
// because a full queue would refuse a Bundle; compared afterwards, because nothing else notices a full disk.
#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "board.h"
#include "commands/arguments.h"
#include "commands/commands.h"
#include "showing/json.h"
#include "showing/progress.h"
#include "showing/terminal.h"
#include "showing/text.h"

namespace {

struct Options : SessionOptions {
  std::string file;
  std::string target;
};

constexpr std::size_t chunkSize = HUBKEEPER_BUNDLE_MAX - HUBKEEPER_HEADER_SIZE;
constexpr std::size_t maxName = HUBKEEPER_PACKET_MAX - HUBKEEPER_HEADER_SIZE - 1;  // a start Packet must fit one frame
constexpr int unbouncedBundles = 2;  // as many as a queue of the usual size holds
constexpr const char* endHint = "hubctl raw 05 00 00 00 72";

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openRegular(const std::string& path, std::uint64_t& size) {
  File file(std::fopen(path.c_str(), "rb"), std::fclose);
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0) {
    throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) throw Failure(fmt::format("{} is not a regular file", path));
  size = static_cast<std::uint64_t>(status.st_size);
  return file;
}

// The SHA-256 of a local file, from the tool that the board has too.
std::string localSum(const std::string& path) {
  const std::string command = "sha256sum <" + shellQuote(path);
  const File pipe(popen(command.c_str(), "r"), pclose);
  char sum[65] = "";
  return pipe && std::fread(sum, 1, 64, pipe.get()) == 64 ? sum : "";
}

// The same open as the service's, but for the truncation, by the same user.
void checkTarget(Session& session, const Options& options) {
  const std::string answer =
      runScript(session,
                fmt::format("t={}; if [ -d \"$t\" ]; then echo it is a directory; "
                            "elif [ ! -d \"${{t%/*}}/\" ]; then echo its directory does not exist; "
                            "elif [ -e \"$t\" ] && [ ! -f \"$t\" ]; then echo it is not a regular file; "
                            "elif (: >>\"$t\"); then echo ok; fi",
                            shellQuote(options.target)),
                options.wait);
  if (answer == "ok\n") return;
  throw Failure(fmt::format("cannot send to {}: {}", options.target,
                            answer.empty() ? "it cannot be opened" : answer.substr(0, answer.size() - 1)));
}

void checkStarted(Session& session, const Options& options) {
  const std::string answer =
      runScript(session, fmt::format("[ -s {} ] || echo empty", shellQuote(options.target)), options.wait);
  if (answer == "empty\n") return;
  throw Failure(
      fmt::format("HubKeeper has not begun this transfer: an earlier one was never ended\n"
                  "if nobody else is sending, end it with: {}",
                  endHint));
}

void transfer(Session& session, const Options& options, std::FILE* file, std::uint64_t size) {
  const auto put = [&](std::uint8_t opcode, ByteView payload) {
    session.put(makePacket(opcode, session.nextTag(), payload), after(options.wait));
  };
  Bytes name(options.target.begin() + 1, options.target.end());
  name.push_back(0);  // the service drops the last byte
  put(HUBKEEPER_OPCODE_TRANSFER_START, name);
  session.awaitBounce(HUBKEEPER_OPCODE_TRANSFER_START, options.wait);
  checkStarted(session, options);

  std::uint64_t sent = 0;
  try {
    Progress progress(size);
    Bytes chunk(chunkSize);
    for (int unbounced = 0; interrupted == 0; ++unbounced) {
      const std::size_t got = std::fread(chunk.data(), 1, chunk.size(), file);
      if (got == 0) break;
      for (; unbounced >= unbouncedBundles; --unbounced)
        session.awaitBounce(HUBKEEPER_OPCODE_TRANSFER_CHUNK, options.wait);
      put(HUBKEEPER_OPCODE_TRANSFER_CHUNK, {chunk.data(), got});
      sent += got;
      progress.show(sent);
    }
  } catch (const Failure& failure) {
    if (interrupted == 0) {
      throw Failure(
          fmt::format("{}\nthe transfer is left open after {}; {} ends it", failure.what(), humanSize(sent), endHint));
    }
  }
  const char* trouble = interrupted != 0 ? "interrupted" : std::ferror(file) != 0 ? "the file cannot be read on" : "";
  interrupted = 0;  // the end Packet must go out in any case, or every further start is refused
  put(HUBKEEPER_OPCODE_TRANSFER_END, {});
  session.awaitBounce(HUBKEEPER_OPCODE_TRANSFER_END, options.wait);
  if (*trouble == '\0') return;
  throw Failure(fmt::format("{}: {} is incomplete on the board, {} of {}", trouble, options.target, humanSize(sent),
                            humanSize(size)));
}

int send(Options options) {
  std::uint64_t size = 0;
  const File file = openRegular(options.file, size);
  Session session(options);
  checkTarget(session, options);
  const Clock::time_point start = Clock::now();
  transfer(session, options, file.get(), size);
  const double seconds = secondsSince(start);

  showPassing("comparing size and SHA-256 on the board ...");
  std::istringstream answer(runScript(session,
                                      fmt::format("t={}; wc -c <\"$t\"; sha256sum <\"$t\"", shellQuote(options.target)),
                                      std::max(options.wait, 60.0)));
  std::uint64_t boardSize = 0;
  std::string boardSum;
  if (!(answer >> boardSize >> boardSum)) boardSum.clear();
  const std::string sum = localSum(options.file);
  showPassing("");
  const bool summed = boardSum.size() == 64 && sum.size() == 64;
  const bool same = boardSize == size && (!summed || boardSum == sum);
  if (options.json) {
    printJson({{"target", options.target},
               {"bytes", size},
               {"seconds", seconds},
               {"boardBytes", boardSize},
               {"sha256", sum},
               {"boardSha256", boardSum},
               {"same", same}});
  }
  if (boardSize != size) {
    throw Failure(
        fmt::format("{} has {} bytes on the board instead of {}; is its disk full?", options.target, boardSize, size));
  }
  if (!same)
    throw Failure(fmt::format("{} differs on the board: SHA-256 {} instead of {}", options.target, boardSum, sum));
  if (!summed) throw Failure("the size is right, but sha256sum is missing, so the content was not compared");
  if (!options.json) {
    fmt::print("sent {} to {} in {:.2f} s, {}/s\nsize and SHA-256 are the same on the board\n", humanSize(size),
               options.target, seconds, humanSize(static_cast<std::uint64_t>(static_cast<double>(size) / seconds)));
  }
  return 0;
}

}  // namespace

Action addSend(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->file, "The file to send")->required();
  addArgument(app, "TARGET", options->target, "Its absolute path on the board, or a directory and /")->required();
  addSessionOptions(app, *options, "Give up when nothing returns for so long (default 5)");
  app.footer(
      "An existing target is overwritten.\nStatus 0 when size and SHA-256 are the same on the board afterwards.");
  return [options] {
    std::string& target = options->target;
    if (target.empty() || target.front() != '/') throw WrongUsage("TARGET must be an absolute path: " + target);
    if (target.back() == '/') target += options->file.substr(options->file.rfind('/') + 1);
    if (target.size() - 1 > maxName) throw WrongUsage(fmt::format("TARGET may have {} characters", maxName + 1));
    return send(*options);
  };
}
