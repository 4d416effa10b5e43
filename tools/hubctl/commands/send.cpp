// A file to the board, compared afterwards.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/failure.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/board.h"
#include "talking/transfer.h"

namespace {

struct Options : TalkOptions {
  std::string file;
  std::string target;
};

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

void completeTarget(const std::string& file, std::string& target) {
  if (target.empty() || target.front() != '/') throw WrongUsage("TARGET must be an absolute path: " + target);
  if (target.back() == '/') target += file.substr(file.rfind('/') + 1);
  if (target.size() > longestTarget) throw WrongUsage(fmt::format("TARGET may have {} characters", longestTarget));
}

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

// The SHA-256 of a local file, from the tool that the board has too; empty where it is missing.
std::string localSum(const std::string& path) {
  const std::string command = "sha256sum <" + shellQuote(path);
  const File pipe(popen(command.c_str(), "r"), pclose);
  char sum[65] = "";
  return pipe && std::fread(sum, 1, 64, pipe.get()) == 64 ? sum : "";
}

bool bothSummed(const Sum& here, const Sum& board) { return here.sha256.size() == 64 && board.sha256.size() == 64; }

void printSumsJson(const std::string& target, const Sum& here, const Sum& board, double seconds) {
  const bool same = board.bytes == here.bytes && (!bothSummed(here, board) || board.sha256 == here.sha256);
  printJson({{"target", target},
             {"bytes", here.bytes},
             {"seconds", seconds},
             {"boardBytes", board.bytes},
             {"sha256", here.sha256},
             {"boardSha256", board.sha256},
             {"same", same}});
}

void requireSame(const std::string& target, const Sum& here, const Sum& board) {
  if (board.bytes != here.bytes) {
    throw Failure(
        fmt::format("{} has {} bytes on the board instead of {}; is its disk full?", target, board.bytes, here.bytes));
  }
  if (!bothSummed(here, board)) {
    throw Failure("the size is right, but sha256sum is missing, so the content was not compared");
  }
  if (board.sha256 == here.sha256) return;
  throw Failure(fmt::format("{} differs on the board: SHA-256 {} instead of {}", target, board.sha256, here.sha256));
}

int send(const Options& options) {
  Sum here;
  const File file = openRegular(options.file, here.bytes);
  Session session(options);
  checkTarget(session, options.target);
  const Clock::time_point start = Clock::now();
  transfer(session, options.target, file.get(), here.bytes);
  const double seconds = secondsSince(start);

  showPassing("comparing size and SHA-256 on the board ...");
  const Sum board = sumOnBoard(session, options.target);
  here.sha256 = localSum(options.file);
  showPassing("");
  if (options.json) printSumsJson(options.target, here, board, seconds);
  requireSame(options.target, here, board);
  if (options.json) return 0;
  const double rate = static_cast<double>(here.bytes) / seconds;
  fmt::print("sent {} to {} in {:.2f} s, {}/s\nsize and SHA-256 are the same on the board\n", humanSize(here.bytes),
             options.target, seconds, humanSize(static_cast<std::uint64_t>(rate)));
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
    completeTarget(options->file, options->target);
    return send(*options);
  };
}
