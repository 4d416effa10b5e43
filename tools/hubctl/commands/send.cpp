// A file to the board, compared afterwards.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/failure.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/transfer.h"

namespace {

struct Options : TalkOptions {
  std::string file;
  std::string target;
  std::string mode;
};

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

void completeTarget(const std::string& file, std::string& target) {
  if (target.empty() || target.front() != '/') throw WrongUsage("TARGET must be an absolute path: " + target);
  if (target.back() == '/') target += file.substr(file.rfind('/') + 1);
  if (target.size() > longestTarget) throw WrongUsage(fmt::format("TARGET may have {} characters", longestTarget));
}

File openRegular(const std::string& path, std::uint64_t& size) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a FIFO would wait for a writer
  File file(descriptor == -1 ? nullptr : fdopen(descriptor, "rb"), std::fclose);
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0) {
    throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) throw Failure(fmt::format("{} is not a regular file", path));
  size = static_cast<std::uint64_t>(status.st_size);
  return file;
}

void printResultJson(const std::string& target, const Result& result) {
  printJson({{"target", target},
             {"bytes", result.here.bytes},
             {"seconds", result.seconds},
             {"boardBytes", result.board.bytes},
             {"sha256", result.here.sha256},
             {"boardSha256", result.board.sha256},
             {"same", result.unsummed() ? nlohmann::json() : nlohmann::json(true)}});
}

void printResult(const std::string& target, const Result& result) {
  const double rate = static_cast<double>(result.here.bytes) / std::max(result.seconds, 1e-6);
  print("sent {} to {} in {:.2f} s, {}/s\n", humanSize(result.here.bytes), harmless(target), result.seconds,
        humanSize(static_cast<std::uint64_t>(rate)));
  if (!result.unsummed()) print("size and SHA-256 are the same on the board\n");
}

int send(const Options& options, bool waitGiven) {
  Order order = {nullptr, 0, options.target, options.mode, options.wait};
  const File file = openRegular(options.file, order.size);
  order.file = file.get();
  // A slow board sums up some megabytes a second.
  if (!waitGiven) order.compareWait = 60 + static_cast<double>(order.size) / 4e6;
  Session session(options);
  const Result result = transfer(session, order);
  options.json ? printResultJson(options.target, result) : printResult(options.target, result);
  if (!result.complaint.empty()) {
    complain("the new file could not be given its owner or mode:\n" + result.complaint);
  }
  if (!result.unsummed()) return result.complaint.empty() ? 0 : 1;
  throw Failure("the size is right, but sha256sum is missing, so the content was not compared");
}

}  // namespace

Action addSend(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->file, "The file to send")->required();
  addArgument(app, "TARGET", options->target, "Its absolute path on the board, or a directory and /")->required();
  app.add_option("--mode", options->mode, "Mode of a new file, in octal; an old one's is kept")
      ->type_name("MODE")
      ->check(CLI::Validator(
          [](const std::string& text) {
            const bool octal = text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
            return octal && !text.empty() ? std::string() : text + " is no mode in octal";
          },
          ""));
  const CLI::Option* wait = addSessionOptions(app, *options, "Give up when nothing returns for so long (default 5)");
  app.footer(
      "An existing target is replaced when all has come through, and put back otherwise.\n"
      "Status 0 when size and SHA-256 are the same on the board afterwards.");
  return [options, wait] {
    completeTarget(options->file, options->target);
    return send(*options, wait->count() > 0);
  };
}
