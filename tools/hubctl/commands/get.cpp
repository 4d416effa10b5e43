// A file from the board, compared afterwards. It gets its name only when it is whole.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/failure.h"
#include "base/sum.h"
#include "commands/commands.h"
#include "commands/session_options.h"
#include "showing/json.h"
#include "showing/output.h"
#include "showing/terminal.h"
#include "showing/text.h"
#include "talking/board.h"
#include "talking/transfer.h"

namespace {

struct Options : TalkOptions {
  std::string file;
  std::string target;
};

// A file beside its later name, removed again unless it gets that name.
class Part {
 public:
  explicit Part(const std::string& itsName) : name(itsName), part(itsName + ".hubctl-XXXXXX") {
    descriptor = mkostemp(part.data(), O_CLOEXEC);
    if (descriptor == -1) fail();
  }
  ~Part() {
    close(descriptor);
    unlink(part.c_str());
  }
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

  void add(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t written = write(descriptor, bytes.data(), bytes.size());
      if (written == -1 && errno == EINTR) continue;
      if (written <= 0) fail();
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  std::string sum() const { return sha256Of(descriptor); }

  // Not every file system can rename without replacing; a link never replaces, where there are links.
  void keep(bool replace) {
    likeOld(replace);
    if (fsync(descriptor) == -1) fail();
    if (renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, name.c_str(), replace ? 0 : RENAME_NOREPLACE) == 0) return;
    if (replace || errno == EEXIST || link(part.c_str(), name.c_str()) == -1) fail();
  }

 private:
  // The mode of the file that is replaced, and its owner where that is allowed; otherwise what is usual.
  void likeOld(bool replace) {
    const mode_t mask = umask(0);
    umask(mask);
    struct stat old = {};
    const bool known = replace && stat(name.c_str(), &old) == 0;
    const bool owned = !known || fchown(descriptor, old.st_uid, old.st_gid) == 0 || errno == EPERM;
    const bool moded = fchmod(descriptor, known ? old.st_mode & 07777 : 0666 & ~mask) == 0 || errno == EPERM;
    if (!owned || !moded) fail();
  }

  [[noreturn]] void fail() const { throw Failure(fmt::format("cannot write {}: {}", name, std::strerror(errno))); }

  std::string name;
  std::string part;
  int descriptor;
};

void chooseTarget(const std::string& file, std::string& target) {
  struct stat status = {};
  if (file.empty() || file.front() != '/') throw WrongUsage("FILE must be an absolute path on the board: " + file);
  const std::string name = file.substr(file.rfind('/') + 1);
  if (target.empty()) target = name;
  if (stat(target.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) target += "/" + name;
}

void requireFree(const std::string& target, bool force) {
  struct stat status = {};
  if (lstat(target.c_str(), &status) != 0) return;
  if (!force) throw Failure(fmt::format("{} is there already; --force replaces it", target));
  if (!S_ISREG(status.st_mode)) throw Failure(fmt::format("{} is not a regular file", target));
}

int get(const Options& options, double compareWait) {
  requireFree(options.target, options.force);
  Session session(options);
  std::string path;
  const Sum board = [&] {
    const Passing text("summing up on the board ...");
    return sumOnBoard(session, options.file, compareWait, path);
  }();
  const Clock::time_point start = Clock::now();
  Part part(options.target);
  fetchFromBoard(session, path, board.bytes, [&](std::string_view piece) { part.add(piece); });
  const std::string sum = part.sum();
  const bool summed = !sum.empty() && !board.sha256.empty();
  const double seconds = secondsSince(start);
  if (summed && sum != board.sha256) {
    throw Failure(fmt::format("{} came differently: SHA-256 {} instead of {}; it may be written to at this moment",
                              options.file, sum, board.sha256));
  }
  part.keep(options.force);
  if (options.json) {
    printJson({{"file", options.file},
               {"target", options.target},
               {"bytes", board.bytes},
               {"seconds", seconds},
               {"boardBytes", board.bytes},
               {"sha256", sum},
               {"boardSha256", board.sha256},
               {"same", summed ? nlohmann::json(true) : nlohmann::json()}});
  } else {
    print("got {} as {} in {:.2f} s\n", humanSize(board.bytes), harmless(options.target), seconds);
    if (summed) print("size and SHA-256 are the same as on the board\n");
  }
  if (summed) return 0;
  throw Failure("the size is right, but sha256sum is missing, so the content was not compared");
}

}  // namespace

Action addGet(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  addArgument(app, "FILE", options->file, "Its absolute path on the board")->required();
  addArgument(app, "TARGET", options->target, "Its name here, or a directory (default the same name, here)");
  const CLI::Option* wait = addSessionOptions(app, *options, "Give up when nothing returns for so long (default 5)");
  app.get_option("--force")->description("Replace TARGET; go ahead beside another reader of queue 1003");
  app.footer("Status 0 when size and SHA-256 are the same as on the board.");
  return [options, wait] {
    chooseTarget(options->file, options->target);
    return get(*options, wait->count() > 0 ? options->wait : 300);
  };
}
